-- Numbers, durations, sizes and aligned columns for people.

local filter = require "filter"

local format = {}

local units = {}
for _, metric in ipairs(filter.metrics) do units[metric.name] = metric.unit end

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

-- "1 entry", "3 entries"; the plural defaults to the noun with an "s".
function format.count(number, noun, plural)
    return ("%d %s"):format(number, number == 1 and noun or plural or noun .. "s")
end

-- "873 bytes", "41.2 kB", "9.7 MB"
function format.size(bytes)
    if bytes < 1000 then return format.count(bytes, "byte") end
    local unit = bytes < 1e6 and "kB" or bytes < 1e9 and "MB" or "GB"
    local size = bytes / (unit == "kB" and 1e3 or unit == "MB" and 1e6 or 1e9)
    return (size < 99.95 and "%.1f %s" or "%.0f %s"):format(size, unit)
end

-- "rqpct 9.1 exceeds the threshold of 8 processes". Values are rounded, so one that is beyond
-- its threshold can look equal to it.
local function crossing(metric)
    local relation = metric.value < metric.threshold and "is below"
        or metric.value > metric.threshold and "exceeds" or "crosses"
    return ("%s %s %s the threshold of %s %s"):format(metric.name, format.number(metric.value),
        relation, format.number(metric.threshold), units[metric.name])
end

-- Why fail-open was entered, from the metrics that are over.
function format.crossings(metrics)
    local causes = {}
    for i, metric in ipairs(metrics) do causes[i] = crossing(metric) end
    return table.concat(causes, "; ")
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
