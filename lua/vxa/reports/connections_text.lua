-- What `vxa connections` prints, and connection reports in any output for people.

local console = require "vxa.output.console"
local filter = require "filter"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"
local timestamps = require "vxa.output.timestamps"

local connections_text = {}

local function destination(row)
    local address = tostring(row.dst_addr or "-")
    return (address:find(":", 1, true) and "[%s]:%d" or "%s:%d")
        :format(printable(address), row.dst_port or 0)
end

-- Prints the rows of a report, at most `most` if given.
function connections_text.rows(rows, most)
    if #rows == 0 then return end
    local cells = { { " count", "protocol", "direction", "destination" } }
    for i = 1, math.min(#rows, most or #rows) do
        local row = rows[i]
        cells[i + 1] = { ("%.0f"):format(row.count), printable(row.protocol or "-"),
                         row.cf_outbound_connection == 1 and "out" or "in", destination(row) }
    end
    console.lines(format.columns(cells, { true }))
    if most and #rows > most then console.line("        and %d more", #rows - most) end
end

-- "231 new connections to 5 services since 07:11:03"
function connections_text.summary(report)
    if #report.rows == 0 then
        return "no new connections since " .. timestamps.inline(report.since)
    end
    return ("%s to %s since %s"):format(format.count(report.observations, "new connection"),
        format.count(#report.rows, "service"), timestamps.inline(report.since))
end

-- Prints how many connections the module refused, if any.
function connections_text.refused(report)
    if report.refused == 0 then return end
    console.line("        %s not counted: the module keeps at most %d services between reports",
        format.count(report.refused, "connection"), filter.KEYS_KEPT)
end

-- Prints what became of the connections that were fed, if any.
function connections_text.balance(counts)
    if counts.observed == 0 then return end
    console.line("connections%s: %d observed = %d reported + %d pending + %d refused",
        counts.continue and ", earlier runs included" or "", counts.observed, counts.reported,
        counts.pending, counts.refused)
end

-- Returns the time of the next report.
function connections_text.next_report(feedback)
    return timestamps.inline(os.time() + feedback:due())
end

-- ---- vxa connections --------------------------------------------------------------------

local Report = {}
Report.__index = Report

function connections_text.new(attached, options)
    return setmetatable({ attached = attached, options = options,
                          colours = console.colours(attached.vxa),
                          times = timestamps.new(attached.vxa) }, Report)
end

function Report:start()
    local options, colours = self.options, self.colours
    console.line("%svxa %s%s, engine %s, sampling flows every %s%s", colours.bold,
        self.attached.vxa.version, colours.off, self.attached.engine,
        format.duration(options.interval), options.cycles and "" or "; press Ctrl-C to stop")
    console.line("The module publishes every %d seconds; first report at %s.",
        filter.PUBLICATION_INTERVAL_S, connections_text.next_report(self.attached.feedback))
end

function Report:sample(sample)
    console.line("%s%s  %s, %d new%s%s", self.colours.dim, self.times:line_start(sample.time),
        format.count(sample.flows, "flow"), sample.new,
        sample.beyond > 0 and ("; %d more did not fit in the table"):format(sample.beyond) or "",
        self.colours.off)
end

local function show(self, title, report)
    console.line("%s%s  %s: %s%s", self.colours.bold, self.times:line_start(report.time), title,
        connections_text.summary(report), self.colours.off)
    connections_text.rows(report.rows)
    connections_text.refused(report)
end

function Report:report(report)
    show(self, "report", report)
    console.line("Next report at %s.", connections_text.next_report(self.attached.feedback))
end

function Report:unpublished(report)
    show(self, "not published yet", report)
end

function Report.finish(_, totals)
    connections_text.balance(totals.connections)
    console.line("%s in %s", format.count(totals.samples, "sample"),
        format.duration(totals.seconds))
end

return connections_text
