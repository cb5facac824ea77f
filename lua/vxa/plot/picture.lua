-- The gnuplot script that draws a record. It has strings from outside only between single quotes,
-- where gnuplot replaces nothing.

local filter = require "filter"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"
local time_axis = require "vxa.plot.time_axis"

local picture = {}

local WIDTH, HEADING, PANEL, GAP, AXIS = 1200, 84, 128, 34, 34  -- pixels
local LEFT, RIGHT = 0.062, 0.97  -- of the width
local VALUES, EXTREMES, THRESHOLD = "#174a86", "#6aa5dc", "#c62828"
local SHADE, GREY, GRID = "#fbd9c6", "#666666", "#e4e4e4"

local terminals = {
    svg = "svg size %d,%d noenhanced font 'sans-serif,13' background '#ffffff'",
    png = "pngcairo size %d,%d noenhanced font 'sans-serif,10' background '#ffffff'",
}

local LONGEST_NAME = 44

local function shorten(name)
    return #name <= LONGEST_NAME and name or name:sub(1, LONGEST_NAME) .. "..."
end

local function quote(text)
    return "'" .. printable(text):gsub("'", "''") .. "'"
end

-- A greater threshold is not drawn: its line would press the values to the axis.
local MOST_TIMES_GREATER = 5

local function is_on_scale(metric, threshold)
    return metric.greatest == 0 or threshold <= metric.greatest * MOST_TIMES_GREATER
end

-- ---- data -------------------------------------------------------------------------------

local Picture = {}
Picture.__index = Picture

