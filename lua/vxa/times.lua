-- Times as users and records write them.

local times = {}

-- Days since the epoch; counting from March puts the leap day at a year's end.
local function days_of(year, month, day)
    if month <= 2 then year, month = year - 1, month + 12 end
    local leap_days = math.floor(year / 4) - math.floor(year / 100) + math.floor(year / 400)
    return 365 * year + leap_days + math.floor((153 * (month - 3) + 2) / 5) + day - 719469
end

-- Returns "2026-11-22 04:06:00" for such a time, also if parts at its end are left out or "T" is in
-- place of the space, and its numbers; nil for anything else.
local function split(text)
    local padded = text:gsub("T", " ") .. (" 00:00:00"):sub(#text - 9)
    local numbers = { padded:match("^(%d%d%d%d)%-(%d%d)%-(%d%d) (%d%d):(%d%d):(%d%d)$") }
    if not numbers[1] then return nil end
    for i, digits in ipairs(numbers) do numbers[i] = tonumber(digits) end
    return padded, table.unpack(numbers)
end

-- Returns the seconds since the epoch of a time in UTC, such as "2026-11-22", "2026-11-22 04:06" or
-- "2026-11-22T04:06:37"; nil for anything else.
function times.utc(text)
    local padded, year, month, day, hour, minute, second = split(text)
    if not padded then return nil end
    local time = days_of(year, month, day) * 86400 + hour * 3600 + minute * 60 + second
    return os.date("!%Y-%m-%d %H:%M:%S", time) == padded and time or nil
end

-- Returns the seconds that "Z" or an offset from UTC such as "+01:00" means, or nil.
local function offset_s(zone)
    if zone == "Z" then return 0 end
    local sign, hours, minutes = zone:match("^([+-])(%d%d):(%d%d)$")
    return sign and (sign == "-" and -1 or 1) * (hours * 3600 + minutes * 60)
end

-- The same for a time that another program wrote, such as "2026-11-22T04:06:37.123Z" or
-- "2026-11-22T05:06:37.123+01:00".
function times.of_record(text)
    local whole, fraction, zone = text:match("^(%d+%-%d+%-%d+T%d+:%d+:%d+)(%.?%d*)(.*)$")
    local seconds, offset = whole and times.utc(whole), zone and offset_s(zone)
    return seconds and offset and seconds + (tonumber("0" .. fraction) or 0) - offset
end

-- Returns nil also for an hour that the local clock skips.
local function local_time(text)
    local padded, year, month, day, hour, minute, second = split(text)
    local time = padded and os.time { year = year, month = month, day = day, hour = hour,
                                      min = minute, sec = second }
    return time and os.date("%Y-%m-%d %H:%M:%S", time) == padded and time or nil
end

local unit_s = { s = 1, m = 60, h = 3600, d = 86400, w = 7 * 86400 }

-- Returns the time that a user means: as for times.utc, in UTC with "Z" or "UTC" at its end,
-- otherwise in local time; or "90s", "30m", "12h", "7d", "2w" before `now`; nil for anything else.
function times.parse(text, now)
    local number, unit = text:match("^(%d+)([smhdw])$")
    if number then return now - tonumber(number) * unit_s[unit] end
    local in_utc = text:match("^(.*)Z$") or text:match("^(.-) ?UTC$")
    if in_utc then return times.utc(in_utc) end
    return local_time(text)
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
