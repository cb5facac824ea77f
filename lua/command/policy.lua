-- Where a run's health policy comes from, and what it sets.

local json = require "dkjson"
local fail = require "command.fail"
local health_policy = require "health_policy"

local policy = {}

policy.CONF_PATH = "/etc/vx_filter.conf"

policy.settings = health_policy.settings

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

local function from_json_file(options)
    local path = options.policy
    local text, message = read_file(path, "policy")
    if not text then fail(2, "policy %s", message) end
    local values, warnings = health_policy.check(text, options.lenient)
    if not values then
        fail(2, "policy %s: %s%s", path, warnings, warnings:find("^line ") and ""
            or " (--lenient takes it as the module does)")
    end
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
local LONGEST_QUEUE = 200  -- the bound of SYS_THR_RUNQ
local FREE_MEMORY_PCT = 0.1

local DEFAULT_SOURCE = "built-in default (no --policy, no " .. policy.CONF_PATH .. ")"

local function built_in(cpus)
    local values = {
        SYS_THR_RUNQ = math.min(LONGEST_QUEUE, PROCESSES_PER_CPU * math.max(cpus, 1)),
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
    local chosen = options.policy and from_json_file(options)
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
