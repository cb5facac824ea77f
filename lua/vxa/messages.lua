-- The module's log and trace records, and which of them the user sees.
--
-- The module repeats an error at every cycle while its cause lasts. The user sees each error
-- once, with its consequence; JSON output lists all errors of every cycle.

local console = require "vxa.output.console"
local printable = require "vxa.output.printable"

local messages = {}

-- The consequence if the driver cannot count the connections of the port.
messages.NOT_COUNTED = "refusalpct, estab and scanmb are not judged"

-- The module logs the settings in force here, but does not create the directory.
messages.LOG_DIRECTORY = "/var/opt/vx_agent/diag"

local NOT_LOGGED = ("cannot write to %s: the settings in force are not logged")
    :format(messages.LOG_DIRECTORY)

-- Errors whose consequence is worth showing. Where a pattern has a capture, that is the
-- driver's message: its calls fail together, for the same reason, and are reported once.
local explained = {
    { pattern = "^Failed to output cloud config", consequence = NOT_LOGGED },
    { pattern = "^vxi_set_scan_monitoring failed.-buf{(.*)}$", consequence = messages.NOT_COUNTED },
    { pattern = "^vxi_get_scan_metrics failed.-buf{(.*)}$", consequence = messages.NOT_COUNTED },
    -- The module reports a failed fetch twice.
    { pattern = "^get_scan_metrics%(%) failed.-buf{(.*)}$", consequence = messages.NOT_COUNTED },
    -- The count changes from cycle to cycle; the reason after the last colon does not.
    { pattern = "^(port %d+: %d+ new connections are not counted: .*)$",
      consequence = "estab is too low" },
}

-- Returns what identifies an error, and its consequence. The driver's messages name engine and
-- operation before the cause; the same cause in another operation is the same error.
local function identify(message)
    for _, known in ipairs(explained) do
        local cause = message:match(known.pattern)
        if cause then return cause:match("[^:]*$"), known.consequence end
    end
    return message
end

local Messages = {}
Messages.__index = Messages

-- `shown`: the trace categories that the user asked for, as a set.
function messages.new(vxa, shown)
    return setmetatable({ vxa = vxa, shown = shown, reported = {}, records = {} }, Messages)
end

-- Returns the records since the last call, for the filter script.
function Messages:take()
    local dropped
    self.records, dropped = self.vxa.captured()
    if dropped > 0 then
        self:warn_once("a cycle wrote more than 10000 log records; the oldest are lost")
    end
    return self.records
end

function Messages:warn_once(message)
    local identity, consequence = identify(message)
    if self.reported[identity] then return end
    self.reported[identity] = true
    console.complain(consequence and ("%s (%s)"):format(message, consequence) or message)
end

-- From now on all errors are new again.
function Messages:forget()
    self.reported = {}
end

local is_error = { error = true, warning = true }

-- Returns all error messages among the records taken last.
function Messages:errors()
    local errors = {}
    for _, record in ipairs(self.records) do
        if is_error[record.level] then errors[#errors + 1] = record.message end
    end
    return errors
end

local function show_trace(record)
    io.stderr:write(("trace %s %s: %s\n"):format(record.category, record["function"],
        printable((record.message:gsub("\n$", "")))))
end

-- Shows the traces and the new errors among the records taken last.
function Messages:show()
    for _, record in ipairs(self.records) do
        if record.kind == "trace" then
            if self.shown[record.category] then show_trace(record) end
        elseif is_error[record.level] then
            self:warn_once(record.message)
        end
    end
end

return messages
