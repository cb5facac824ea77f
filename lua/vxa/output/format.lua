-- Numbers, durations, sizes and aligned columns for people.

local filter = require "filter"
local timestamps = require "vxa.output.timestamps"

local format = {}

local function decimals(size)
    if size >= 1000 then return 0 end
    if size >= 1 then return 2 end
    return size >= 0.001 and 3 or 6  -- the module's traces have six
end

-- Returns a number with as many decimals as matter.
function format.number(value)
    if value ~= value or value == math.huge or value == -math.huge then
        return (("%f"):format(value):gsub("^-nan", "nan"))
    end
    if value ~= 0 and math.abs(value) < 0.000001 then return ("%.3g"):format(value) end
    local digits = ("%%.%df"):format(decimals(math.abs(value))):format(value)
    if digits:find(".", 1, true) then digits = digits:gsub("%.?0+$", "") end
    return (digits:gsub("^-0$", "0"))
end

-- Returns the shortest decimal number that reads back as the same value.
function format.exact(value)
    for digits = 15, 16 do
        local text = ("%." .. digits .. "g"):format(value)
        if tonumber(text) == value then return text end
    end
    return ("%.17g"):format(value)
end

-- "45 s", "30 min", "1 min 15 s"
function format.duration(seconds)
    if not (seconds >= 60 and seconds < 2 ^ 53) then return format.number(seconds) .. " s" end
    local minutes, rest = math.floor(seconds / 60), math.floor(seconds % 60)
    return (rest == 0 and "%.0f min" or "%.0f min %d s"):format(minutes, rest)
end

-- The same in whole seconds, and for long times "5 h 12 min", "3 days 7 h".
function format.long_duration(seconds)
    seconds = math.floor(seconds + 0.5)
    if seconds < 7200 then return format.duration(seconds) end
    local hours, minutes = math.floor(seconds / 3600), math.floor(seconds % 3600 / 60)
    if hours < 48 then return ("%.0f h %d min"):format(hours, minutes) end
    return ("%.0f days %d h"):format(math.floor(hours / 24), hours % 24)
end

-- "1 entry", "3 entries"; the plural defaults to the noun with an "s".
function format.count(number, noun, plural)
    return ("%d %s"):format(number, number == 1 and noun or plural or noun .. "s")
end

-- "8,640"
function format.grouped(number)
    local digits = ("%.0f"):format(number)
    return (digits:reverse():gsub("(%d%d%d)", "%1,"):reverse():gsub("^,", ""))
end

-- "873 bytes", "41.2 kB", "9.7 MB"
function format.size(bytes)
    if bytes < 1000 then return format.count(bytes, "byte") end
    local unit = bytes < 1e6 and "kB" or bytes < 1e9 and "MB" or "GB"
    local size = bytes / (unit == "kB" and 1e3 or unit == "MB" and 1e6 or 1e9)
    return (size < 99.95 and "%.1f %s" or "%.0f %s"):format(size, unit)
end

-- ---- metrics ----------------------------------------------------------------------------

-- "9.1", "few", or "-" for no value.
function format.value(metric)
    return metric.value and format.number(metric.value) or metric.few and "few" or "-"
end

-- "8 processes"
local function threshold(metric)
    return ("%s %s"):format(format.number(metric.threshold), filter.metrics[metric.name].unit)
end

-- With all decimals that there are if fewer would show two different numbers as equal.
local function distinct(value, other)
    local text = format.number(value)
    if value == other or text ~= format.number(other) then return text end
    return (("%.6f"):format(value):gsub("%.?0+$", ""))
end

-- "rqpct 9.1 exceeds the threshold of 8 processes since 12:00:05"
local function crossing(metric)
    local kind, bound = filter.metrics[metric.name], metric.threshold
    return ("%s %s %s the threshold of %s %s since %s"):format(metric.name,
        distinct(metric.value, bound), kind.below and "is below" or "exceeds",
        distinct(bound, metric.value), kind.unit, timestamps.inline(metric.since))
end

