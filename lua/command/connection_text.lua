-- Connection reports for people.

local console = require "command.console"
local filter = require "filter"
local printable = require "command.printable"
local text = require "command.text"
local timestamps = require "command.timestamps"

local connection_text = {}

local function destination(row)
    local address = tostring(row.dst_addr or "-")
    return (address:find(":", 1, true) and "[%s]:%d" or "%s:%d")
        :format(printable(address), row.dst_port or 0)
end

-- Prints the rows of a report, at most `most`.
function connection_text.rows(rows, most)
    if #rows == 0 then return end
    local cells = { { " count", "protocol", "direction", "destination" } }
    for i = 1, math.min(#rows, most or #rows) do
        local row = rows[i]
        cells[i + 1] = { ("%.0f"):format(row.count), printable(row.protocol or "-"),
                         row.cf_outbound_connection == 1 and "out" or "in", destination(row) }
    end
    for _, line in ipairs(text.columns(cells, { true })) do console.line("%s", line) end
    if most and #rows > most then console.line("        and %d more", #rows - most) end
end

-- "231 connections to 5 services since 07:11:03"
function connection_text.summary(report)
    if #report.rows == 0 then
        return "no new connection since " .. timestamps.moment(report.since)
    end
    return ("%s to %s since %s"):format(text.count(report.observations, "new connection"),
        text.count(#report.rows, "service"), timestamps.moment(report.since))
end

function connection_text.refused(report)
    if report.refused == 0 then return end
    console.line("        %s found no room: the module keeps 10000 services between two reports",
        text.count(report.refused, "connection"))
end

-- Returns when the next report can come.
function connection_text.next(feedback)
    return timestamps.moment(os.time() + feedback:due())
end

-- ---- vxa connections ----------------------------------------------------------------------

local Report = {}
Report.__index = Report

function connection_text.new(attached, options)
    return setmetatable({ attached = attached, options = options,
                          colours = console.colours(attached.vxa),
                          times = timestamps.new(attached.vxa) }, Report)
end

function Report:start()
    local options, colours = self.options, self.colours
    console.line("%svxa %s%s, engine %s, flows read every %s%s", colours.bold,
        self.attached.vxa.version, colours.off, self.attached.engine,
        text.duration(options.interval), options.cycles and "" or "; Ctrl-C ends")
    console.line("The module publishes once in %d seconds: first report at %s.",
        filter.PUBLICATION_INTERVAL_S, connection_text.next(self.attached.feedback))
end

function Report:sample(seen)
    console.line("%s%s  %s, %d new%s%s", self.colours.dim, self.times:line(seen.time),
        text.count(seen.flows, "flow"), seen.new,
        seen.beyond > 0 and ("; %d more found no room in the table"):format(seen.beyond) or "",
        self.colours.off)
end

function Report:report(report)
    console.line("%s%s  report: %s%s", self.colours.bold, self.times:line(report.time),
        connection_text.summary(report), self.colours.off)
    connection_text.rows(report.rows)
    connection_text.refused(report)
    console.line("Next report at %s.", connection_text.next(self.attached.feedback))
end

function Report:rest(rest)
    console.line("%s%s  not published yet: %s%s", self.colours.bold, self.times:line(rest.time),
        connection_text.summary(rest), self.colours.off)
    connection_text.rows(rest.rows)
    connection_text.refused(rest)
end

function Report:finish(totals)
    console.line("%s in %s: %s, %d of them reported", text.count(totals.samples, "sample"),
        text.duration(totals.seconds), text.count(totals.observations, "new connection"),
        totals.reported)
end

return connection_text
