-- Where a time axis has its tics, and what is written there, for periods from seconds to decades.
-- Times are UTC.

local time_axis = {}

local MINUTE, HOUR, DAY = 60, 3600, 86400
local MOST_TICS = 13

local SECONDS, MINUTES, DATE, MONTH, YEAR = "%H:%M:%S", "%H:%M", "%d %b", "%b", "%Y"

-- Steps in seconds, each with the format of its labels.
local steps = {
    { 1, SECONDS }, { 2, SECONDS }, { 5, SECONDS }, { 10, SECONDS }, { 15, SECONDS },
    { 30, SECONDS }, { MINUTE, MINUTES }, { 2 * MINUTE, MINUTES }, { 5 * MINUTE, MINUTES },
    { 10 * MINUTE, MINUTES }, { 15 * MINUTE, MINUTES }, { 30 * MINUTE, MINUTES },
    { HOUR, MINUTES }, { 2 * HOUR, MINUTES }, { 3 * HOUR, MINUTES }, { 6 * HOUR, MINUTES },
    { 12 * HOUR, MINUTES }, { DAY, DATE }, { 2 * DAY, DATE }, { 7 * DAY, DATE },
}

local MONDAY = 4 * DAY  -- the epoch was a Thursday

local function even_tics(from, to, step, format)
    local tics = {}
    local first = math.ceil((from - MONDAY) / step) * step + MONDAY
    for time = first, to, step do
        local label = time % DAY == 0 and DATE or format
        tics[#tics + 1] = { time = time, label = os.date("!" .. label, time) }
    end
    return tics
end

-- At the beginning of every `months`-th month; the label of a January is its year.
local function month_tics(from, to, months)
    local tics = {}
    for time = math.ceil(from / DAY) * DAY, to, DAY do
        local date = os.date("!*t", time)
        local month = date.year * 12 + date.month - 1
        if date.day == 1 and month % months == 0 then
            tics[#tics + 1] = { time = time,
                                label = os.date("!" .. (date.month == 1 and YEAR or MONTH), time) }
        end
    end
    return tics
end

-- Returns an array of {time, label}.
function time_axis.tics(from, to)
    local span = to - from
    for _, step in ipairs(steps) do
        if span / step[1] <= MOST_TICS then return even_tics(from, to, step[1], step[2]) end
    end
    for _, months in ipairs { 1, 2, 3, 6, 12, 24, 60 } do
        if span / (months * 30 * DAY) <= MOST_TICS then return month_tics(from, to, months) end
    end
    return month_tics(from, to, 120)
end

return time_axis
