-- A line on the terminal that shows how far a long step is. Steps of up to two seconds and other
-- kinds of output do not get one.

local progress = {}

local Progress = {}
Progress.__index = Progress

local FIRST_S, NEXT_S = 2, 0.2

-- `what`: what the step does, such as "checking entries".
function progress.new(vxa, what)
    return setmetatable({ vxa = vxa, what = what, is_shown = false,
                          due = vxa.isatty(2) and vxa.clock() + FIRST_S or math.huge }, Progress)
end

function Progress:update(text, ...)
    local now = self.vxa.clock()
    if now < self.due then return end
    self.is_shown, self.due = true, now + NEXT_S
    io.stderr:write(("\r%s: " .. text):format(self.what, ...))
end

function Progress:show(done, total)
    self:update("%.0f of %.0f", done, total)
end

-- `share`: from 0 to 1.
function Progress:show_share(share)
    self:update("%.0f %%", share * 100)
end

-- Removes the line.
function Progress:finish()
    if self.is_shown then io.stderr:write("\r\27[K") end
end

return progress
