-- Where a run's health policy comes from, and what it sets.

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

-- As JSON, with digits enough for the module to read the same numbers.
local function render(values)
    local members = {}
    for _, setting in ipairs(policy.settings) do
        if values[setting.key] then
            members[#members + 1] = ((setting.threshold and '"%s":{"value":%.17g}' or '"%s":%.17g'))
                :format(setting.key, values[setting.key])
        end
    end
    return "{" .. table.concat(members, ",") .. "}"
end

-- ---- policy file ------------------------------------------------------------------------

local MOST_BYTES = 1048576

local function from_json_file(vxa, path, lenient)
    local text, message = vxa.read_file(path, MOST_BYTES)
    if not text then fail(2, "policy %s", message) end
    local values, warnings = health_policy.check(text, lenient)
    if not values then
        fail(2, "policy %s: %s%s", path, warnings, warnings:find("^line ") and ""
            or " (--lenient takes it as the module does)")
    end
    return { text = text, source = path, values = values, warnings = warnings }
end

-- ---- configuration file -----------------------------------------------------------------

local by_conf_name = {}
for _, setting in ipairs(policy.settings) do by_conf_name[setting.conf] = setting end

-- Zero and below are refused here, for every setting: unlike in a policy.
local function conf_setting(setting, number, values, warnings, place)
    if not number then
        warnings:add("%s%s has no number; the line is ignored", place, setting.conf)
    elseif number > 0 and number <= setting.max then
        values[setting.key] = health_policy.effective(setting, number, warnings,
            place .. setting.conf)
    else
        warnings:add("%s%s %.14g is out of bounds (above 0 to %d); the line is ignored", place,
            setting.conf, number, setting.max)
    end
end

-- A line that the module passes over, though its author meant to set something.
local function conf_other(line, warnings, place)
    local name = line:match("^%s*([%w_]+)%s*=")
    if line:find('^%s*{?%s*"[%w_]+"%s*:') then
        warnings:add("%sJSON is for --policy; this file has lines NAME=NUMBER", place)
    elseif name and by_conf_name[name:upper()] then
        warnings:add("%s%s= must begin the line, in capitals and without blanks; it is ignored",
            place, name:upper())
    elseif name then
        warnings:add_unknown(place, name, "conf")
    end
end

-- The module reads the file itself, at every cycle; this is what it makes of it now.
local function from_conf_text(vxa, text)
    local values, warnings = {}, health_policy.complaints()
    local at, line_number = 1, 1
    while at <= #text do
        local line, number, next_at = vxa.conf_line(text, at)
        local setting = by_conf_name[line:match("^([%u_]+)=")]
        local place = ("line %d: "):format(line_number)
        if setting then
            conf_setting(setting, number, values, warnings, place)
        else
            conf_other(line, warnings, place)
        end
        if text:byte(next_at - 1) == 10 then line_number = line_number + 1 end
        at = next_at
    end
    return { text = "", source = policy.CONF_PATH, values = values, warnings = warnings:close() }
end

-- ---- default ----------------------------------------------------------------------------

-- For a machine that nobody has configured: fail-open only when something is plainly
-- wrong. Four runnable processes a processor is well past busy. Below 0.1 % free memory
-- the kernel no longer keeps up: it starts to reclaim 0.1 % above its reserve.
local PROCESSES_PER_CPU = 4
local FREE_MEMORY_PCT = 0.1

local DEFAULT_SOURCE = "built-in default (no --policy, no " .. policy.CONF_PATH .. ")"

local function built_in(cpus)
    local longest_queue = by_conf_name.SYSTEM_RUNQ_PCT_THRESHOLD.max
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

local function without_policy_file(vxa, cpus)
    local text, message, code = vxa.read_file(policy.CONF_PATH, MOST_BYTES)
    if text then return from_conf_text(vxa, text) end
    if code ~= ENOENT then fail(2, "configuration %s", message) end
    return built_in(cpus())
end

-- options.policy, else the configuration file, else the built-in default; then --port on
-- top. `cpus` is a function: asking costs a command, and only the default needs it.
-- Returns {text, source, values, warnings}; an empty text leaves the reading to the module.
function policy.choose(options, vxa, cpus)
    local chosen = options.policy and from_json_file(vxa, options.policy, options.lenient)
        or without_policy_file(vxa, cpus)
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
