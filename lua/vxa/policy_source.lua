-- Chooses the health policy of a run: --policy, the configuration file or the built-in default.

local conf_text = require "vxa.check.conf_text"
local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local health_policy = require "health_policy"

local policy_source = {}

policy_source.CONF_PATH = "/etc/vx_filter.conf"
policy_source.MOST_BYTES = 1048576

-- Returns a policy in JSON, from which the module reads the same numbers.
function policy_source.to_json(values)
    local members = {}
    for _, setting in ipairs(health_policy.settings) do
        if values[setting.key] then
            members[#members + 1] = (setting.threshold and '"%s":{"value":%s}' or '"%s":%s')
                :format(setting.key, format.exact(values[setting.key]))
        end
    end
    return "{" .. table.concat(members, ",") .. "}"
end

-- Returns the policy in JSON; that of a configuration file from the settings that it has.
function policy_source.effective_text(chosen)
    return chosen.text ~= "" and chosen.text or policy_source.to_json(chosen.values)
end

-- The same for people: a line for each setting.
function policy_source.to_text(values)
    return (policy_source.to_json(values):gsub("^{", "{\n  "):gsub("}$", "\n}\n")
        :gsub(',"', ',\n  "'):gsub(":", ": "))
end

-- ---- policy file ------------------------------------------------------------------------

-- Returns the policy of a JSON file, as policy_source.choose does.
function policy_source.read(vxa, path, lenient)
    local text, message = vxa.read_file(path, policy_source.MOST_BYTES)
    if not text then exit.fail(2, "policy %s", message) end
    local values, warnings = health_policy.check(text, lenient)
    if not values then
        exit.fail(2, "policy %s: %s%s", path, warnings, warnings:find("^line ") and ""
            or " (--lenient accepts it as the module does)")
    end
    return { text = text, source = path, values = values, warnings = warnings }
end

-- ---- configuration file -----------------------------------------------------------------

-- The module itself reads the file, at every cycle; these are the settings it finds now.
local function from_conf_text(vxa, text)
    local findings = health_policy.findings()
    local values = conf_text.read(vxa, text, findings)
    return { text = "", source = policy_source.CONF_PATH, values = values,
             warnings = findings:sentences(true) }
end

-- ---- default ----------------------------------------------------------------------------

-- For a machine without a configuration: fail-open only when something is plainly wrong. Four
-- runnable processes per processor is far beyond busy. Below 0.1 % free memory the kernel no
-- longer keeps up: its reclaim aims 0.1 % above its reserve (watermark_scale_factor in the
-- kernel's Documentation/admin-guide/sysctl/vm.rst).
local PROCESSES_PER_CPU = 4
local FREE_MEMORY_PCT = 0.1

local DEFAULT_SOURCE = "built-in default (no --policy, no " .. policy_source.CONF_PATH .. ")"

-- Returns the default policy for a machine with so many processors.
function policy_source.built_in(cpus)
    local longest_queue = health_policy.find("SYS_THR_RUNQ").max
    local values = {
        SYS_THR_RUNQ = math.min(longest_queue, PROCESSES_PER_CPU * math.max(cpus, 1)),
        SYS_THR_FREE_MEM = FREE_MEMORY_PCT,
    }
    return { text = policy_source.to_json(values), source = DEFAULT_SOURCE, values = values,
             warnings = {} }
end

-- ---- --observe --------------------------------------------------------------------------

local LEAST_FREE_MEMORY_PCT = 0.001

local OBSERVING = "none (--observe: nothing is judged, the filter keeps enforcing)"

-- A policy with every threshold at its bound: the module computes all metrics, and those of the
-- port if there is one.
local function observing(has_port)
    local values = {}
    for _, setting in ipairs(health_policy.settings) do
        if setting.threshold and (has_port or not setting.needs_port) then
            values[setting.key] = setting.max
        end
    end
    values.SYS_THR_FREE_MEM = LEAST_FREE_MEMORY_PCT
    return { text = policy_source.to_json(values), source = OBSERVING, values = values,
             warnings = {} }
end

-- ---- --port -----------------------------------------------------------------------------

-- The thresholds that --port adds to a policy without connection thresholds. Each is far above
-- what a healthy server shows: half of the new connections dying half-open; more new connections
-- or bytes than one processor can serve.
local port_defaults = {
    SYS_THR_CONN_REFUSAL_PCT = 50,
    SYS_THR_CONN_EST_PER_CPU = 5000,
    SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU = 500,
}

local function has_port_threshold(values)
    for _, setting in ipairs(health_policy.settings) do
        if setting.needs_port and values[setting.key] then return true end
    end
    return false
end

-- The module takes the first of repeated members, so members inserted at the front override the
-- author's and leave the rest of the text unchanged.
local function insert_at_front(text, additions)
    local rest = text:match("^[^{]*{%s*(.*)$")
    return additions:sub(1, -2) .. (rest:sub(1, 1) == "}" and "" or ",") .. rest
end

-- Returns the settings that --port puts in front of those of a policy.
function policy_source.port_settings(values, port, outbound)
    local additions = { SYS_CONF_CONN_REFUSAL_PORT = port,
                        SYS_CONF_CONN_REFUSAL_OUTBOUND = outbound and 1 or 0 }
    if not has_port_threshold(values) then
        for key, value in pairs(port_defaults) do additions[key] = value end
    end
    return additions
end

local function with_port(chosen, port, outbound)
    local additions = policy_source.port_settings(chosen.values, port, outbound)
    local text = policy_source.effective_text(chosen)
    for key, value in pairs(additions) do chosen.values[key] = value end
    chosen.text = insert_at_front(text, policy_source.to_json(additions))
    chosen.source = ("%s, --port %d"):format(chosen.source, port)
    return chosen
end

-- ---- choice -----------------------------------------------------------------------------

local ENOENT = 2  -- errno value

local function without_policy_file(vxa, cpus)
    local text, message, code = vxa.read_file(policy_source.CONF_PATH,
        policy_source.MOST_BYTES)
    if text then return from_conf_text(vxa, text) end
    if code ~= ENOENT then exit.fail(2, "configuration %s", message) end
    return policy_source.built_in(cpus())
end

-- Returns {text, source, values, warnings}: options.policy, else the configuration file, else
-- the built-in default, or with options.observe one that judges nothing; with --port on top. An
-- empty text makes the module read its file.
-- `cpus` is a function because it runs a command, which only the default needs.
function policy_source.choose(options, vxa, cpus)
    local chosen = options.observe and observing(options.port ~= nil)
        or options.policy and policy_source.read(vxa, options.policy, options.lenient)
        or without_policy_file(vxa, cpus)
    if options.port then return with_port(chosen, options.port, options.outbound) end
    return chosen
end

-- Shows what the module ignores in the policy.
function policy_source.warn(chosen)
    for _, warning in ipairs(chosen.warnings) do
        console.complain(("warning: %s: %s"):format(chosen.source, warning))
    end
end

-- Returns why the module does not monitor with this policy, and what to do about it.
function policy_source.why_disabled(chosen)
    local values = chosen.values
    if has_port_threshold(values) and not values.SYS_CONF_CONN_REFUSAL_PORT then
        return ("%s has a connection threshold but no port; use --port N or set the port there")
            :format(chosen.source)
    end
    return ("%s has no valid setting; add at least one threshold or use another policy")
        :format(chosen.source)
end

return policy_source
