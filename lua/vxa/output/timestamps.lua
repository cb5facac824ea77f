-- Local times at the start of output lines. On a terminal, the date is on its own line when
-- it changes; in files and pipes every line has it.

local console = require "vxa.output.console"

local timestamps = {}

local Timestamps = {}
Timestamps.__index = Timestamps

local TIME, DATE = "%H:%M:%S", "%Y-%m-%d"

function timestamps.new(vxa)
    return setmetatable({ has_date = not vxa.isatty(1) }, Timestamps)
end

-- The width of what line_start returns.
function Timestamps:width()
    return #os.date(self.has_date and DATE .. " " .. TIME or TIME)
end

-- Returns the start of a line about this time; first prints the date if that is due.
function Timestamps:line_start(seconds)
    local date, time = os.date(DATE, seconds), os.date(TIME, seconds)
    if self.has_date then return date .. " " .. time end
    if self.date and self.date ~= date then console.line("-- %s", date) end
    self.date = date
    return time
end

-- Returns a time for use within a line, with its date unless that is today's.
function timestamps.inline(seconds)
    local is_today = os.date(DATE, seconds) == os.date(DATE)
    return os.date(is_today and TIME or DATE .. " " .. TIME, seconds)
end

-- Returns the local time with milliseconds and the offset from UTC, as RFC 3339 writes it.
function timestamps.with_offset(seconds)
    local whole = math.floor(seconds)
    return ("%s.%03d%s"):format(os.date("%Y-%m-%dT%H:%M:%S", whole),
        math.floor((seconds - whole) * 1000), (os.date("%z", whole):gsub("%d%d$", ":%0")))
end

return timestamps
