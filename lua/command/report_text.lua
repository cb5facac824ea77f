-- The lines of `vxa run` for people.

local connection_text = require "command.connection_text"
local console = require "command.console"
local filter = require "filter"
local printable = require "command.printable"
local text = require "command.text"
local timestamps = require "command.timestamps"

local Report = {}
Report.__index = Report

local report_text = {}

function report_text.new(monitored, options)
    return setmetatable({
        monitored = monitored, options = options, colours = console.colours(monitored.vxa),
        times = timestamps.new(monitored.vxa), thresholds = {}, width = {},
        columns = monitored.vxa.terminal_columns() or math.huge,
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

-- A metric keeps its column once it was judged: in fail-open, and while the driver cannot
-- deliver, the metrics of the port are off. The thresholds are in the heading.
function Report:has_news(metrics)
    for i, metric in ipairs(metrics) do
        if metric.enabled and metric.threshold ~= self.thresholds[i] then return true end
    end
    return not self.has_heading
end

local function bound(i, threshold)
    return (filter.metrics[i].below and "<" or ">") .. text.number(threshold)
end

local NARROWEST = 5  -- "12.34"
local ACTION = "%-17s"  -- "no memory figures"

function Report:set_columns(metrics)
    for i, metric in ipairs(metrics) do
        if metric.enabled then
            self.thresholds[i] = metric.threshold
            self.width[i] = math.max(#metric.name, #bound(i, metric.threshold), NARROWEST)
        end
    end
end

-- A line of the table. `cell(i)` returns the string in a metric's column, and whether to mark
-- it as beyond its threshold.
function Report:row(time, action, cell)
    local cells = { ("%-" .. self.times:width() .. "s  " .. ACTION):format(time, action) }
    for i in ipairs(filter.metrics) do
        if self.thresholds[i] then
            local content, is_over = cell(i)
            content = ("%" .. self.width[i] .. "s"):format(content)
            cells[#cells + 1] = is_over and self.colours.red .. content .. "!" .. self.colours.off
                or content .. " "
        end
    end
    return (table.concat(cells, " "):gsub(" +$", ""))
end

function Report:show_heading(metrics)
    if not self:has_news(metrics) then return end
    self:set_columns(metrics)
    self.has_heading = true
    local colours = self.colours
    local function name(i) return filter.metrics[i].name end
    local function threshold(i) return bound(i, self.thresholds[i]) end
    console.line("%s%s%s", colours.bold, self:row("time", "action", name), colours.off)
    if next(self.thresholds) then
        console.line("%s%s%s", colours.bold, self:row("", "", threshold), colours.off)
    end
end

local why_not = {
    [filter.NO_LOAD] = "uptime or nproc gave no number",
    [filter.NO_MEMORY] = "/proc/meminfo gave no numbers",
    [filter.BAD_ARGUMENT] = "the module refused document, state or policy",
    [filter.DISABLED] = "no settings to judge by",
}

-- How much of its minimum fail-open still lasts, for a cycle that stays in it.
local function remaining(result)
    if result.action ~= filter.FAIL_OPEN or result.before ~= filter.ACTIVATED then return "" end
    return ("  %s to go"):format(text.duration(result.min_duration_s - result.in_fail_open_s))
end

local function shown(metric)
    if not metric.enabled then return "off" end
    return metric.value and text.number(metric.value) or "-", metric.over
end

function Report:measured_line(time, result)
    local line = self:row(time, result.text, function(i) return shown(result.metrics[i]) end)
    local rest = remaining(result)
    -- Colours are in lines with a metric that is over, and take no room.
    local length = #line:gsub("\27%[%d*m", "")
    return length + #rest <= self.columns and line .. rest or line
end

function Report:line(result)
    local time = self.times:line(result.time)
    if result.measured then return console.line("%s", self:measured_line(time, result)) end
    console.line("%s  " .. ACTION .. "  %s; %s", time, result.text,
        why_not[result.action] or "nothing judged",
        result.state == filter.ACTIVATED and "still in fail-open" or "the filter enforces")
end

-- The module's value is an unsigned difference of times: absurd once the clock was set back.
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
    console.line("%s>> fail-open entered%s: %s", colours.bold, colours.off,
        table.concat(causes, "; "))
    console.line("   it lasts at least %s, until %s", text.duration(result.min_duration_s),
        timestamps.moment(result.time + result.min_duration_s))
end

function Report:cycle(result)
    self:show_heading(result.metrics)
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
        console.line("== connections: %s", connection_text.summary(totals.rest))
        console.line("   not published yet: the module publishes at %s",
            connection_text.next(self.monitored.feedback))
        connection_text.refused(totals.rest)
    end
    console.line("%s in %s, %d measured, fail-open entered %s; %s",
        text.count(totals.cycles, "cycle"), text.duration(totals.seconds), totals.measured,
        text.count(totals.entered, "time"),
        totals.state == filter.ACTIVATED and "ends in fail-open" or "ends enforcing")
end

return report_text
