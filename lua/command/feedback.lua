-- Connection feedback of this machine: samples the driver's flows through the filter script.

local addresses = require "command.addresses"
local filter = require "filter"
local session = require "command.session"

local feedback = {}

local Feedback = {}
Feedback.__index = Feedback

function feedback.new(attached)
    local self = setmetatable({ vxa = attached.vxa }, Feedback)
    -- The simulated machine's addresses are not this one's, and all its flows come in.
    local is_real = attached.engine ~= "sim"
    self.script = filter.feedback {
        is_local = is_real and function(address) return self.is_local(address) end or nil,
        interrupted = self.vxa.interrupted,
    }
    return self
end

-- Feeds what is new. Returns the number of flows, of new ones, and of those beyond the
-- table's bound; or nil and what is wrong.
function Feedback:sample()
    local handle, fault = session.open(self.vxa)
    if not handle then return nil, fault end
    local rows, existing = handle:connections()
    handle:close()
    if not rows then return nil, existing end
    self.is_local = addresses.of_this_machine()  -- they change while we run
    local flows, new = self.script:sample(rows)
    return flows, new, existing - #rows
end

function Feedback:due()
    return self.script:due()
end

-- The script's clock has whole seconds.
local function with_time(self, report)
    if report then report.time = self.vxa.time() end
    return report
end

function Feedback:report()
    return with_time(self, self.script:report())
end

-- What was fed since the last report, in the form of a report; nil when that is nothing.
function Feedback:rest()
    local rest = self.script:rest()
    return #rest.rows > 0 and with_time(self, rest) or nil
end

return feedback
