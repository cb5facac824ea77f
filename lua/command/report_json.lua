-- The records of `vxa run --json`: one JSON object a line, members in a fixed order.

local json = require "dkjson"

local console = require "command.console"
local filter = require "filter"
local policy = require "command.policy"

local report_json = {}

local KEY_ORDER = {
    "record", "time", "since", "version", "engine", "monitoring", "policy_source", "settings",
    "interval_s", "publication_interval_s", "cycle", "sample",
    "action", "action_text", "state", "cycles", "measured", "metrics", "name", "available", "value",
    "threshold", "unit", "enabled", "over", "transition", "min_fail_open_s", "in_fail_open_s",
    "port", "direction", "error", "errors", "capabilities", "detail", "entered",
    "flows", "new", "beyond", "published", "services", "protocol", "dst_addr", "dst_port",
    "flags", "cf_ssl_connection", "cf_start_tls", "cf_udp_connection", "cf_outbound_connection",
    "cf_rsa_key_imported", "cf_qoagent_key_imported", "cf_qoagent_key_not_found",
    "cf_qoagent_key_error", "cf_qoagent_fail_open", "cf_qoagent_throttled", "cf_qoagent_banned",
    "cf_do_dpi", "count", "samples", "observations", "reported", "refused", "seconds",
    "interrupted",
}
for _, setting in ipairs(policy.settings) do KEY_ORDER[#KEY_ORDER + 1] = setting.key end

function report_json.array(list)
    return setmetatable(list, { __jsontype = "array" })
end

function report_json.encode(record)
    return json.encode(record, { keyorder = KEY_ORDER })
end

-- UTC, with milliseconds.
function report_json.time(seconds)
    local whole = math.floor(seconds)
    return ("%s.%03dZ"):format(os.date("!%Y-%m-%dT%H:%M:%S", whole),
        math.floor((seconds - whole) * 1000))
end

function report_json.now()
    return report_json.time(require("vxa").time())
end

local function metric_rows(metrics)
    local rows = report_json.array {}
    for i, metric in ipairs(metrics) do
        rows[i] = { name = metric.name, value = metric.value or json.null,
                    threshold = metric.enabled and metric.threshold or json.null,
                    unit = filter.metrics[i].unit, enabled = metric.enabled, over = metric.over }
    end
    return rows
end

local function names(over)
    local list = report_json.array {}
    for i, metric in ipairs(over) do list[i] = metric.name end
    return list
end

-- The members of a cycle, the same for `run` and `status`.
function report_json.cycle(result, errors)
    local is_open = result.before == filter.ACTIVATED or result.state == filter.ACTIVATED
    return {
        time = report_json.time(result.time), action = result.action, action_text = result.text,
        state = result.state, measured = result.measured,
        metrics = metric_rows(result.metrics), over = names(result.over),
        transition = result.transition or json.null,
        min_fail_open_s = result.min_duration_s or json.null,
        in_fail_open_s = is_open and result.in_fail_open_s or json.null,
        port = result.port or json.null, errors = report_json.array(errors),
    }
end

function report_json.settings(values)
    local copy = setmetatable({}, { __jsontype = "object" })
    for key, value in pairs(values) do copy[key] = value end
    return copy
end

local Report = {}
Report.__index = Report

function report_json.new(monitored, options)
    return setmetatable({ monitored = monitored, options = options, number = 0 }, Report)
end

function Report:start()
    local monitored = self.monitored
    console.line("%s", report_json.encode {
        record = "start", time = report_json.now(), version = monitored.vxa.version,
        engine = monitored.engine, policy_source = monitored.policy.source,
        settings = report_json.settings(monitored.policy.values),
        interval_s = self.options.interval,
    })
end

-- `fault`: why the policy in force stays.
function Report:reloaded(fault)
    local policy_in_force = self.monitored.policy
    console.line("%s", report_json.encode {
        record = "policy", time = report_json.now(),
        policy_source = policy_in_force.source,
        settings = report_json.settings(policy_in_force.values), error = fault or json.null,
    })
end

function Report:cycle(result, faults)
    self.number = self.number + 1
    local record = report_json.cycle(result, faults)
    record.record = "cycle"
    record.cycle = self.number
    console.line("%s", report_json.encode(record))
end

function Report:connections(report)
    require("command.connection_json").report(report, true)
end

function Report:finish(totals)
    console.line("%s", report_json.encode {
        record = "end", time = report_json.now(), cycles = totals.cycles,
        measured = totals.measured, entered = totals.entered,
        observations = totals.observations, reported = totals.reported,
        seconds = tonumber(("%.3f"):format(totals.seconds)), state = totals.state,
        interrupted = totals.interrupted,
    })
end

return report_json
