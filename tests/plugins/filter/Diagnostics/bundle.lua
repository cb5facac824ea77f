-- The bundle of the unmodified module on the simulated engine, into real archives, with the
-- engine's calls failing in turn and together: entries, events, traces, and what other
-- programs read from the archive.

local t = require "testing"
local vxa = require "vxa"
require "fc"

-- What a sanitizer needs in this process is not for the commands that it starts.
vxa.setenv("LD_PRELOAD")

local folder = os.tmpname()
os.remove(folder)
assert(os.execute("mkdir -m 700 " .. folder))
local logs, path = folder .. "/records.jsonl", folder .. "/diag.zip"
vxa.log_to(logs)
assert(vxa.engine "sim")
assert(vxa.simulate "flows=50,blacklist=7,rules=5")

local function output(command)
    local pipe = assert(io.popen(command .. " 2>&1"))
    local text = pipe:read "*a"
    return text, pipe:close() == true
end

local function entry(name) return (output(("unzip -p %s %s"):format(path, name))) end

-- Name to {text flag, size}, and the names in their order, as unzip lists them.
local function contents()
    local listed, names = {}, {}
    for line in output("unzip -Z " .. path):gmatch "[^\n]+" do
        local size, kind, name = line:match "^%S+ +%S+ +%S+ +(%d+) (%a)%S +%S+ +%S+ +%S+ (%S+)$"
        if size then
            listed[name] = {text = kind == "t", size = tonumber(size)}
            names[#names + 1] = name
        end
    end
    return listed, names
end

local all_names = {"vxa_stats.txt", "vxa_variables.txt", "vxa_conn_track.txt",
                   "vxa_blacklist.txt", "vxa.tpf"}

-- Runs the bundle with a script of faults: result, events and traces as texts; the archive
-- is finished then.
local function bundle(faults)
    os.remove(path)
    local dom, handle, zip = vxa.Dom(), assert(vxa.open()), vxa.ZipOutputStream(path)
    t.records(logs)
    assert(vxa.fault(faults))
    local results = table.pack(SLB.filter.AddDriverDiagnostics(dom, handle, zip))
    assert(vxa.fault "")
    t.equal(results, {true, n = 1}, faults)
    t.equal(zip:close(), true)
    handle:close()
    local events, traces = {}, {}
    for i, event in ipairs(dom:events()) do
        t.equal(event.id, 1001)
        events[i] = event.text
    end
    for _, trace in ipairs(t.records(logs).trace) do
        traces[#traces + 1] = ("%s %s:%d %s: %s"):format(
            trace.category, trace.file, trace.line, trace["function"], trace.message)
    end
    return events, traces
end

local function with(name, list)
    for _, text in ipairs(list) do if text:find(name, 1, true) then return true end end
    return false
end

-- ---- everything goes well --------------------------------------------------------------

t.equal(bundle "", {}, "no events")
local listed, names = contents()
t.equal(names, all_names)
t.equal(select(2, output("unzip -tq " .. path)), true, "unzip reads it")
for _, name in ipairs(all_names) do
    local bytes = entry(name)
    t.equal(listed[name], {text = name ~= "vxa.tpf", size = #bytes}, name)
    t.equal(#bytes > 0, true, name)
end
t.equal(select(2, entry "vxa_variables.txt":gsub("\n", "")), 173, "a line a variable")
t.equal(entry "vxa_blacklist.txt":match "^# [^\n]*\n" ~= nil, true, "a heading")

-- ---- every combination -----------------------------------------------------------------

vxa.trace("diagnostics", true)
vxa.trace("filter", true)

local dumps = {
    {"AddDriverStatistics", 77, "vxi_get_stats=-5", "GET_STATS"},
    {"AddDriverVariables", 80, "vxi_get_varv=-5", "GET_VARIABLE"},
    {"AddDriverConnTrack", 83, "vxi_get_conntrack=-5", "GET_CONN_TRACK"},
    {"AddDriverBlacklist", 86, "vxi_get_blacklist=-5", "BLACKLIST_ADD"},
    -- This one always adds its entry.
    {"AddDriverRuleStats", 89, "vxi_get_profile_stats=-5:after=1", "vxi_get_profile_stats()"},
}
for combination = 0, 31 do
    local faults, operations, failures, expected = {}, {}, {}, {}
    for i, dump in ipairs(dumps) do
        local fails = math.floor(combination / 2 ^ (i - 1)) % 2 == 1
        if fails then
            faults[#faults + 1] = dump[3]
            operations[#operations + 1] = dump[4] .. "|fffffffb"
        end
        if fails and i < 5 then
            failures[#failures + 1] = ("diagnostics plugins/filter/Diagnostics:%d "
                .. "AddDriverContent: %s diagnostics failed"):format(dump[2], dump[1])
        else
            expected[#expected + 1] = all_names[i]
        end
    end
    local events, traces = bundle(table.concat(faults, ","))
    for i, event in ipairs(events) do events[i] = event:match "^(.-) %(engine sim: .*%)$" end
    t.equal(events, operations, combination)
    local sizes, got = contents()
    t.equal(got, expected, combination)
    t.equal(sizes["vxa.tpf"].size == 0, combination >= 16, "rules " .. combination)
    local failed = {}
    for _, trace in ipairs(traces) do
        if trace:find "diagnostics failed$" then failed[#failed + 1] = trace end
    end
    t.equal(failed, failures, combination)
    t.equal(traces[1], "filter plugins/filter/fc:80 AddDriverDiagnostics: AddDriverDiagnostics")
    t.equal(traces[#traces],
        "filter plugins/filter/fc:102 AddDriverDiagnostics: AddDriverContent returned 1")
    t.equal(traces[2], "diagnostics plugins/filter/Diagnostics:74 AddDriverContent: AddDriverContent()")
end

-- ---- every call, with several statuses -------------------------------------------------

-- Which entry a failure of the n-th call of that name costs ("", none), the operation that
-- is told, and the trace that tells it.
local calls = {
    {"vxi_get_stats", 0, "vxa_stats.txt", "GET_STATS"},
    {"vxi_get_varv", 0, "vxa_variables.txt", "GET_VARIABLE"},
    {"vxi_get_varv", 5, "vxa_variables.txt", "GET_VARIABLE"},
    {"vxi_get_varv", 172, "vxa_variables.txt", "GET_VARIABLE"},
    {"vxi_get_conntrack", 0, "vxa_conn_track.txt", "GET_CONN_TRACK"},
    {"vxi_get_conntrack", 1, "", "GET_CONN_TRACK", ":293 getDriverConnTrack: rc = %d"},
    {"vxi_get_conntrack", 2, "", "GET_CONN_TRACK", ":311 getDriverConnTrack: rc = %d"},
    {"vxi_get_blacklist", 0, "vxa_blacklist.txt", "BLACKLIST_ADD"},
    {"vxi_get_blacklist", 1, "vxa_blacklist.txt", "BLACKLIST_ADD"},
    {"vxi_get_profile_stats", 0, ""},
    {"vxi_get_profile_stats", 1, "", "vxi_get_profile_stats()"},
    {"vxi_get_var", 0, ""},
    {"vxi_set_var", 0, ""},
    {"vxi_get_conn_states", 0, ""},
}
for _, call in ipairs(calls) do
    for status, code in pairs {[-5] = "fffffffb", [-110] = "ffffff92", [-10017] = "ffffd8df",
                               [7] = "00000007"} do
        local what = ("%s %d: %d"):format(call[1], call[2], status)
        local events, traces = bundle(("%s=%d:after=%d:100 %%s%%n broke:once"):format(
            call[1], status, call[2]))
        local silent = not call[4] or call[1] == "vxi_get_varv" and status == -10017
        local text = silent
            or ("%s|%s (engine sim: %s: 100 %%s%%n broke)"):format(call[4], code, call[1])
        t.equal(events, silent and {} or {text}, what)
        t.equal(with(":408 ShowErrors: AgentWrite 1001 " .. tostring(text), traces), not silent, what)
        if call[5] then t.equal(with(call[5]:format(status), traces), true, what) end
        local expected = {}
        for _, name in ipairs(all_names) do
            if name ~= call[3] then expected[#expected + 1] = name end
        end
        t.equal(select(2, contents()), expected, what)
    end
end

-- No driver: silence, and the one entry that needs none.
local events, traces = bundle "vxi_driver_available=0"
t.equal(events, {})
t.equal(select(2, contents()), {"vxa.tpf"})
t.equal(with(":392 IsDriverOpen: IsDriverOpen 0", traces), true)
local failed = 0
for _, trace in ipairs(traces) do
    if trace:find "diagnostics failed$" then failed = failed + 1 end
end
t.equal(failed, 3, "the connections are no failure then")

-- Nothing to tell: no connections, no addresses, no rules.
assert(vxa.simulate "flows=0,blacklist=0,rules=0")
t.equal(bundle "", {})
t.equal(select(2, contents()), {"vxa_stats.txt", "vxa_variables.txt", "vxa_blacklist.txt", "vxa.tpf"})

-- ---- arguments -------------------------------------------------------------------------

local dom, handle, zip = vxa.Dom(), assert(vxa.open()), vxa.ZipOutputStream(path)
local closed = assert(vxa.open())
closed:close()
local dump = SLB.filter.AddDriverDiagnostics
t.records(logs)
local refused = {
    {"CDom object expected"}, {"CDom object expected", zip, handle, zip},
    {"vxi handle expected", dom, dom, zip}, {"vxi handle already closed", dom, closed, zip},
    {"CZipOutputStream object expected", dom, handle, dom},
}
for _, case in ipairs(refused) do
    t.raises("(" .. case[1] .. ")", dump, table.unpack(case, 2, 4))
    local records = t.records(logs).trace
    t.equal(#records, 1, "traced although refused")
    t.equal(records[1].line, 80)
end
t.equal(dump(dom, handle, zip, "more"), true)
t.equal(zip:close(), true)
-- A finished archive takes nothing: all dumps fail, in their order, and that is no error.
t.records(logs)
t.equal(dump(dom, handle, zip), true)
local lines = {}
for _, trace in ipairs(t.records(logs).trace) do
    local failed = trace.message:match "^AddDriver(%a+) diagnostics failed$"
    lines[#lines + 1] = failed and trace.line .. failed
end
t.equal(lines, {"77Statistics", "80Variables", "86Blacklist", "89RuleStats"},
    "the sim has no connections: that dump succeeds")

assert(os.execute("rm -r " .. folder))
t.finish()
