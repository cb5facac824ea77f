-- JSON lines: one record per line, members in a fixed order.

local json = require "dkjson"

local console = require "vxa.output.console"
local filter = require "filter"
local health_policy = require "health_policy"
local json_text = require "vxa.output.json_text"

local json_records = {}

-- Each once: dkjson would write a member as often as its name is here.
local KEY_ORDER = {
    "record", "time", "day", "since", "until",
    "version", "engine", "monitoring", "policy_source", "settings",
    "interval_s", "publication_interval_s", "cycle", "sample",
    "action", "action_text", "state", "cycles", "measured", "metrics", "name", "available", "value",
    "threshold", "unit", "enabled", "over", "over_since", "few", "near", "transition", "causes",
    "held", "min_fail_open_s", "in_fail_open_s", "fail_open_until", "port",
    "direction", "machine", "cpu_pressure", "memory_pressure", "io_pressure",
    "memory_available_bytes", "cpu_limit", "memory_limit_bytes", "hook", "error",
    "errors",
    "capabilities", "detail", "entered",
    "flows", "new", "beyond", "published", "services", "protocol", "dst_addr", "dst_port",
    "flags", "cf_ssl_connection", "cf_start_tls", "cf_udp_connection", "cf_outbound_connection",
    "cf_rsa_key_imported", "cf_qoagent_key_imported", "cf_qoagent_key_not_found",
    "cf_qoagent_key_error", "cf_qoagent_fail_open", "cf_qoagent_throttled", "cf_qoagent_banned",
    "cf_do_dpi", "count", "samples", "observations", "reported", "pending", "refused", "seconds",
    "interrupted", "started", "status", "signal", "ended", "left", "policy_sha256", "from",
    "found", "enforced_s", "fail_open_s", "not_running_s", "enforced_share",
    "path", "entries", "connections", "bytes", "packed_bytes", "text", "manifest",
    "manifest_error", "verified", "matching", "problems", "problem", "entry", "change", "kind",
    "service", "older", "newer", "difference", "per_second", "packets", "bytes_back", "added",
    "removed", "changes", "lost_in", "reason", "traffic", "notes", "host", "differences",
    "unchanged", "warnings",
    "file", "first", "last", "failed", "disabled", "starts", "gaps", "missing",
    "load", "cpus", "memory_bytes", "memory_free_bytes", "user", "uid",
    "format", "line", "column", "key", "severity", "message", "suggestion",
    "longest_s", "stretches", "restarted", "values",
    "quantiles", "p50", "p99", "p99.9", "max", "p1", "p0.1", "min", "entries_per_week", "proposed",
    "first_half_end", "first_half_entries", "second_half_entries", "second_half_per_week",
    "confirmed", "note", "policy",
}
for _, setting in ipairs(health_policy.settings) do KEY_ORDER[#KEY_ORDER + 1] = setting.key end

local listed = {}
for _, name in ipairs(KEY_ORDER) do
    assert(not listed[name], name)
    listed[name] = true
end

json_records.null = json.null

-- Marks a table as an array, so that an empty one becomes [].
function json_records.array(list)
    return setmetatable(list, { __jsontype = "array" })
end

-- Returns the record as a line.
function json_records.line(record)
    return json_text.encode(record, { keyorder = KEY_ORDER }) .. "\n"
end

-- Passes the record's line to `write`, which defaults to standard output.
function json_records.print(record, write)
    (write or console.write)(json_records.line(record))
end

-- UTC with milliseconds. A double has no exact milliseconds: the thousandth more makes a time that
-- was read from a record the same again.
function json_records.time(seconds)
    local milliseconds = math.floor(seconds * 1000 + 0.001)
    return ("%s.%03dZ"):format(os.date("!%Y-%m-%dT%H:%M:%S", math.floor(milliseconds / 1000)),
        milliseconds % 1000)
end

function json_records.duration(seconds)
    return tonumber(("%.3f"):format(seconds))
end

-- Returns a value for JSON: null for nil.
function json_records.or_null(value)
    if value == nil then return json.null end
    return value
end
local or_null = json_records.or_null

-- Returns null for nil.
function json_records.time_or_null(seconds)
    return seconds and json_records.time(seconds) or json.null
end

-- Returns an array of the metrics, as in the result of a cycle.
function json_records.metrics(metrics)
    local rows = json_records.array {}
    for i, metric in ipairs(metrics) do
        rows[i] = { name = metric.name, value = or_null(metric.value),
                    threshold = metric.enabled and metric.threshold or json.null,
                    unit = filter.metrics[metric.name].unit, enabled = metric.enabled,
                    over = metric.over, over_since = json_records.time_or_null(metric.since),
                    few = metric.few or false }
    end
    return rows
end

-- Returns the member of that name: what resources.read returned.
function json_records.machine(values)
    return values and {
        cpu_pressure = or_null(values.cpu_pressure),
        memory_pressure = or_null(values.memory_pressure),
        io_pressure = or_null(values.io_pressure),
        memory_available_bytes = or_null(values.memory_available_bytes),
        cpu_limit = or_null(values.cpu_limit),
        memory_limit_bytes = or_null(values.memory_limit_bytes),
    } or json.null
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
        metrics = json_records.metrics(result.metrics), over = names(result.over),
        near = names(result.near), transition = or_null(result.transition),
        causes = result.causes and json_records.metrics(result.causes) or json.null,
        held = result.held or false, min_fail_open_s = or_null(result.min_duration_s),
        in_fail_open_s = is_open and result.in_fail_open_s or json.null,
        fail_open_until = json_records.time_or_null(result.lasts_until),
        port = or_null(result.port),
        machine = json_records.machine(result.machine), errors = json_records.array(errors),
    }
end

-- Returns a policy, as files have it, with these settings.
function json_records.policy(values)
    local policy = json_records.object(values)
    for _, setting in ipairs(health_policy.settings) do
        local value = policy[setting.key]
        if value and setting.threshold then policy[setting.key] = { value = value } end
    end
    return policy
end

-- Returns a copy of a table, which becomes {} if it is empty.
function json_records.object(values)
    local copy = setmetatable({}, { __jsontype = "object" })
    for key, value in pairs(values) do copy[key] = value end
    return copy
end

return json_records
