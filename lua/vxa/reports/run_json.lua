-- What `vxa run --json` prints and `vxa run --log` writes.

local connections_json = require "vxa.reports.connections_json"
local json_records = require "vxa.output.json_records"

local run_json = {}

local Report = {}
Report.__index = Report

-- `write` gets each record as a line; default: it is printed.
function run_json.new(monitored, options, write)
    return setmetatable({ monitored = monitored, options = options, write = write }, Report)
end

-- Returns the member for the end of a hook, which listeners/hook.lua adds to a result.
local function hook(run)
    return run and {
        transition = run.transition, started = json_records.time(run.time),
        seconds = run.seconds and json_records.duration(run.seconds) or json_records.null,
        status = run.status or json_records.null, signal = run.signal or json_records.null,
        ended = run.ended or json_records.null, error = run.error or json_records.null,
    } or json_records.null
end

-- Returns the record of a cycle.
function run_json.cycle(result, errors)
    local record = json_records.cycle(result, errors)
    record.hook = hook(result.hook)
    record.record = "cycle"
    record.cycle = result.number
    return record
end

function Report:print(record)
    json_records.print(record, self.write)
end

function Report:now()
    return json_records.time(self.monitored.vxa.time())
end

function Report:start()
    local monitored = self.monitored
    self:print {
        record = "start", time = self:now(), version = monitored.vxa.version,
        engine = monitored.engine, policy_source = monitored.policy.source,
        settings = json_records.object(monitored.policy.values),
        interval_s = self.options.interval,
    }
end

-- `refusal`: why the policy in force stays.
function Report:reloaded(refusal)
    local in_force = self.monitored.policy
    self:print {
        record = "policy", time = self:now(), policy_source = in_force.source,
        settings = json_records.object(in_force.values), error = refusal or json_records.null,
    }
end

function Report:cycle(result, errors)
    self:print(run_json.cycle(result, errors))
end

function Report:connections(report)
    connections_json.print(report, true, self.write)
end

function Report:finish(totals)
    self:print {
        record = "end", time = self:now(), cycles = totals.cycles,
        measured = totals.measured, entered = totals.entered,
        observations = totals.connections.observed, reported = totals.connections.reported,
        pending = totals.connections.pending, refused = totals.connections.refused,
        seconds = json_records.duration(totals.seconds), state = totals.state,
        interrupted = totals.interrupted, hook = hook(totals.hook),
    }
end

return run_json
