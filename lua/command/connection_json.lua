-- Connection reports as JSON lines: a "report" record, then a "connection" record a row.

local console = require "command.console"
local filter = require "filter"
local report_json = require "command.report_json"

local connection_json = {}

function connection_json.report(report, published)
    console.line("%s", report_json.encode {
        record = "report", time = report_json.time(report.time),
        since = report_json.time(report.since), published = published,
        services = #report.rows, observations = report.observations, refused = report.refused,
    })
    for _, row in ipairs(report.rows) do
        local record = { record = "connection" }
        for name, value in pairs(row) do record[name] = value end
        console.line("%s", report_json.encode(record))
    end
end

-- ---- vxa connections ----------------------------------------------------------------------

local Report = {}
Report.__index = Report

function connection_json.new(attached, options)
    return setmetatable({ attached = attached, options = options, number = 0 }, Report)
end

function Report:start()
    console.line("%s", report_json.encode {
        record = "start", time = report_json.now(),
        version = self.attached.vxa.version, engine = self.attached.engine,
        interval_s = self.options.interval,
        publication_interval_s = filter.PUBLICATION_INTERVAL_S,
    })
end

function Report:sample(seen)
    self.number = self.number + 1
    console.line("%s", report_json.encode {
        record = "sample", sample = self.number, time = report_json.time(seen.time),
        flows = seen.flows, new = seen.new, beyond = seen.beyond,
    })
end

function Report:report(report)
    connection_json.report(report, true)
end

function Report:rest(rest)
    connection_json.report(rest, false)
end

function Report:finish(totals)
    console.line("%s", report_json.encode {
        record = "end", time = report_json.now(), samples = totals.samples,
        observations = totals.observations, reported = totals.reported,
        seconds = tonumber(("%.3f"):format(totals.seconds)), interrupted = totals.interrupted,
    })
end

return connection_json
