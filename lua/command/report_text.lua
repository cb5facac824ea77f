-- The lines of `vxa run` for people.

local connection_text = require "command.connection_text"
local console = require "command.console"
local filter = require "filter"
local printable = require "command.printable"
local text = require "command.text"

local Report = {}
Report.__index = Report

local report_text = {}

function report_text.new(monitored, options)
    return setmetatable({
        monitored = monitored, options = options, colours = console.colours(monitored.vxa),
        columns = {}, width = {},
    }, Report)
end

function Report:start()
    local options, colours = self.options, self.colours
    console.line("%svxa %s%s, engine %s, a cycle every %s%s", colours.bold,
        self.monitored.vxa.version, colours.off, self.monitored.engine,
        text.duration(options.interval), options.cycles and "" or "; Ctrl-C ends")
    console.line("policy: %s", printable(self.monitored.policy.source))
end

-- `fault`: why the policy in force stays; it is on standard error already.
function Report:reloaded(fault)
    if not fault then
        console.line("policy reloaded: %s", printable(self.monitored.policy.source))
    end
end

local ACTION_WIDTH, STATE_WIDTH = 15, 11

local function cell(metric)
    if not metric.enabled then return "off" end
    return text.number(metric.value) .. "/" .. text.number(metric.threshold)
end

-- A metric keeps its column once it was judged: in fail-open, and while the driver cannot
-- deliver, the metrics of the port are off.
function Report:missing_column(metrics)
    for i, metric in ipairs(metrics) do
        if metric.enabled and not self.columns[i] then return true end
    end
    return false
end

-- Room for a value as long as the threshold, and a decimal.
function Report:add_columns(metrics)
    for i, metric in ipairs(metrics) do
        if metric.enabled and not self.columns[i] then
            self.columns[i] = metric.name
            local longest = 2 * math.max(#text.number(metric.threshold), 3) + 3
            self.width[i] = math.max(#metric.name, longest)
        end
    end
end

function Report:header()
    local names = {}
    for i in ipairs(filter.metrics) do
        if self.columns[i] then
            names[#names + 1] = ("%" .. self.width[i] .. "s"):format(self.columns[i])
        end
    end
    names[#names + 1] = "over"
    return ("%-8s  %-" .. ACTION_WIDTH .. "s  %-" .. STATE_WIDTH .. "s  %s")
        :format("time", "action", "state", table.concat(names, "  "))
end

function Report:show_header(metrics)
    if self.has_header and not self:missing_column(metrics) then return end
    self:add_columns(metrics)
    self.has_header = true
    console.line("%s%s%s", self.colours.bold, self:header(), self.colours.off)
end

function Report:cells(metrics)
    local cells = {}
    for i, metric in ipairs(metrics) do
        if self.columns[i] then
            local padded = ("%" .. self.width[i] .. "s"):format(cell(metric))
            cells[#cells + 1] = metric.over and self.colours.red .. padded .. self.colours.off
                or padded
        end
    end
    return cells
end

local why_not = {
    [filter.NO_LOAD] = "uptime or nproc gave no figure",
    [filter.NO_MEMORY] = "/proc/meminfo gave no figures",
    [filter.BAD_ARGUMENT] = "the module refused document, state or policy",
    [filter.DISABLED] = "no settings to judge by",
}

-- How much of its minimum fail-open still lasts, for a cycle that stays in it.
local function remaining(result)
    if result.action ~= filter.FAIL_OPEN or result.before ~= filter.ACTIVATED then return "" end
    return (" (%s to go)"):format(text.duration(result.min_duration_s - result.in_fail_open_s))
end

function Report:line(result)
    local cells
    if result.measured then
        cells = self:cells(result.metrics)
        cells[#cells + 1] = text.names(result.over) .. remaining(result)
    else
        cells = { why_not[result.action] or "" }
    end
    console.line(("%%s  %%-%ds  %%-%ds  %%s"):format(ACTION_WIDTH, STATE_WIDTH),
        os.date("%H:%M:%S", result.time), result.text, result.state, table.concat(cells, "  "))
end

-- The module's figure is an unsigned difference of times: absurd after a step backwards.
local LONGEST_FAIL_OPEN_S = 10 * 365 * 86400

local function lasted(result)
    local seconds = result.in_fail_open_s
    if seconds > LONGEST_FAIL_OPEN_S then return "; the clock was set back" end
    return " after " .. text.duration(seconds)
end

function Report:transition(result)
    local colours = self.colours
    if result.transition == "left" then
        console.line("%s<< fail-open left%s%s: the filter enforces again", colours.bold,
            colours.off, lasted(result))
        return
    end
    local causes = {}
    for i, metric in ipairs(result.over) do causes[i] = text.crossed(metric) end
    console.line("%s>> fail-open entered%s: %s; it lasts at least %s, until %s", colours.bold,
        colours.off, table.concat(causes, "; "), text.duration(result.min_duration_s),
        os.date("%H:%M:%S", result.time + result.min_duration_s))
end

function Report:cycle(result)
    self:show_header(result.metrics)
    self:line(result)
    if result.transition then self:transition(result) end
end

local ROWS_SHOWN = 5

function Report:connections(report)
    console.line("%s== connections%s: %s", self.colours.bold, self.colours.off,
        connection_text.summary(report))
    connection_text.rows(report.rows, ROWS_SHOWN)
    connection_text.refused(report)
end

function Report:finish(totals)
    if totals.rest then
        console.line("== connections: %s, not published yet (the module publishes at %s)",
            connection_text.summary(totals.rest),
            connection_text.next(self.monitored.feedback))
        connection_text.refused(totals.rest)
    end
    console.line("%s in %s, %d measured, fail-open entered %s; %s",
        text.count(totals.cycles, "cycle"), text.duration(totals.seconds), totals.measured,
        text.count(totals.entered, "time"),
        totals.state == filter.ACTIVATED and "ends in fail-open" or "ends enforcing")
end

return report_text
