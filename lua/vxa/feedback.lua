-- Connection feedback for this machine: feeds the driver's flows to the filter script.

local addresses = require "vxa.machine.addresses"
local filter = require "filter"
local session = require "vxa.session"

local feedback = {}

local Feedback = {}
Feedback.__index = Feedback

function feedback.new(attached)
    local self = setmetatable({ vxa = attached.vxa }, Feedback)
    -- On the simulated machine, whose addresses are not this one's, all flows are inbound.
    local is_real = not attached.vxa.simulated_machine()
    self.script = filter.feedback {
        is_local = is_real and function(address) return self.is_local(address) end or nil,
        interrupted = self.vxa.interrupted,
    }
    return self
end

-- Feeds the new flows. Returns the number of flows, of new ones, and of those beyond the size
-- of the driver's table; or nil and a message.
function Feedback:sample()
    local handle, message = session.open_driver(self.vxa)
    if not handle then return nil, message end
    local rows, existing = handle:connections()
    handle:close()
    if not rows then return nil, existing end
    self.is_local = addresses.of_this_machine()  -- they can change at any time
    local flows, new = self.script:sample(rows)
    return flows, new, existing - #rows
end

-- Seconds until the next report.
function Feedback:due()
    return self.script:due()
end

-- Replaces the script's time, which is in whole seconds.
local function with_time(self, report)
    if report then report.time = self.vxa.time() end
    return report
end

-- The next report, or nil if it is not due.
function Feedback:report()
    return with_time(self, self.script:report())
end

-- What was fed since the last report, in the form of a report; nil if nothing was.
function Feedback:unpublished()
    local report = self.script:rest()
    return #report.rows > 0 and with_time(self, report) or nil
end

return feedback
