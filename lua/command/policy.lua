-- Where a run's health policy comes from, and whether it says what its author meant.
--
-- The module reads a policy without a word about names it does not know, and tells of
-- values out of bounds only in its trace. So the command checks both here and warns.

local json = require "dkjson"
local fail = require "command.fail"

local policy = {}

policy.CONF_PATH = "/etc/vx_filter.conf"

-- Every setting. `conf` is its name in the configuration file. A threshold is written as
-- an object in JSON: {"SYS_THR_RUNQ": {"value": 8}}; everything else as a plain number.
policy.settings = {
    { key = "SYS_CONF_CONN_REFUSAL_PORT", conf = "SYSTEM_CONNECTION_REFUSAL_PORT", max = 65535 },
    { key = "SYS_CONF_CONN_REFUSAL_OUTBOUND", conf = "SYSTEM_CONNECTION_REFUSAL_OUTBOUND",
      max = 1 },
    { key = "SYS_CONF_RECOVER_FACTOR", conf = "SYSTEM_RECOVERY_FACTOR", max = 100 },
    { key = "SYS_CONF_MIN_ACT_DURATION", conf = "SYSTEM_MIN_ACT_DURATION", max = 60 },
    { key = "SYS_THR_CONN_REFUSAL_PCT", conf = "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD", max = 100,
      threshold = true, needs_port = true },
    { key = "SYS_THR_RUNQ", conf = "SYSTEM_RUNQ_PCT_THRESHOLD", max = 200, threshold = true },
    { key = "SYS_THR_CONN_EST_PER_CPU", conf = "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU",
      max = 10000000, threshold = true, needs_port = true },
    { key = "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", conf = "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU",
      max = 100000, threshold = true, needs_port = true },
    { key = "SYS_THR_FREE_MEM", conf = "SYSTEM_MIN_FREE_MEM_PCT", max = 25, threshold = true },
    { key = "SYS_THR_MAX_ITERATION_INVL", conf = "SYSTEM_MAX_ITERATION_INTERVAL", max = 60,
      threshold = true },
    { key = "SYS_CONF_UNLOAD_DRIVER", conf = "SYSTEM_UNLOAD_DRIVER", max = 1 },
}

-- Thresholds that --port adds to a policy that has none for the port. Each is far above
-- what a healthy server shows: half of the new connections dying half-open; more new
-- connections or bytes than one processor can serve.
local port_defaults = {
    SYS_THR_CONN_REFUSAL_PCT = 50,
    SYS_THR_CONN_EST_PER_CPU = 5000,
    SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU = 500,
}

local key_order = {}
for i, setting in ipairs(policy.settings) do key_order[i] = setting.key end

local function in_bounds(setting, number)
    if setting.threshold then return number > 0 and number <= setting.max end
    return number >= 0 and number <= setting.max
end

-- ---- JSON -------------------------------------------------------------------------------

-- The module finds members whatever the case of their letters.
local by_lower_key = {}
for _, setting in ipairs(policy.settings) do by_lower_key[setting.key:lower()] = setting end

local function skip(text, at, pattern)
    return text:match("^[" .. pattern .. "%s]*()", at)
end

