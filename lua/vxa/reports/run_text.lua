-- What `vxa run` prints: a table with a line for each cycle.

local connections_text = require "vxa.reports.connections_text"
local console = require "vxa.output.console"
local filter = require "filter"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"
local timestamps = require "vxa.output.timestamps"

local Report = {}
Report.__index = Report

local run_text = {}

-- `thresholds` and `width` have entries for the metrics that have a column.
function run_text.new(monitored, options)
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
        format.duration(options.interval),
        (options.cycles or options.quiet) and "" or "; press Ctrl-C to stop")
    console.line("policy: %s", printable(self.monitored.policy.source))
end

-- `refusal`: why the policy in force stays; standard error has it already.
function Report:reloaded(refusal)
    if not refusal then
        console.line("policy reloaded: %s", printable(self.monitored.policy.source))
    end
end

-- ---- the table --------------------------------------------------------------------------

-- A metric that was judged once keeps its column: the port's metrics are off during fail-open
-- and while the driver cannot deliver them.
function Report:needs_heading(metrics)
    for i, metric in ipairs(metrics) do
        if metric.enabled and metric.threshold ~= self.thresholds[i] then return true end
    end
    return not self.has_heading
end

local function bound(i, threshold)
    return (filter.metrics[i].below and "<" or ">") .. format.number(threshold)
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

-- Returns a line of the table. `cell(i)` returns the string in a metric's column, and whether
-- to mark it as beyond its threshold.
function Report:row(time, action, cell)
    local cells = { ("%-" .. self.times:width() .. "s  " .. ACTION):format(time, action) }
    for i in ipairs(filter.metrics) do
        if self.thresholds[i] then
            local value, is_over = cell(i)
            value = ("%" .. self.width[i] .. "s"):format(value)
            cells[#cells + 1] = is_over and self.colours.red .. value .. "!" .. self.colours.off
                or value .. " "
        end
    end
    return (table.concat(cells, " "):gsub(" +$", ""))
end

-- The names of the metrics, and below them the thresholds, unless nothing is judged.
function Report:show_heading(metrics)
    if not self:needs_heading(metrics) then return end
    self:set_columns(metrics)
    self.has_heading = true
    local colours = self.colours
    local function name(i) return filter.metrics[i].name end
    local function threshold(i) return bound(i, self.thresholds[i]) end
    console.line("%s%s%s", colours.bold, self:row("time", "action", name), colours.off)
    if next(self.thresholds) and not self.options.observe then
        console.line("%s%s%s", colours.bold, self:row("", "", threshold), colours.off)
    end
end

local why_not_measured = {
    [filter.NO_LOAD] = "uptime or nproc printed no number",
    [filter.NO_MEMORY] = "/proc/meminfo has no numbers",
    [filter.BAD_ARGUMENT] = "the module refused document, state or policy",
    [filter.DISABLED] = "no settings to judge by",
}

-- The rest of the minimum duration, for a cycle that stays in fail-open.
local function remaining(result)
    if result.action ~= filter.FAIL_OPEN or result.before ~= filter.ACTIVATED then return "" end
    return ("  %s to go"):format(format.duration(result.min_duration_s - result.in_fail_open_s))
end

local function metric_value(metric)
    if not metric.enabled then return "off" end
    return format.value(metric), metric.over
end

function Report:measured_line(time, result)
    local line = self:row(time, result.text,
        function(i) return metric_value(result.metrics[i]) end)
    local rest = remaining(result)
    local length = #line:gsub("\27%[%d*m", "")  -- escape sequences have no width
    return length + #rest <= self.columns and line .. rest or line
end

function Report:show_cycle(result)
    local time = self.times:line_start(result.time)
    if result.measured then return console.line("%s", self:measured_line(time, result)) end
    console.line("%s  " .. ACTION .. "  %s; %s", time, result.text,
        why_not_measured[result.action] or "nothing judged",
        result.state == filter.ACTIVATED and "still in fail-open" or "the filter enforces")
end

-- ---- transitions ------------------------------------------------------------------------

-- The module subtracts times without a sign: the duration is absurd once the clock was set back.
local LONGEST_FAIL_OPEN_S = 10 * 365 * 86400

local function fail_open_duration(result)
    local seconds = result.in_fail_open_s
    if seconds > LONGEST_FAIL_OPEN_S then return "; the clock was set back" end
    return " after " .. format.duration(seconds)
end

function Report:headline(mark, title, text)
    console.line("%s%s %s%s%s", self.colours.bold, mark, title, self.colours.off, text)
end

function Report:show_entry(result)
    self:headline(">>", "fail-open entered", ": " .. format.crossings(result.causes))
    if result.lasts_until then
        console.line("   lasts at least %s, until %s", format.duration(result.min_duration_s),
            timestamps.inline(result.lasts_until))
    end
end

function Report:show_exit(result)
    self:headline("<<", "fail-open left", fail_open_duration(result)
        .. ": the filter enforces again")
    console.line("   cause: %s", format.crossings(result.causes))
    if #result.over > 0 then
        console.line("   now: %s; unless that changes, the next cycle enters fail-open again",
            format.crossings(result.over))
    end
end

function Report:show_transition(result)
    if result.transition == "entered" then self:show_entry(result) else self:show_exit(result) end
    if result.machine then console.line("   machine: %s", format.machine(result.machine)) end
end

function Report:show_held(result)
    self:headline("--", "fail-open waits for the next cycle", ": "
        .. format.crossings(result.over))
    console.line("   the previous cycle did not read the counters, so these rates span several "
        .. "intervals")
end

function Report:cycle(result)
    if not self.options.quiet then
        self:show_heading(result.metrics)
        self:show_cycle(result)
    end
    if result.transition then self:show_transition(result) end
    if result.held then self:show_held(result) end
    if #result.near > 0 then
        self:headline("--", "near fail-open", ": " .. format.nearly(result.near))
    end
end

-- ---- connections and summary ------------------------------------------------------------

local ROWS_SHOWN = 5

function Report:connections(report)
    if self.options.quiet then return end
    console.line("%s== connections%s: %s", self.colours.bold, self.colours.off,
        connections_text.summary(report))
    connections_text.rows(report.rows, ROWS_SHOWN)
    connections_text.refused(report)
end

function Report:show_connections_left(totals)
    if totals.unpublished then
        console.line("== connections: %s", connections_text.summary(totals.unpublished))
        console.line("   not published yet: the next report is due at %s",
            connections_text.next_report(self.monitored.feedback))
        connections_text.refused(totals.unpublished)
    end
    connections_text.balance(totals.connections)
end

function Report:finish(totals)
    if not self.options.quiet then self:show_connections_left(totals) end
    console.line("%s in %s, %d measured, fail-open entered %s; %s",
        format.count(totals.cycles, "cycle"), format.duration(totals.seconds), totals.measured,
        format.count(totals.entered, "time"), totals.state == filter.ACTIVATED
            and "ended in fail-open" or "ended enforcing")
end

return run_text
