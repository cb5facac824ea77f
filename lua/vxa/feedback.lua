-- Connection feedback for this machine: feeds the driver's flows to the filter script.

local addresses = require "vxa.machine.addresses"
local connection_counts = require "vxa.connection_counts"
local console = require "vxa.output.console"
local filter = require "filter"
local session = require "vxa.session"

local feedback = {}

local Feedback = {}
Feedback.__index = Feedback

-- `directory`: where the counts are kept from run to run, if anywhere.
function feedback.new(attached, directory)
    local self = setmetatable({ vxa = attached.vxa, directory = directory }, Feedback)
    -- On the simulated machine, whose addresses are not this one's, all flows are inbound.
    local is_real = not attached.vxa.simulated_machine()
    self.script = filter.feedback {
        is_local = is_real and function(address) return self.is_local(address) end or nil,
        interrupted = self.vxa.interrupted,
    }
    self:load()
    return self
end

-- What an earlier run fed and its module did not publish is fed again.
function Feedback:load()
    local problem
    self.totals, problem = connection_counts.load(self.vxa, self.directory)
    self.continues = self.totals.observed > 0
    if problem then
        console.complain(("warning: %s; connections are counted from 0"):format(problem))
    end
    self.script:restore(self.totals.pending)
    self.totals.pending = nil
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
    if flows then self.totals.observed = self.totals.observed + new end
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
    local report = self.script:report()
    if report then self.totals:add_report(report) end
    return with_time(self, report)
end

-- What was fed since the last report, in the form of a report; nil if nothing was.
function Feedback:unpublished()
    local report = self.script:rest()
    return #report.rows > 0 and with_time(self, report) or nil
end

-- Returns how many connections were fed (`observed`) and what became of them: `reported`,
-- `pending` until the next report, or `refused` by the module for lack of room; their sum is
-- `observed`. Also the number of `reports`, reported connections by service (`services`, an array
-- of {protocol, direction, port, count}, and `other`), and whether earlier runs are included:
-- `continue`.
function Feedback:counts()
    local totals = self.totals
    local pending, refused = self.script:pending()
    return { observed = totals.observed, reported = totals.reported, pending = pending,
             refused = totals.refused + refused, reports = totals.reports,
             services = totals.services, other = totals:other(), continue = self.continues }
end

-- Saves the counts in the directory, if there is one. Returns nil and a message if that fails.
function Feedback:save()
    if not self.directory then return true end
    return self.totals:save(self.vxa, self.directory, self:counts().refused, function()
        return self.script:rest(true).rows
    end)
end

return feedback