local function each(metrics, describe)
    local list = {}
    for i, metric in ipairs(metrics) do list[i] = describe(metric) end
    return table.concat(list, "; ")
end

-- Which metrics are over, and since when. The module names at least one unless its messages are
-- lost.
function format.crossings(metrics)
    return #metrics == 0 and "the module gives no reason" or each(metrics, crossing)
end

-- "rqpct 7 is at 88 % of the threshold of 8 processes"
function format.nearly(metrics)
    return each(metrics, function(metric)
        return ("%s %s is at %.0f %% of the threshold of %s"):format(metric.name,
            format.value(metric), 100 * metric.value / metric.threshold, threshold(metric))
    end)
end

local function share(value)
    return value and format.number(value) .. " %" or "unknown"
end

-- What the kernel reports beside the metrics, the result of resources.read.
function format.machine(machine)
    return ("processes wait for CPU %s, memory %s, I/O %s of the time; %s of memory available; "
        .. "limits: CPU %s, memory %s"):format(share(machine.cpu_pressure),
        share(machine.memory_pressure), share(machine.io_pressure),
        machine.memory_available_bytes and format.size(machine.memory_available_bytes)
            or "unknown amount",
        machine.cpu_limit and format.number(machine.cpu_limit) or "none",
        machine.memory_limit_bytes and format.size(machine.memory_limit_bytes) or "none")
end

-- Breaks a string at spaces into lines of at most `width` characters where it can.
function format.wrap(text, width)
    local lines, line = {}, nil
    for gap, word in text:gmatch("(%s*)(%S+)") do
        if line and #line + #gap + #word <= width then
            line = line .. gap .. word
        else
            lines[#lines + 1], line = line, word
        end
    end
    lines[#lines + 1] = line
    return lines
end

local TITLE_WIDTH = 12

-- Returns a title and a text in at most 80 columns; the text's lines are below each other.
function format.titled(title, text)
    local indent = (" "):rep(TITLE_WIDTH)
    local lines = format.wrap(text, 80 - TITLE_WIDTH)
    lines[1] = title .. indent:sub(#title + 1) .. (lines[1] or "")
    return table.concat(lines, "\n" .. indent)
end

-- The user that a manifest or a report describes. Two capabilities decide what the tables show:
-- rules and sets need one, other users' sockets need the other.
function format.user(user)
    local text = ("user ID %.14g"):format(user.uid)
    if not user.capabilities then return text end
    local has_it = table.concat(user.capabilities, " "):find("%f[%w]cap_net_admin%f[^%w_]")
    return ("%s %s cap_net_admin"):format(text, has_it and "with" or "without")
end

-- ---- columns ----------------------------------------------------------------------------

-- In characters: bytes of UTF-8 that do not continue a character.
local function length(cell)
    if not cell:find("[\128-\191]") then return #cell end
    return #cell - select(2, cell:gsub("[\128-\191]", ""))
end

-- A left-aligned last column needs no width.
local function widths(rows, right)
    local width = {}
    for _, row in ipairs(rows) do
        for i = 1, right[#row] and #row or #row - 1 do
            local needed = length(row[i])
            if needed > (width[i] or 0) then width[i] = needed end
        end
    end
    return width
end

local function pad(cell, width, right)
    local missing = (width or 0) - length(cell)
    if missing <= 0 then return cell end
    local padding = (" "):rep(missing)
    return right and padding .. cell or cell .. padding
end

-- Returns a line for each row of strings, with aligned columns. `right` is a set of the indexes
-- of right-aligned columns. `check`, if given, is called for each row: it can raise an error to
-- stop a very long table.
function format.columns(rows, right, check)
    local width, lines = widths(rows, right), {}
    for n, row in ipairs(rows) do
        if check then check() end
        local cells, last = {}, #row
        while last > 1 and row[last] == "" do last = last - 1 end
        for i = 1, last do
            local is_end = i == last and not right[i]
            cells[i] = is_end and row[i] or pad(row[i], width[i], right[i])
        end
        lines[n] = table.concat(cells, "  ")
    end
    return lines
end

return format
