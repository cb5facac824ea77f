-- Numbers, durations and aligned columns.

local filter = require "filter"

local text = {}

local units = {}
for _, metric in ipairs(filter.metrics) do units[metric.name] = metric.unit end

local function decimals(size)
    if size >= 1000 then return 0 end
    if size >= 1 then return 2 end
    return size >= 0.001 and 3 or 6  -- the module's own traces have no more
end

-- As many decimals as say something.
function text.number(value)
    if value ~= value or value == math.huge or value == -math.huge then
        return (("%f"):format(value):gsub("^-nan", "nan"))
    end
    if value ~= 0 and math.abs(value) < 0.000001 then return ("%.3g"):format(value) end
    local digits = ("%%.%df"):format(decimals(math.abs(value))):format(value)
    if digits:find(".", 1, true) then digits = digits:gsub("%.?0+$", "") end
    return (digits:gsub("^-0$", "0"))
end

-- "45 s", "30 min", "1 min 15 s"
function text.duration(seconds)
    if not (seconds >= 60 and seconds < 2 ^ 53) then return text.number(seconds) .. " s" end
    local minutes, rest = math.floor(seconds / 60), math.floor(seconds % 60)
    return (rest == 0 and "%.0f min" or "%.0f min %d s"):format(minutes, rest)
end

function text.count(number, noun, plural)
    return ("%d %s"):format(number, number == 1 and noun or plural or noun .. "s")
end

-- "873 bytes", "41.2 kB", "9.7 MB"
function text.size(bytes)
    if bytes < 1000 then return text.count(bytes, "byte") end
    local unit = bytes < 1e6 and "kB" or bytes < 1e9 and "MB" or "GB"
    local size = bytes / (unit == "kB" and 1e3 or unit == "MB" and 1e6 or 1e9)
    return (size < 99.95 and "%.1f %s" or "%.0f %s"):format(size, unit)
end

-- "rqpct 9.1 exceeds the threshold of 8 processes"; figures that are equal as far as they
-- are known differ all the same.
function text.crossed(metric)
    local relation = metric.value < metric.threshold and "is below"
        or metric.value > metric.threshold and "exceeds" or "crosses"
    return ("%s %s %s the threshold of %s %s"):format(metric.name, text.number(metric.value),
        relation, text.number(metric.threshold), units[metric.name])
end

-- In characters: UTF-8 has one byte for each that does not continue another.
local function length(cell)
    if not cell:find("[\128-\191]") then return #cell end
    return #cell - select(2, cell:gsub("[\128-\191]", ""))
end

-- The last column of a row is never padded on its right.
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

-- `rows` of strings with the same columns; `right` marks right-aligned ones by index. Calls
-- `proceed`, if given, for each row: with very many it can raise an error to stop.
function text.columns(rows, right, proceed)
    local width, lines = widths(rows, right), {}
    for n, row in ipairs(rows) do
        if proceed then proceed() end
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

return text
