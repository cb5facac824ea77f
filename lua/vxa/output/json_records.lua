-- JSON lines: one record per line, members in a fixed order.

local json = require "dkjson"

local console = require "vxa.output.console"
local filter = require "filter"
local health_policy = require "health_policy"

local json_records = {}

local KEY_ORDER = {
    "record", "time", "since", "version", "engine", "monitoring", "policy_source", "settings",
    "interval_s", "publication_interval_s", "cycle", "sample",
    "action", "action_text", "state", "cycles", "measured", "metrics", "name", "available", "value",
    "threshold", "unit", "enabled", "over", "transition", "held", "would_enter",
    "min_fail_open_s", "in_fail_open_s", "port", "direction", "error", "errors", "capabilities",
    "detail", "entered",
    "flows", "new", "beyond", "published", "services", "protocol", "dst_addr", "dst_port",
    "flags", "cf_ssl_connection", "cf_start_tls", "cf_udp_connection", "cf_outbound_connection",
    "cf_rsa_key_imported", "cf_qoagent_key_imported", "cf_qoagent_key_not_found",
    "cf_qoagent_key_error", "cf_qoagent_fail_open", "cf_qoagent_throttled", "cf_qoagent_banned",
    "cf_do_dpi", "count", "samples", "observations", "reported", "refused", "seconds",
    "interrupted",
}
for _, setting in ipairs(health_policy.settings) do KEY_ORDER[#KEY_ORDER + 1] = setting.key end

json_records.null = json.null

-- Marks a table as an array, so that an empty one becomes [].
function json_records.array(list)
    return setmetatable(list, { __jsontype = "array" })
end

-- Returns the record as a line.
function json_records.line(record)
    return json.encode(record, { keyorder = KEY_ORDER }) .. "\n"
end

-- Passes the record's line to `write`, which defaults to standard output.
function json_records.print(record, write)
    (write or console.write)(json_records.line(record))
end

-- UTC with milliseconds.
function json_records.time(seconds)
    local whole = math.floor(seconds)
    return ("%s.%03dZ"):format(os.date("!%Y-%m-%dT%H:%M:%S", whole),
        math.floor((seconds - whole) * 1000))
end

function json_records.duration(seconds)
    return tonumber(("%.3f"):format(seconds))
end

local function metric_rows(metrics)
    local rows = json_records.array {}
    for i, metric in ipairs(metrics) do
        rows[i] = { name = metric.name, value = metric.value or json.null,
                    threshold = metric.enabled and metric.threshold or json.null,
                    unit = filter.metrics[i].unit, enabled = metric.enabled, over = metric.over }
    end
    return rows
end

local function names(metrics)
    local list = json_records.array {}
    for i, metric in ipairs(metrics) do list[i] = metric.name end
    return list
end

-- Returns the members that `run` and `status` print for a cycle.
function json_records.cycle(result, errors)
    local is_open = result.before == filter.ACTIVATED or result.state == filter.ACTIVATED
    return {
        time = json_records.time(result.time), action = result.action, action_text = result.text,
        state = result.state, measured = result.measured,
        metrics = metric_rows(result.metrics), over = names(result.over),
        transition = result.transition or json.null,
        held = result.held or false, would_enter = result.would_enter or false,
        min_fail_open_s = result.min_duration_s or json.null,
        in_fail_open_s = is_open and result.in_fail_open_s or json.null,
        port = result.port or json.null, errors = json_records.array(errors),
    }
end

-- Returns a copy of the settings that becomes {} if it is empty.
function json_records.settings(values)
    local copy = setmetatable({}, { __jsontype = "object" })
    for key, value in pairs(values) do copy[key] = value end
    return copy
end

return json_records
