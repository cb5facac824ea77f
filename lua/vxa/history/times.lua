-- Times as users and records write them.

local times = {}

-- Days from 1970-01-01 to a date of the Gregorian calendar, counted in years that begin in March,
-- so that the leap day is the last one.
local function days_to(year, month, day)
    local shifted = year - (month <= 2 and 1 or 0)
    local day_of_year = math.floor((153 * (month + (month > 2 and -3 or 9)) + 2) / 5) + day - 1
    return 365 * shifted + math.floor(shifted / 4) - math.floor(shifted / 100)
        + math.floor(shifted / 400) + day_of_year - 719468
end

-- Returns the seconds since 1970 of a time such as "2026-11-22T04:06:37.123Z", or nil.
function times.parse_utc(text)
    local year, month, day, hour, minute, second =
        text:match("^(%d%d%d%d)-(%d%d)-(%d%d)T(%d%d):(%d%d):(%d%d%.?%d*)Z$")
    if not year then return nil end
    return days_to(tonumber(year), tonumber(month), tonumber(day)) * 86400
        + tonumber(hour) * 3600 + tonumber(minute) * 60 + tonumber(second)
end

-- Returns a local time, or nil if the calendar does not have it.
local function local_time(year, month, day, hour, minute, second)
    local seconds = os.time { year = tonumber(year), month = tonumber(month), day = tonumber(day),
                              hour = tonumber(hour), min = tonumber(minute),
                              sec = tonumber(second) }
    local is_real = seconds and os.date("%m-%d", seconds) == month .. "-" .. day
        and tonumber(minute) < 60 and tonumber(second) < 60
    return is_real and seconds or nil
end

local unit_s = { s = 1, m = 60, h = 3600, d = 86400, w = 7 * 86400 }

-- Returns the time that a user means: "2026-11-22", "2026-11-22T04:06" or "2026-11-22 04:06:37" in
-- local time, "2026-11-22T04:06:37Z" in UTC, or "7d", "12h", "30m", "90s", "2w" before `now`; nil
-- for anything else.
function times.parse(text, now)
    local number, unit = text:match("^(%d+)([smhdw])$")
    if number then return now - tonumber(number) * unit_s[unit] end
    local date = { text:match("^(%d%d%d%d)-(%d%d)-(%d%d)$") }
    if date[1] then return local_time(date[1], date[2], date[3], "0", "0", "0") end
    local year, month, day, hour, minute, second, zone =
        text:match("^(%d%d%d%d)-(%d%d)-(%d%d)[T ](%d%d):(%d%d):?(%d*)(Z?)$")
    if not year then return nil end
    local seconds = local_time(year, month, day, hour, minute, second == "" and "0" or second)
    if seconds == nil or zone == "" then return seconds end
    return times.parse_utc(("%s-%s-%sT%s:%s:%02dZ"):format(year, month, day, hour, minute,
        tonumber(second) or 0))
end

-- Returns the first moments of the local day of this time and of the next day: a day can have 23
-- or 25 hours.
function times.day_of(seconds)
    local date = os.date("*t", math.floor(seconds))
    local function midnight(day)
        return os.time { year = date.year, month = date.month, day = day, hour = 0 }
    end
    return midnight(date.day), midnight(date.day + 1)
end

return times
