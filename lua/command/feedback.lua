-- Connection feedback of this machine: samples the driver's flows through the filter
-- script, and remembers what the module has not published yet.

local addresses = require "command.addresses"
local filter = require "filter"
local session = require "command.session"

local feedback = {}

local Feedback = {}
Feedback.__index = Feedback

local function bit(flags, mask)
    return flags % (2 * mask) >= mask and 1 or 0
end

-- What the report will say of the observation.
local function row_of(flow, flags)
    return { protocol = flow.protocol, dst_addr = flow.dst, dst_port = flow.dport, flags = flags,
             cf_udp_connection = bit(flags, filter.UDP_CONNECTION),
             cf_outbound_connection = bit(flags, filter.OUTBOUND_CONNECTION), count = 0 }
end

function Feedback:note(key, flow, flags)
    local row = self.unpublished[key]
    if not row then
        row = row_of(flow, flags)
        self.unpublished[key] = row
    end
    row.count = row.count + 1
end

function feedback.new(attached)
    local self = setmetatable({ vxa = attached.vxa, unpublished = {} }, Feedback)
    -- The simulated machine's addresses are not this one's, and all its flows come in.
    local is_real = attached.engine ~= "sim"
    self.script = filter.feedback {
        is_local = is_real and function(address) return self.is_local(address) end or nil,
        observed = function(key, flow, flags) self:note(key, flow, flags) end,
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

function Feedback:report()
    local report = self.script:report()
    if report then self.unpublished = {} end
    return report
end

-- What was fed since the last report, in the form of a report; nil when that is nothing.
function Feedback:rest()
    local rest = { rows = {}, observations = 0, refused = self.script.refused,
                   since = self.script.published, time = os.time() }
    local keys = {}
    for key, row in pairs(self.unpublished) do
        keys[row] = key
        rest.rows[#rest.rows + 1] = row
        rest.observations = rest.observations + row.count
    end
    table.sort(rest.rows, function(a, b)
        if a.count ~= b.count then return a.count > b.count end
        return keys[a] < keys[b]
    end)
    return #rest.rows > 0 and rest or nil
end

return feedback