-- The members of the JSON object that begins at `at`, in their order: {key, value, at}. A
-- decoded table has lost the order, and of repeated members it keeps the last, while the
-- module takes the first.
local function members(text, at)
    local found = {}
    at = skip(text, at + 1, "")
    while text:sub(at, at) == '"' do
        local member = {}
        member.key, at = json.decode(text, at)
        member.at = skip(text, at, ":")
        member.value, at = json.decode(text, member.at, json.null)
        found[#found + 1] = member
        at = skip(text, at, ",")
    end
    return found
end

-- Sorts the members that count from those that repeat an earlier one.
local function first_of_each(list)
    local firsts, repeated, seen = {}, {}, {}
    for _, member in ipairs(list) do
        local name = member.key:lower()
        local target = seen[name] and repeated or firsts
        target[#target + 1] = member
        seen[name] = true
    end
    return firsts, repeated
end

-- A threshold's number, and whether it has several.
local function threshold_number(text, threshold)
    if text:sub(threshold.at, threshold.at) ~= "{" then return nil end
    local firsts, repeated = first_of_each(members(text, threshold.at))
    local number, again = nil, false
    for _, member in ipairs(firsts) do
        if member.key:lower() == "value" then number = member.value end
    end
    for _, member in ipairs(repeated) do again = again or member.key:lower() == "value" end
    return type(number) == "number" and number or nil, again
end

-- The number that the module takes for this member, or nil when it takes none; and a
-- remark when it is not what its author wrote.
local function accepted(setting, text, member)
    local number, remark
    if setting.threshold then
        local again
        number, again = threshold_number(text, member)
        remark = again and "has its value repeated; the first counts" or nil
        if not number then
            return nil, ('must be an object such as {"value": %d}; it is ignored')
                :format(setting.max)
        end
    elseif type(member.value) == "number" then
        number = member.value
    else
        number, remark = 0, "is no number and counts as 0"
    end
    if not in_bounds(setting, number) then
        return nil, ("%.14g is out of bounds (%s to %d); it is ignored")
            :format(number, setting.threshold and "above 0" or "0", setting.max)
    end
    return number, remark
end

-- Settings that will be in force, by key, and a warning for each member that is not.
local function check_members(text)
    local values, warnings = {}, {}
    local firsts, repeated = first_of_each(members(text, text:find("{", 1, true)))
    for _, member in ipairs(firsts) do
        local setting = by_lower_key[member.key:lower()]
        if not setting then
            warnings[#warnings + 1] = ("'%s' is no setting; it is ignored"):format(member.key)
        else
            local number, remark = accepted(setting, text, member)
            values[setting.key] = number
            if remark then warnings[#warnings + 1] = setting.key .. " " .. remark end
        end
    end
    for _, member in ipairs(repeated) do
        warnings[#warnings + 1] = ("'%s' is repeated; the first counts"):format(member.key)
    end
    return values, warnings
end

local function render(values)
    local object = {}
    for _, setting in ipairs(policy.settings) do
        local number = values[setting.key]
        if number and setting.threshold then number = { value = number } end
        object[setting.key] = number
    end
    return json.encode(object, { keyorder = key_order })
end

local function read_file(path, what)
    local file, message, code = io.open(path, "rb")
    if not file then return nil, message, code end
    local text
    text, message = file:read("*a")
    file:close()
    if not text then fail(2, "%s %s: %s", what, path, message) end
    return text
end

local function from_json_file(vxa, path)
    local text, message = read_file(path, "policy")
    if not text then fail(2, "policy %s", message) end
    local ok, fault, line, column = vxa.check_json(text)
    if not ok then fail(2, "policy %s: line %d, column %d: %s", path, line, column, fault) end
    local object = json.decode(text)
    -- Arrays and objects are told apart by their first character: an empty one by nothing else.
    if type(object) ~= "table" or not text:find("^[\239\187\191%s]*{") then
        fail(2, "policy %s: line 1, column 1: the policy must be a JSON object", path)
    end
    local values, warnings = check_members(text)
    return { text = text, source = path, values = values, warnings = warnings }
end

-- ---- configuration file -----------------------------------------------------------------

local function setting_of_line(line)
    for _, setting in ipairs(policy.settings) do
        local prefix = setting.conf .. "="
        if line:sub(1, #prefix) == prefix then return setting, line:sub(#prefix + 1) end
    end
end

local function leading_number(text)
    return tonumber(text:match("^%s*([+-]?[%d.]+[eE][+-]?%d+)") or text:match("^%s*([+-]?[%d.]+)"))
end

-- Zero and below are refused here, for every setting: unlike in a policy.
local function conf_remark(setting, number)
    if not number then return "has no number; the line is ignored" end
    if number <= 0 or number > setting.max then
        return ("%.14g is out of bounds (above 0 to %d); the line is ignored"):format(number,
            setting.max)
    end
end

-- The name that a line was meant to set, however it is written; nil for other lines.
local function intended_name(line)
    return line:match("^%s*([%w_]+)%s*=")
end

-- The module reads the file itself, at every cycle; this is what it makes of it now.
local function from_conf_text(text)
    local values, warnings, line_number = {}, {}, 0
    for line in text:gmatch("([^\n]*)\n?") do
        line_number = line_number + 1
        local setting, rest = setting_of_line(line)
        local number = setting and leading_number(rest)
        local remark = setting and conf_remark(setting, number)
            or not setting and intended_name(line) and "is no setting; the line is ignored"
        if remark then
            warnings[#warnings + 1] = ("line %d: %s %s"):format(line_number, intended_name(line),
                remark)
        elseif setting then
            values[setting.key] = number
        end
    end
    return { text = "", source = policy.CONF_PATH, values = values, warnings = warnings }
end

-- ---- default ----------------------------------------------------------------------------

-- For a machine that nobody has configured: fail-open only when something is plainly
-- wrong. Four runnable processes a processor is well past busy. Below 0.1 % free memory
-- the kernel no longer keeps up: it starts to reclaim 0.1 % above its reserve.
local PROCESSES_PER_CPU = 4
local FREE_MEMORY_PCT = 0.1

local DEFAULT_SOURCE = "built-in default (no --policy, no " .. policy.CONF_PATH .. ")"

local function built_in(cpus)
    local longest_queue = by_lower_key.sys_thr_runq.max
    local values = {
        SYS_THR_RUNQ = math.min(longest_queue, PROCESSES_PER_CPU * math.max(cpus, 1)),
        SYS_THR_FREE_MEM = FREE_MEMORY_PCT,
    }
    return { text = render(values), source = DEFAULT_SOURCE, values = values, warnings = {} }
end

-- ---- choice -----------------------------------------------------------------------------

local function has_port_threshold(values)
    for key in pairs(port_defaults) do
        if values[key] then return true end
    end
    return false
end

-- The module takes the first of repeated members, so members put in front win over the
-- author's and leave the rest of the text as it is.
local function put_in_front(text, additions)
    local rest = text:match("^[^{]*{%s*(.*)$")
    return additions:sub(1, -2) .. (rest:sub(1, 1) == "}" and "" or ",") .. rest
end

local function with_port(chosen, port, outbound)
    local additions = { SYS_CONF_CONN_REFUSAL_PORT = port,
                        SYS_CONF_CONN_REFUSAL_OUTBOUND = outbound and 1 or 0 }
    if not has_port_threshold(chosen.values) then
        for key, value in pairs(port_defaults) do additions[key] = value end
    end
    local text = chosen.text ~= "" and chosen.text or render(chosen.values)
    for key, value in pairs(additions) do chosen.values[key] = value end
    chosen.text = put_in_front(text, render(additions))
    chosen.source = ("%s, --port %d"):format(chosen.source, port)
    return chosen
end

local ENOENT = 2

local function without_policy_file(cpus)
    local text, message, code = read_file(policy.CONF_PATH, "configuration")
    if text then return from_conf_text(text) end
    if code ~= ENOENT then fail(2, "configuration %s", message) end
    return built_in(cpus())
end

-- options.policy, else the configuration file, else the built-in default; then --port on
-- top. `cpus` is a function: asking costs a command, and only the default needs it.
-- Returns {text, source, values, warnings}; an empty text leaves the reading to the module.
function policy.choose(options, vxa, cpus)
    local chosen = options.policy and from_json_file(vxa, options.policy)
        or without_policy_file(cpus)
    if options.port then return with_port(chosen, options.port, options.outbound) end
    return chosen
end

-- Why the module does not monitor with these settings, and what mends it.
function policy.why_disabled(chosen)
    local values = chosen.values
    if has_port_threshold(values) and not values.SYS_CONF_CONN_REFUSAL_PORT then
        return ("%s has a connection threshold but no port; give --port N or set the port there")
            :format(chosen.source)
    end
    return ("%s holds no valid setting; give it at least one threshold, or use another policy")
        :format(chosen.source)
end

return policy
