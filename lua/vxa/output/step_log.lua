-- The log of what a command did: its own steps, and the module's messages and traces.

local printable = require "vxa.output.printable"
local timestamps = require "vxa.output.timestamps"

local step_log = {}

local StepLog = {}
StepLog.__index = StepLog

function step_log.new(vxa)
    return setmetatable({ vxa = vxa, steps = {} }, StepLog)
end

-- Adds a step that ends now.
function StepLog:step(format, ...)
    self.steps[#self.steps + 1] = { time = self.vxa.time(), label = "vxa",
                                    message = format:format(...) }
end

local function line(record)
    local label = record.category and ("trace %s %s"):format(record.category, record["function"])
        or record.label or record.level
    local message = record.message:gsub("%s+$", ""):gsub("\n", "\n    ")
    return ("%s: %s"):format(printable(label), printable(message, true))
end

-- Equal lines in a row are written once, with their number.
local Lines = {}
Lines.__index = Lines

function Lines:add(record)
    local text = line(record)
    if text == self.last then
        self.count = self.count + 1
        return
    end
    self:flush()
    self.last, self.count, self.time = text, 1, record.time
end

function Lines:flush()
    if not self.last then return end
    self[#self + 1] = ("%s  %s%s\n"):format(timestamps.with_offset(self.time), self.last,
        self.count > 1 and (" (%d times)"):format(self.count) or "")
end

-- Returns the steps and log records, which are in the order of their times, as lines.
function StepLog:text(records)
    local lines, next_step = setmetatable({}, Lines), 1
    local function add_steps_until(time)
        local step = self.steps[next_step]
        while step and step.time <= time do
            lines:add(step)
            next_step = next_step + 1
            step = self.steps[next_step]
        end
    end
    for _, record in ipairs(records) do
        add_steps_until(record.time)
        lines:add(record)
    end
    add_steps_until(math.huge)
    lines:flush()
    return table.concat(lines)
end

return step_log
