-- Times of day in lines of text. On a terminal the date has a line to itself when it changes;
-- elsewhere every line has it, because files and pipes do not show when a line appeared.

local console = require "command.console"

local timestamps = {}

local Timestamps = {}
Timestamps.__index = Timestamps

local TIME, DATE = "%H:%M:%S", "%Y-%m-%d"

function timestamps.new(vxa)
    return setmetatable({ has_date = not vxa.isatty(1) }, Timestamps)
end

-- How wide the starts of lines are.
function Timestamps:width()
    return #os.date(self.has_date and DATE .. " " .. TIME or TIME)
end

-- The start of a line about this moment.
function Timestamps:line(seconds)
    local date, time = os.date(DATE, seconds), os.date(TIME, seconds)
    if self.has_date then return date .. " " .. time end
    if self.date and self.date ~= date then console.line("-- %s", date) end
    self.date = date
    return time
end

-- A moment in the middle of a line; with its date unless that is today's.
function timestamps.moment(seconds)
    local is_today = os.date(DATE, seconds) == os.date(DATE)
    return os.date(is_today and TIME or DATE .. " " .. TIME, seconds)
end

return timestamps
