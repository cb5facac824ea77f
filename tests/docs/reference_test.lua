-- reference_test.lua TREE: every message, code, flag, counter, setting and status of the sources is
-- in docs/, and what the tables there list is in the sources. In docs/reference.md, `<value>` is a
-- placeholder for what a conversion or an expression writes.
local tree = arg[1]
local failures = 0

local function complain(format, ...)
    failures = failures + 1
    print((format:format(...):gsub("\1", "<>")))
end

-- Returns the files that find(1) lists for these arguments, concatenated.
local function read(paths)
    local list = io.popen(("cd '%s' && find %s -type f -exec cat {} +"):format(tree, paths))
    local text = list:read "*a"
    assert(list:close() and text ~= "", paths)
    return text
end

-- Returns what the patterns capture in the text; several captures are sorted and concatenated.
local function matches(text, ...)
    local found = {}
    for _, pattern in ipairs { ... } do
        for a, b, c in text:gmatch(pattern) do
            local captures = { a, b, c }
            table.sort(captures)
            found[#found + 1] = table.concat(captures, " ")
        end
    end
    return found
end

local function expect_in(list, others, place)
    assert(#list > 0, place)
    local known = {}
    for _, name in ipairs(others) do known[name] = true end
    for _, name in ipairs(list) do
        if not known[name] then complain("%s: %s", place, name) end
    end
end

local function expect_same(names, listed, place)
    expect_in(names, listed, place .. ": missing")
    expect_in(listed, names, place .. ": not in the sources")
end

-- ---- documents --------------------------------------------------------------------------

-- Returns a document from this heading to the next one of the same or a higher level.
local function section(document, heading)
    local text = read(document):gsub("\n```.-\n```", "")
    local level, rest = text:match("\n(#+) " .. heading:gsub("%p", "%%%0") .. "\n(.*)")
    assert(level, document .. " has no heading " .. heading)
    for depth = 2, #level do rest = rest:gsub("\n" .. ("#"):rep(depth) .. " .*", "") end
    return rest
end

-- Returns the first cells of the rows of each table whose first column has this title.
local function rows(text, title, cells)
    local found, current = {}, nil
    for line in (text .. "\n"):gmatch "(.-)\n" do
        local row = line:gsub("\\|", "\4"):match("^|" .. ("[^|]*|"):rep(cells))
        current = row and (current or row:match "^| *(.-) *|")
        if row and current == title then found[#found + 1] = row:gsub("\4", "|") end
    end
    return table.concat(found, "\n")
end

-- Compares the sources' names with what a pattern captures in the first cells of a table's rows.
local function compare(names, document, heading, title, cells, pattern)
    expect_same(names, matches(rows(section(document, heading), title, cells), pattern),
        document .. ", " .. heading)
end

-- ---- names and numbers ------------------------------------------------------------------

local HEALTH, REFERENCE = "plugins/filter/SystemHealth/", "docs/reference.md"
local driver, commands, reference = read "host/driver", read "lua/vxa bin", read(REFERENCE)
local records, diagnostics = read "imports/vxi/records.h", read "plugins/filter/Diagnostics"
local engines = read [[host/driver/engines -regex '.*/\(Statistics\|Tables\)[.]cpp']]

compare(matches(read(HEALTH .. "FailOpen.h"), "kAction%a+ = (%d+)"),
    REFERENCE, "Actions", "Action", 1, "%d+")
compare(matches(read(HEALTH .. "Config.cpp"), '"([%u_]+)=",%s*"([%u_]+)",%s*(%d+)'),
    "docs/policy.md", "Settings", "Policy key", 3, "`([%u_]+)` | `([%u_]+)` | (%d+)")
compare(matches(read(HEALTH .. "Metrics.cpp"), '{kMetric%a+, "[%l_ ]+", "([%l_]+)"'),
    "docs/health-monitor.md", "The metrics", "Name", 1, "`([%l_]+)`")
compare(matches(diagnostics, "Event = (%d+)"), REFERENCE, "Events", "Event", 1, "%d+")
compare(matches(diagnostics, 'kOperation = L"([^"]+)"', 'ShowErrors%([^;]-L"([^"]+)"'),
    REFERENCE, "Events", "Name", 1, "`([^`]+)`")
compare(matches(read "plugins/filter/ConnMetrics/Row.cpp", '"(cf_[%l_]+)", (0x%x+)'),
    "docs/connection-feedback.md", "Three calls", "Bit", 4, "(0x%x+) | `(cf_[%l_]+)`")
compare(matches(driver, "%-(E%u+)", "(VXI_E_[%u_]+)"),
    REFERENCE, "Statuses", "Status", 3, "`([EV][%u_]+)`")
for heading, prefix in pairs { ["Flags of flows"] = "VXA_FLOW", ["Scan counters"] = "VXI_SCAN",
                               ["Flags of the blacklist"] = "VXA_BLACKLIST" } do
    compare(matches(records, "\n    (" .. prefix .. "_[%u_]+) = (%d+)"),
        REFERENCE, heading, "Name", 2, "`([%u_]+)` | (%d+)")
end
compare(matches(read "host/driver/dumps", '[{ ]"(%u[%u_]+%d?)"'),
    REFERENCE, "TCP states", "State", 1, "`([%u_%d]+)`")
compare(matches(read "host/driver/records/Variables.cpp", '"(vxi%.[%l_]+)"'),
    REFERENCE, "Variables of the library", "Name", 1, "`([%l_.]+)`")
compare(matches(engines, '"(%l+%.[%l_%d]+)"'),
    REFERENCE, "Counters of the library", "Name", 1, "`([%l_%d.]+)`")
compare(matches(read "host/driver/api/operations.def", "\n%u+%(%u%w+, ([%l_]+)"),
    "host/driver/engines/fault/README.md", "Grammar", "Part", 2, "`vxi_([%l_]+)`")
compare(matches(commands .. driver, 'getenv%("([%u_]+)"%)'),
    "docs/command.md", "Environment", "Variable", 1, "`([%u_]+)`")

local statuses = matches(commands, "exit%.fail%((%d)", "return (0)\n")
for number in commands:gmatch "SIG%u+ = (%d+)" do table.insert(statuses, 128 + number .. "") end
compare(statuses, "docs/command.md", "Exit status", "Status", 1, "%d+")
for name in commands:match("local COMMANDS = (%b{})"):gmatch "%l+" do
    section(("docs/commands/%s.md"):format(name), "Exit status")
end

local categories = matches(read "plugins/filter", 's_Trace%a*%(L"([^"]+)"', 'String%(L"(VXI)"')
expect_same(categories, matches(commands:match "TRACE_CATEGORIES = (%b{})", '"([^"]+)"'),
    "lua/vxa/session.lua, categories")
expect_same(categories, matches(reference, "\n### Traces of (%S+)"), REFERENCE .. ", traces")

-- Series of Prometheus. The name of a health metric's is composed of its row in BASE.
local exporter = read "lua/vxa/listeners/metrics.lua"
local series = matches(exporter, '"gauge", "([%l_]+)"', '"counter",%s*"([%l_]+)"')
for name in exporter:gmatch '"summary", "([%l_]+)"' do table.insert(series, name .. "_sum") end
for stem, unit in exporter:gmatch '{ "([%l_]+)", "([%l_]+)", %d' do
    table.insert(series, ("health_%s_%s"):format(stem, unit))
end
compare(series, "docs/fleet.md", "Metrics", "Metric", 1, "| `vxa_([%l_]+)")

-- Members of JSON records. Some are described in prose.
local order = read("lua/vxa/output/json_records.lua"):match "KEY_ORDER = (%b{})"
local described = read "docs/commands docs/package.md docs/connection-feedback.md"
expect_in(matches(order, '"([^"]+)"'), matches(described, '[`"]([%w_.]+)[`"]'),
    "docs/commands: no record has the member")
for _, name in ipairs { "run", "history", "diff", "replay", "tune" } do
    local text = section(("docs/commands/%s.md"):format(name), "JSON")
    expect_in(matches(rows(text, "Record", 2), "`(%l[%w_]*%w)`"),
        matches(rows(text, "Record", 1) .. order .. "`frepct`", '[`"]([%w_.]+)[`"]'),
        name .. ".md: not a member")
end

-- ---- messages ---------------------------------------------------------------------------

-- For read(): C++ and Lua, without other files.
local CODE = [[ -regex '.*\(vxa\|[.]\(cpp\|h\|lua\)\)']]

-- Literals in C++ that look like messages and are not, as patterns: arguments of commands, what
-- files have, JSON, and what Lua writes after "bad argument".
local OTHERS = { "^%A*$", "\\", '"', "^vmstat", "^proc/", "^SIG$", "^UTC$", "^Mem%a+:",
                 "^list ruleset", "^ct %l", "^[%l%d].*expected$", "^vxa re[cd]",
                 "KIND ORIGINAL MASKED key", "^names without", "^get_scan_metrics%(%) failed$" }

-- Returns a message with \1 in place of what varies, without blanks and punctuation at its ends.
local function plain(message, placeholder)
    return (message:gsub(placeholder, "\1"):gsub("^[%s%p\1]+", ""):gsub("[%s%p\1]+$", ""))
end

local function is_message(literal, message)
    for _, pattern in ipairs(OTHERS) do
        if message:find(pattern) then return false end
    end
    return message:find " " or literal:find "%(%)" or literal:find "%%"
end

-- Returns the string literals in C++ or Lua code, adjacent and concatenated ones as one: all, and
-- those that are messages.
local function literals(code)
    local all, messages = {}, {}
    code = code:gsub("//[^\n]*", ""):gsub("/%*.-%*/", ""):gsub("%-%-[ -][^\n]*", "")
        :gsub("\n#[^\n]*", ""):gsub("static_assert%b()", ""):gsub("\\\\", ""):gsub('\\"', "\2")
        :gsub("'\2?\"?'", ""):gsub('"%s+"', ""):gsub('"%s*%.%.%s*"', "")
    for literal in code:gmatch '"([^"\n]*)"' do
        literal = literal:gsub("\2", '"'):gsub("\\n", " "):gsub("%%%%", "%%")
        local message = plain(literal, "%%[-+#0-9.*]*[hlzjt]*%a")
        table.insert(all, message)
        if is_message(literal, message) then table.insert(messages, message) end
    end
    return all, messages
end

-- Returns whether the text has the message as a line, or in a line between what varies.
local function has(text, message)
    local first, last = text:find(message, 1, true)
    while first do
        if text:find("^[%s%p]*[\1\n]", last + 1)
            and text:sub(math.max(first - 9, 1), first - 1):find "[\1\n][%s%p]*$" then
            return true
        end
        first, last = text:find(message, first + 1, true)
    end
    return false
end

-- Looks for the messages in the code spans of a text, or anywhere in `others`.
local function expect_messages(code, document, place, others)
    local spans = "\n"
    for span in document:gsub("\\|", "|"):gmatch "`([^`\n]+)`" do
        spans = spans .. span:gsub("<[^<>]*>", "\1") .. "\n"
    end
    for _, message in ipairs(select(2, literals(code))) do
        if not has(spans, message) and not (others and others:find(message, 1, true)) then
            complain("%s: no message '%s'", place, message)
        end
    end
end

local LUA_CALLS = { 'warnings,%s*%(?("[^"\n]*")', "fail(%b())", "complain(%b())", "warn_once(%b())",
                    "warnings:add(%b())", "list:add(%b())", "self:add(%b())", "error(%b())",
                    'otherwise =%s+("[^"\n]*")' }
expect_messages(read("plugins/filter imports/slb3/SLB3 host" .. CODE), reference, REFERENCE,
    read("docs/diagnostic-texts.md"):gsub("\n", " "))
expect_messages(table.concat(matches(read "lua bin ! -path '*/plot/*'", table.unpack(LUA_CALLS)),
    ";"), reference, REFERENCE)

-- No call has findings as its argument; fewer words can also be a name or a part of a finding.
local findings = read "lua/health_policy.lua lua/strict_json.lua lua/vxa/check"
for _, message in ipairs(select(2, literals(findings))) do
    if message:find "%a+ %a+ %a+ %a+ %a+" then
        expect_messages(('"%s"'):format(message), reference, REFERENCE)
    end
end

-- Each trace and log message in the table of its category.
local module = read("plugins/filter" .. CODE)
for heading, pattern in pairs {
    ["Traces of SysHealth.eng"] = "Trace%(s_TraceEngine.-%);",
    ["Traces of SysHealth.conf"] = "Trace%(s_TraceConf.-%);",
    ["Traces of SysHealth.scan"] = "Trace%(s_TraceScan.-%);",
    ["Traces of SysHealth.metr"] = "Trace%(s_TraceMetr.-%);",
    ["Traces of diagnostics"] = "TraceAt%(.-%);",
    ["Errors of the health monitor"] = "Log[EV]%l+%(.-%);",
} do
    expect_messages(table.concat(matches(module, pattern), ";"), section(REFERENCE, heading),
        heading)
end

-- Each message in a table is in the sources.
local known = "\n" .. table.concat(literals(read("plugins host lua bin imports" .. CODE)), "\n")
    .. "\n"
for _, title in ipairs { "Message", "Detail" } do
    for _, row in ipairs(matches(rows(reference, title, 1), "`([^`\n]+)`")) do
        for piece in row:gsub("<[^<>]*>", "\1"):gmatch "[^\1]+" do
            if piece:find "%a%a" and not has(known, plain(piece, "\1")) then
                complain("%s: no source has '%s' of '%s'", REFERENCE, piece, row)
            end
        end
    end
end

os.exit(failures == 0)
