-- What the records of a state directory say about the past: the stretches of fail-open, and when
-- the filter enforced.
--
-- The clock can have been set between two records, so the same time can be recorded twice: then
-- the later record counts.

local times = require "vxa.times"

local timeline = {}

-- A machine without a clock of its own begins in the past until it has asked for the time.
local CLOCK_UNSET_BEFORE = 1577836800  -- 2020-01-01

local Builder = {}
Builder.__index = Builder

-- ---- stretches --------------------------------------------------------------------------

-- The monitor ran from `self.from` in the state `self.kind`; nil while it did not run.
function Builder:close(at)
    if self.from and at > self.from then
        self.segments[#self.segments + 1] = { from = self.from, to = at, kind = self.kind }
    end
    self.from = nil
end

function Builder:open(at, kind)
    self.from, self.kind = at, kind
end

function Builder:end_stretch(at, how, seconds)
    local stretch = self.stretch
    if not stretch then return end
    stretch.left, stretch.ended = at, how
    stretch.seconds = seconds or math.max(at - stretch.entered, 0)
    self.stretch = nil
end

-- Without a known end, a run is not counted from its last record on.
function Builder:lose_run()
    if self.stretch then self:end_stretch(self.from or self.stretch.entered, "unknown") end
    self.from = nil
end

local handlers = {}

function handlers.started(self, record)
    self:lose_run()
    self:open(record.at, "enforced")
end

function handlers.policy() end

function handlers.entered(self, record)
    self:close(record.at)
    self:open(record.at, "fail_open")
    self.stretch = { entered = record.at, causes = record.causes,
                     lasts_until = record.fail_open_until, policy_sha256 = record.policy_sha256 }
    self.stretches[#self.stretches + 1] = self.stretch
end

function handlers.left(self, record)
    self:close(record.at)
    self:end_stretch(record.at, "left", record.seconds)
    self:open(record.at, "enforced")
end

function handlers.ended(self, record)
    self:close(record.at)
    self:end_stretch(record.at, "run ended")
end

-- The sign of life can be older than the last transition.
function handlers.lost(self, record)
    if not self.from then return end
    local at = math.max(record.at, self.from)
    self:close(at)
    self:end_stretch(at, "unknown")
end

function handlers.jump(self, record)
    local kind = self.from and self.kind
    self:close(record.from)
    if kind then self:open(record.at, kind) end
end

-- The run that the last record belongs to has not recorded its end. `life`: its last sign.
function Builder:end_open_run(life, is_running, now)
    if not self.from then return end
    local at = is_running and now or life and life.at or 0
    if at < self.from then return self:lose_run() end
    self:close(at)
    self:end_stretch(not is_running and at or nil, is_running and "ongoing" or "unknown",
        self.stretch and at - self.stretch.entered)
end

-- ---- days -------------------------------------------------------------------------------

-- Returns the parts of [from, to) that no later segment covers, and marks them as covered.
-- `covered`: disjoint intervals, latest first.
local function uncovered(covered, from, to)
    local parts, first = {}, 1
    while covered[first] and covered[first].from > to do first = first + 1 end
    local last, at = first - 1, to
    while covered[last + 1] and covered[last + 1].to >= from do
        last = last + 1
        if covered[last].to < at then parts[#parts + 1] = { from = covered[last].to, to = at } end
        at = math.min(at, covered[last].from)
    end
    if at > from then parts[#parts + 1] = { from = from, to = at } end
    local merged = { from = from, to = to }
    for i = last, first, -1 do
        merged.from = math.min(merged.from, covered[i].from)
        merged.to = math.max(merged.to, covered[i].to)
        table.remove(covered, i)
    end
    table.insert(covered, first, merged)
    return parts
end

local function new_sums(from, to)
    return { from = from, to = to, seconds = to - from, enforced = 0, fail_open = 0, entries = 0 }
end

local Days = {}
Days.__index = Days

-- Returns the sums of the day of this time, and its end.
function Days:of(at)
    if not self.latest or at < self.latest.midnight or at >= self.latest.next_midnight then
        local midnight, next_midnight = times.day_of(at)
        local day = self[midnight]
        if not day then
            day = new_sums(math.max(midnight, self.since), math.min(next_midnight, self.now))
            day.midnight, day.next_midnight = midnight, next_midnight
            self[midnight] = day
            self.list[#self.list + 1] = day
        end
        self.latest = day
    end
    return self.latest
end

function Days:add(part, kind)
    local at = part.from
    while at < part.to do
        local day = self:of(at)
        local to = math.min(part.to, day.next_midnight)
        day[kind] = day[kind] + to - at
        self.total[kind] = self.total[kind] + to - at
        at = to
    end
end

local function count_entries(days, stretches)
    for _, stretch in ipairs(stretches) do
        if stretch.entered >= days.since and stretch.entered <= days.now then
            local day = days:of(stretch.entered)
            day.entries = day.entries + 1
            days.total.entries = days.total.entries + 1
        end
    end
end

local function sum_up(segments, stretches, since, now, check)
    local days = setmetatable({ since = since, now = now, list = {}, total = new_sums(since, now) },
        Days)
    local covered = {}
    for i = #segments, 1, -1 do
        if i % 1000 == 0 then check() end
        local segment = segments[i]
        local from, to = math.max(segment.from, since), math.min(segment.to, now)
        for _, part in ipairs(from < to and uncovered(covered, from, to) or {}) do
            days:add(part, segment.kind)
        end
    end
    count_entries(days, stretches)
    table.sort(days.list, function(a, b) return a.midnight < b.midnight end)
    return days
end

-- ---- the result -------------------------------------------------------------------------

local function first_time(list, now)
    local first = now
    for _, record in ipairs(list) do
        if record.at >= CLOCK_UNSET_BEFORE and record.at < first then first = record.at end
    end
    return first
end

-- Returns what happened from `since` or, if that is later, the first record to `now`:
--
-- since       when it begins
-- stretches   array of {entered, left, ended, seconds, causes, lasts_until, policy_sha256}, times
--             in seconds; `ended`: "left", "run ended", "unknown" or "ongoing", which has no `left`
-- days        array of {from, to, seconds, enforced, fail_open, entries}, in seconds, of the local
--             days of which something is known
-- total       the same for the whole time
--
-- `life`: the result of transitions.read_life. `is_running`: whether a run is writing the records.
-- `check` as for transitions.read.
function timeline.build(list, life, is_running, since, now, check)
    local self = setmetatable({ segments = {}, stretches = {} }, Builder)
    for _, record in ipairs(list) do
        local handler = handlers[record.record]
        if handler then handler(self, record) end
    end
    self:end_open_run(life, is_running, now)
    since = math.max(since or 0, first_time(list, now))
    local shown = {}
    for _, stretch in ipairs(self.stretches) do
        if (stretch.left or now) >= since then shown[#shown + 1] = stretch end
    end
    local days = sum_up(self.segments, shown, since, now, check)
    return { since = since, stretches = shown, days = days.list, total = days.total }
end

return timeline