function Picture:add(text, ...)
    self.lines[#self.lines + 1] = text:format(...)
end

-- A data block; without lines, one that draws nothing.
function Picture:block(name, lines)
    self:add("$%s << END_OF_BLOCK\n%s\nEND_OF_BLOCK", name,
        lines == "" and "NaN NaN NaN NaN" or (lines:gsub("\n$", "")))
end

local LEAST_WIDTH = 1 / 1080  -- of the axis: narrower ones would not be seen

function Picture:add_fail_open()
    local lines, least = {}, self.span * LEAST_WIDTH
    for i, period in ipairs(self.chart.fail_open) do
        local from, to = period.from - self.chart.from, period.to - self.chart.from
        lines[i] = ("%.3f %.3f %.3f"):format((from + to) / 2, from,
            math.min(math.max(to, from + least), self.span))
    end
    self:block("fail_open", table.concat(lines, "\n"))
end

-- Returns a line for each end of each threshold's time, and the last threshold.
function Picture:threshold_lines(name, metric)
    local policies, lines, last = self.policies, {}, nil
    for i, policy in ipairs(policies) do
        local until_time = policies[i + 1] and policies[i + 1].from or self.chart.to
        last = policy[name]
        if last and is_on_scale(metric, last) then
            lines[#lines + 1] = ("%.3f %.9g\n%.3f %.9g\n"):format(
                policy.from - self.chart.from, last, until_time - self.chart.from, last)
        end
    end
    return table.concat(lines, "\n"), last
end

function Picture:tics(has_labels)
    local tics = {}
    for i, tic in ipairs(time_axis.tics(self.chart.from, self.chart.to)) do
        tics[i] = ("%s %.3f"):format(quote(has_labels and tic.label or ""),
            tic.time - self.chart.from)
    end
    if #tics == 0 then return "unset xtics" end  -- gnuplot takes an empty list for its default
    return ("set xtics (%s)"):format(table.concat(tics, ", "))
end

-- ---- panels -----------------------------------------------------------------------------

local function highest(metric, policies, name)
    local most = metric.greatest
    for _, policy in ipairs(policies) do
        local threshold = policy[name]
        if threshold and is_on_scale(metric, threshold) then most = math.max(most, threshold) end
    end
    return most > 0 and most * 1.08 or 1
end

local MOST_STEPS = 5
local BELOW_ZERO = 0.03  -- of the highest value: the axis would hide a line at 0

-- Returns 1, 2 or 5 times a power of ten.
local function tic_step(top)
    local power = 10 ^ math.floor(math.log(top / MOST_STEPS, 10))
    for _, factor in ipairs { 1, 2, 5 } do
        if factor * power * MOST_STEPS >= top then return factor * power end
    end
    return 10 * power
end

local function threshold_text(metric, threshold)
    if not threshold then return "not judged" end
    return ("threshold %s%s"):format(format.number(threshold),
        is_on_scale(metric, threshold) and "" or " (off the scale)")
end

local function panel_title(description, metric)
    local extreme, value = "highest", metric.greatest
    if description.below then extreme, value = "lowest", metric.least end
    return ("%s: %s (%s); %s %s"):format(description.name, description.title, description.unit,
        extreme, format.number(value))
end

-- A program that shows the SVG file has the title as a tooltip.
local function line(values, title, colour, width)
    return ("%s with lines title '%s' linecolor rgb '%s' linewidth %g"):format(values, title,
        colour, width)
end

function Picture:panel(i, description, metric)
    local lowest_pixel = self.height - HEADING - i * PANEL - (i - 1) * GAP
    local lines, threshold = self:threshold_lines(description.name, metric)
    local top = highest(metric, self.policies, description.name)
    local bottom = -BELOW_ZERO * top
    self:block("values", metric.lines)
    self:block("threshold", lines)
    self:add("set bmargin at screen %.6f", lowest_pixel / self.height)
    self:add("set tmargin at screen %.6f", (lowest_pixel + PANEL) / self.height)
    self:add("set label 1 %s at graph 0, graph 1.09 left", quote(panel_title(description, metric)))
    self:add("set label 2 %s at graph 1, graph 1.09 right textcolor rgb '%s'",
        quote(threshold_text(metric, threshold)), threshold and THRESHOLD or GREY)
    self:add("%s", self:tics(i == self.panels))
    self:add("set yrange [%.9g:%.9g]", bottom, top)
    self:add("set ytics %.9g", tic_step(top))
    self:add("plot %s", table.concat({
        ("$fail_open using 1:(0):2:3:(%.9g):(%.9g) with boxxyerror title 'fail-open' fillstyle "
            .. "solid noborder linecolor rgb '%s'"):format(bottom, top, SHADE),
        ("$values using 1:2:4 with filledcurves title 'lowest to highest' fillcolor rgb '%s' "
            .. "fillstyle solid"):format(EXTREMES),
        -- Lines as well: peaks are narrower than a pixel.
        line("$values using 1:2", "lowest", EXTREMES, 0.8),
        line("$values using 1:4", "highest", EXTREMES, 0.8),
        line("$values using 1:3", "mean", VALUES, 1.3),
        line("$threshold using 1:2", "threshold", THRESHOLD, 1.5) .. " dashtype (6,4)",
    }, ", "))
end

-- ---- heading ----------------------------------------------------------------------------

local function period_text(from, to)
    return ("%s to %s UTC"):format(os.date("!%Y-%m-%d %H:%M:%S", from),
        os.date("!%Y-%m-%d %H:%M:%S", to))
end

local function fail_open_text(chart, policy_name)
    local with_policy = policy_name and ", with the policy " .. shorten(policy_name) or ""
    if chart.entries == 0 then return "never in fail-open" .. with_policy end
    return ("fail-open (shaded) %s, %s, %s %% of the time%s"):format(
        format.count(chart.entries, "time"), format.long_duration(chart.fail_open_s),
        format.number(100 * chart.fail_open_s / math.max(chart.counted_s, 1e-9)), with_policy)
end

-- `row`: 1 or 2. `look`: alignment and the like.
function Picture:heading_label(number, row, text, x, look)
    self:add("set label %d %s at screen %g, screen %.6f %s", number, quote(text), x,
        1 - 22 * row / self.height, look)
end

function Picture:heading()
    local chart, grey = self.chart, (" textcolor rgb '%s'"):format(GREY)
    local host = chart.heading:match(", host (.*), processors ") or "unknown host"
    self:heading_label(11, 1, shorten(host), LEFT, "left font ',18'")
    self:heading_label(12, 1, period_text(chart.from, chart.to), RIGHT, "right")
    self:heading_label(13, 2, fail_open_text(chart, self.policy_name), LEFT, "left" .. grey)
    self:heading_label(14, 2, "dark: mean, light: lowest to highest", RIGHT, "right" .. grey)
end

-- ---- the script -------------------------------------------------------------------------

function Picture:panels_with_values()
    local panels = {}
    for _, description in ipairs(filter.metrics) do
        local metric = self.chart.metrics[description.name]
        if metric then panels[#panels + 1] = { description = description, metric = metric } end
    end
    return panels
end

-- Returns the script for what chart:result() returned. `kind`: "svg" or "png". `policy_name`: of a
-- policy other than the record's own, or nil.
function picture.script(chart, kind, policy_name)
    local self = setmetatable({ chart = chart, policies = chart.policies, lines = {},
                                policy_name = policy_name,
                                span = math.max(chart.to - chart.from, 0.001) }, Picture)
    local panels = self:panels_with_values()
    self.panels = #panels
    self.height = HEADING + #panels * (PANEL + GAP) - GAP + AXIS
    self:add("set encoding utf8")
    self:add("set terminal " .. terminals[kind], WIDTH, self.height)
    self:add("set lmargin at screen %g\nset rmargin at screen %g", LEFT, RIGHT)
    self:add("unset key\nset border 3 linecolor rgb '%s'\nset tics scale 0.4", GREY)
    self:add("set grid xtics ytics linetype 1 linecolor rgb '%s'", GRID)
    self:add("set xtics nomirror\nset ytics nomirror\nset format y '%%.6g'")
    self:add("set xrange [0:%.3f]", self.span)
    self:add_fail_open()
    self:add("set multiplot")
    self:heading()
    for i, panel in ipairs(panels) do
        self:panel(i, panel.description, panel.metric)
        if i == 1 then self:add("unset label") end
    end
    self:add("unset multiplot\n")
    return table.concat(self.lines, "\n")
end

return picture
