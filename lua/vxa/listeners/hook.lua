-- vxa run --hook: a shell command at each transition.
--
-- It runs beside the cycles and never delays one. Its result is in the record of the first cycle
-- after its end.

local console = require "vxa.output.console"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local run_json = require "vxa.reports.run_json"

local LONGEST_WAIT_S = 10  -- at the end of the run
local ENDING_S = 2.5       -- from the request to end a command until it is gone
local CLOSING_S = 1.5      -- from the end of the shell until the commands it started are gone

local function define(command)
    command:option("--hook", "Run this shell command at each transition into and out of "
        .. "fail-open, with the cycle's JSON record on its standard input."):argname("CMD")
        :convert(function(text)
            if text:find("%S") then return text end
            return nil, "--hook: the command is empty"
        end)
end

local Hook = {}
Hook.__index = Hook

-- `runs`: the commands started, oldest first, each {transition, time, process or error}.
local function new(monitored, options)
    if not options.hook then return nil end
    return setmetatable({ vxa = monitored.vxa, command = options.hook,
                          interval_s = options.interval, runs = {} }, Hook)
end

local reasons = { limit = "it ran longer than an interval",
                  stopped = "the next transition or the end of the run came" }

local function describe(run)
    if run.error then return run.error end
    local how = run.status and "exit status " .. run.status or run.signal or "unknown exit status"
    local reason = reasons[run.ended] or run.ended
    return ("%s after %s%s"):format(how, format.duration(run.seconds),
        reason and ": " .. reason or "")
end

-- Whether the run is over; the first time, copies its result and reports a failure.
function Hook:is_over(run, wait_s)
    if run.is_over or run.error then return true end
    local result = run.process:wait(wait_s or 0)
    if not result then return false end
    for name, value in pairs(result) do run[name] = value end
    run.is_over, run.closing_at = true, self.vxa.clock() + CLOSING_S
    if run.ended or run.status ~= 0 then self:complain(run) end
    return true
end

function Hook.complain(_, run)
    console.complain(("the hook for fail-open '%s' failed: %s"):format(run.transition,
        describe(run)))
end

-- Forgets the runs that are reported. Closing one waits for the commands that an ended shell
-- started, so that is done only once they are gone.
function Hook:sweep()
    local left = {}
    for _, run in ipairs(self.runs) do
        local is_done = run.is_reported
            and (run.error or not run.ended or self.vxa.clock() > run.closing_at)
        if not is_done then
            left[#left + 1] = run
        elseif run.process then
            run.process:close()
        end
    end
    self.runs = left
end

-- Returns the oldest run that is over and not yet reported.
function Hook:next_result()
    for _, run in ipairs(self.runs) do
        if self:is_over(run) and not run.is_reported then
            run.is_reported = true
            return run
        end
    end
end

function Hook:annotate(result)
    result.hook = self:next_result()
    self:sweep()
    if not result.transition then return end
    for _, run in ipairs(self.runs) do
        if not self:is_over(run) then run.process:stop() end
    end
end

function Hook:cycle(result, errors)
    if not result.transition then return end
    local run = { transition = result.transition, time = self.vxa.time() }
    local process, message = self.vxa.start_process(self.command,
        json_records.line(run_json.cycle(result, errors)), self.interval_s)
    run.process, run.error = process, message
    if message then self:complain(run) end
    self.runs[#self.runs + 1] = run
end

-- Waits for the last command, at most an interval; the others have been stopped.
function Hook:ended(totals)
    local last = self.runs[#self.runs]
    if last and not self:is_over(last, math.min(self.interval_s, LONGEST_WAIT_S)) then
        last.process:stop()
    end
    for _, run in ipairs(self.runs) do self:is_over(run, ENDING_S) end
    totals.hook = last and not last.is_reported and last or nil
    for _, run in ipairs(self.runs) do
        if run.process then run.process:close() end
    end
end

return { define = define, new = new }
