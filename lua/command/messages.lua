-- What the module logs while it works: its log and trace records.
--
-- A fault that lasts is reported by the module at every cycle. The user reads each fault
-- once, with what it costs; the JSON output has the faults of every cycle.

local console = require "command.console"
local printable = require "command.printable"

local messages = {}

-- What it costs when the driver cannot count the connections of the port.
messages.SCAN_COST = "refusalpct, estab and scanmb are not judged"

local LOG_COST = "/var/opt/vx_agent/diag cannot be written: the settings in force are not "
    .. "logged there"

-- Faults that need an explanation. A pattern with a capture quotes the driver:
-- its calls fail together, in the same way, and are reported together.
local explained = {
    { pattern = "^Failed to output cloud config", cost = LOG_COST },
    { pattern = "^vxi_set_scan_monitoring failed.-buf{(.*)}$", cost = messages.SCAN_COST },
    { pattern = "^vxi_get_scan_metrics failed.-buf{(.*)}$", cost = messages.SCAN_COST },
    -- The module reports a failed fetch twice.
    { pattern = "^get_scan_metrics%(%) failed.-buf{(.*)}$", cost = messages.SCAN_COST },
    -- How many they were differs from cycle to cycle; what follows the last colon does not.
    { pattern = "^(port %d+: %d+ new connections are not counted: .*)$",
      cost = "estab is too low" },
}

-- What identifies a fault, and what it costs. The driver's messages name engine and operation
-- before the cause; the same cause in another operation is not news.
local function identify(text)
    for _, fault in ipairs(explained) do
        local cause = text:match(fault.pattern)
        if cause then return cause:match("[^:]*$"), fault.cost end
    end
    return text
end

local Messages = {}
Messages.__index = Messages

-- `shown`: the trace categories that the user asked for, as a set.
function messages.new(vxa, shown)
    return setmetatable({ vxa = vxa, shown = shown, told = {}, records = {} }, Messages)
end

-- The records since the last call, for the filter script.
function Messages:take()
    local dropped
    self.records, dropped = self.vxa.captured()
    if dropped > 0 then self:tell_once("there were more messages than are kept for a cycle") end
    return self.records
end

function Messages:tell_once(text)
    local fault, cost = identify(text)
    if self.told[fault] then return end
    self.told[fault] = true
    console.complain(cost and ("%s (%s)"):format(text, cost) or text)
end

-- From now on faults count as new again.
function Messages:forget()
    self.told = {}
end

local is_fault = { error = true, warning = true }

-- The messages of all faults among the records taken last.
function Messages:faults()
    local faults = {}
    for _, record in ipairs(self.records) do
        if is_fault[record.level] then faults[#faults + 1] = record.message end
    end
    return faults
end

local function show_trace(record)
    io.stderr:write(("trace %s %s: %s\n"):format(record.category, record["function"],
        printable((record.message:gsub("\n$", "")))))
end

-- Shows the traces among the records taken last, and the faults that are new.
function Messages:show()
    for _, record in ipairs(self.records) do
        if record.kind == "trace" then
            if self.shown[record.category] then show_trace(record) end
        elseif is_fault[record.level] then
            self:tell_once(record.message)
        end
    end
end

return messages
