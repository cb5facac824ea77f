-- What `vxa connections --json` prints, and connection reports in any JSON output.

local filter = require "filter"
local json_records = require "vxa.output.json_records"

local connections_json = {}

-- Prints a "report" record, then a "connection" record for each row, with `write` as
-- json_records.print.
function connections_json.print(report, published, write)
    json_records.print({
        record = "report", time = json_records.time(report.time),
        since = json_records.time(report.since), published = published,
        services = #report.rows, observations = report.observations, refused = report.refused,
    }, write)
    for _, row in ipairs(report.rows) do
        local record = { record = "connection" }
        for name, value in pairs(row) do record[name] = value end
        json_records.print(record, write)
    end
end

local Report = {}
Report.__index = Report

function connections_json.new(attached, options)
    return setmetatable({ attached = attached, options = options, number = 0 }, Report)
end

function Report:now()
    return json_records.time(self.attached.vxa.time())
end

function Report:start()
    json_records.print {
        record = "start", time = self:now(), version = self.attached.vxa.version,
        engine = self.attached.engine, interval_s = self.options.interval,
        publication_interval_s = filter.PUBLICATION_INTERVAL_S,
    }
end

function Report:sample(sample)
    self.number = self.number + 1
    json_records.print {
        record = "sample", sample = self.number, time = json_records.time(sample.time),
        flows = sample.flows, new = sample.new, beyond = sample.beyond,
    }
end

function Report.report(_, report)
    connections_json.print(report, true)
end

function Report.unpublished(_, report)
    connections_json.print(report, false)
end

function Report:finish(totals)
    json_records.print {
        record = "end", time = self:now(), samples = totals.samples,
        observations = totals.connections.observed, reported = totals.connections.reported,
        pending = totals.connections.pending, refused = totals.connections.refused,
        seconds = json_records.duration(totals.seconds), interrupted = totals.interrupted,
    }
end

return connections_json
