-- vxa run --state: keeps the transitions of the run, and from when to when it ran, for
-- `vxa history`. docs/commands/history.md describes the files.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local json_records = require "vxa.output.json_records"
local policy_source = require "vxa.policy_source"
local transitions = require "vxa.history.transitions"

local function define() end

local MOST_BYTES = 16 * 1048576  -- tens of thousands of transitions
local MOST_UNWRITTEN = 262144    -- bytes of records that wait for room on the disk
local SIGN_OF_LIFE_S = 0.5       -- a file is replaced at each cycle, but not more often than this
local JUMP_S = 60                -- pauses up to this are the machine's load
local SLEWED_S = 1               -- the clock may be corrected by this between two cycles

local History = {}
History.__index = History

local function new(monitored, options)
    if not options.state then return nil end
    local file, message = monitored.vxa.rotated_file(transitions.path(options.state),
        transitions.HEAD, MOST_BYTES, 1, false)
    if not file then exit.fail(1, "%s", message) end
    return setmetatable({ monitored = monitored, vxa = monitored.vxa, options = options,
                          file = file, unwritten = "",
                          life_path = transitions.life_path(options.state) }, History)
end

-- ---- writing ----------------------------------------------------------------------------

function History:warn(message)
    if message then self.monitored.messages:warn_once(message) end
end

-- Without the beginning of a fail-open, its time would count as enforced: what cannot be written
-- is tried again at each cycle. Returns whether all is written.
function History:write_pending()
    if self.unwritten == "" then return true end
    local written, message = self.file:write(self.unwritten)
    self:warn(message)
    if not written then return false end
    self.unwritten = ""
    self:warn(select(2, self.file:sync()))
    return true
end

-- Each record is on the disk before the next cycle. Returns whether it and all before it are.
function History:write(record)
    local line = json_records.line(record)
    if #self.unwritten + #line <= MOST_UNWRITTEN then self.unwritten = self.unwritten .. line end
    return self:write_pending()
end

-- Replaces the file from which the next start learns until when this run is known to have lived.
function History:show_life(now)
    self.shown_at = self.vxa.clock()
    local line = json_records.line {
        record = "running", time = json_records.time(now), started = self.started,
        state = self.monitored.monitor.state, interval_s = self.options.interval,
    }
    self:warn(select(2, self.vxa.replace_file(self.life_path, line, true)))
end

function History:add_policy(record)
    local policy = self.monitored.policy
    record.policy_source = policy.source
    record.policy_sha256 = self.vxa.sha256(policy_source.effective_text(policy))
    record.settings = json_records.object(policy.values)
    self.policy_sha256 = record.policy_sha256
    return record
end

-- ---- events -----------------------------------------------------------------------------

-- A run that was killed could not record its end.
function History:record_lost_run(now)
    local last = transitions.read_life(self.vxa, self.options.state)
    if last then
        self:write { record = "lost", time = json_records.time(last.at),
                     found = json_records.time(now) }
    end
end

function History:start()
    local now = self.vxa.time()
    self:record_lost_run(now)
    self.started = json_records.time(now)
    self:write(self:add_policy { record = "started", time = self.started,
                                 version = self.vxa.version, engine = self.monitored.engine,
                                 interval_s = self.options.interval })
    self:show_life(now)
    self.latest, self.latest_clock = self.vxa.time(), self.vxa.clock()
end

function History:reloaded(refusal)
    if refusal then return end
    self:write(self:add_policy { record = "policy", time = json_records.time(self.vxa.time()) })
end

-- The machine slept, the process was stopped, or the clock was set: then the time in between is
-- not known to have been monitored.
function History:check_clocks()
    local now, clock = self.vxa.time(), self.vxa.clock()
    local passed = now - self.latest
    local set_back = clock - self.latest_clock - passed
    if passed > 2 * self.options.interval + JUMP_S or set_back > SLEWED_S then
        self:write { record = "jump", time = json_records.time(now),
                     from = json_records.time(self.latest) }
    end
    self.latest, self.latest_clock = now, clock
end

function History:record_transition(result)
    local record = { record = result.transition, time = json_records.time(result.time),
                     policy_sha256 = self.policy_sha256 }
    if result.transition == "entered" then
        record.causes = json_records.metrics(result.causes)
        record.fail_open_until = json_records.time_or_null(result.lasts_until)
        self.entered, self.entered_clock = record.time, self.vxa.clock()
    else
        record.entered = self.entered
        record.seconds = json_records.duration(self.vxa.clock() - self.entered_clock)
        record.ended = "left"
    end
    self:write(record)
end

function History:cycle(result)
    self:write_pending()
    self:check_clocks()
    if result.transition then self:record_transition(result) end
    if result.transition or self.vxa.clock() - self.shown_at >= SIGN_OF_LIFE_S then
        self:show_life(result.time)
    end
end

function History:finish(totals)
    self:check_clocks()
    local now = self.latest
    local is_recorded = self:write {
        record = "ended", time = json_records.time(now), state = totals.state,
        seconds = json_records.duration(totals.seconds), interrupted = totals.interrupted,
    }
    self.file:close()
    if not is_recorded then return self:show_life(now) end
    local removed, message = self.vxa.remove_file(self.life_path)
    if not removed then console.complain(message) end
end

return { define = define, new = new }
