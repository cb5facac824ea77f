-- The files in which `vxa run --state` keeps its transitions; docs/commands/history.md describes
-- them.

local json = require "dkjson"

local complete_lines = require "vxa.complete_lines"
local filter = require "filter"
local times = require "vxa.times"

local transitions = {}

transitions.HEAD = '{"record":'  -- how each line begins

local MOST_BYTES = 20 * 1048576  -- more than a run lets them become
local LONGEST_LINE = 65536
local ENOENT = 2  -- errno value

function transitions.path(directory)
    return directory .. "/transitions.jsonl"
end

-- The file that is replaced again and again while a run lives.
function transitions.life_path(directory)
    return directory .. "/running.json"
end

-- ---- lines ------------------------------------------------------------------------------

local OBJECT = {}  -- the metatable of JSON objects

local function is_cause(value)
    return getmetatable(value) == OBJECT and filter.metrics[value.name] ~= nil
        and type(value.value) == "number" and type(value.threshold) == "number"
end

-- Returns the causes that are valid, with `since` in seconds where format.crossings needs it.
local function valid_causes(list, at)
    local causes = {}
    for _, cause in ipairs(type(list) == "table" and list or {}) do
        if is_cause(cause) then
            local since = type(cause.over_since) == "string" and times.of_record(cause.over_since)
            cause.since, cause.enabled, cause.over = since or at, true, true
            causes[#causes + 1] = cause
        end
    end
    return causes
end

local time_members = { "from", "found", "started", "fail_open_until" }

-- The kinds of records, and the time members that each must have besides `time`.
local kinds = { started = {}, policy = {}, entered = {}, left = {}, ended = {}, lost = {},
                jump = { "from" }, running = { "started" } }

local MOST_SECONDS = 1e10  -- centuries

local function is_duration(value)
    return type(value) == "number" and value >= 0 and value <= MOST_SECONDS
end

-- Returns the record of a line with its times in seconds (`at` is that of `time`), or nil if it is
-- not one.
local function parse(vxa, line)
    if #line > LONGEST_LINE or line:find("%z") then return nil end
    local stop, record = vxa.parse_json(line, 1, json.null, OBJECT)
    if not stop or stop <= #line or getmetatable(record) ~= OBJECT then return nil end
    local needed = kinds[record.record]
    record.at = type(record.time) == "string" and times.of_record(record.time)
    if not needed or not record.at then return nil end
    for _, name in ipairs(time_members) do
        local text = record[name]
        record[name] = type(text) == "string" and times.of_record(text) or nil
    end
    for _, name in ipairs(needed) do
        if not record[name] then return nil end
    end
    if not is_duration(record.seconds) then record.seconds = nil end
    if type(record.policy_sha256) ~= "string" then record.policy_sha256 = nil end
    if record.record == "entered" then record.causes = valid_causes(record.causes, record.at) end
    return record
end

-- ---- files ------------------------------------------------------------------------------

-- Adds the records of a file. A last line without line feed is being written or was cut short.
local function read_lines(vxa, path, text, list, check)
    local number = 0
    for line, next_at in complete_lines(text) do
        number = number + 1
        if number % 1000 == 0 then check(next_at - 1, #text) end
        local record = parse(vxa, line)
        if record then
            list[#list + 1] = record
        else
            list.unreadable = list.unreadable + 1
            list.first_unreadable = list.first_unreadable or ("%s:%d"):format(path, number)
        end
    end
end

-- Returns an array of the records in a state directory, oldest first, with the number of lines
-- that are not records as `unreadable`, the place of the first as `first_unreadable`, and whether
-- there is a file as `has_file`; or nil and a message. `check(done, total)` is called from time to
-- time and may raise an error.
function transitions.read(vxa, directory, check)
    local list = { unreadable = 0 }
    for _, path in ipairs { transitions.path(directory) .. ".1", transitions.path(directory) } do
        local text, message, code = vxa.read_file(path, MOST_BYTES)
        if text then
            list.has_file = true
            read_lines(vxa, path, text, list, check)
        elseif code ~= ENOENT then
            return nil, message
        end
    end
    return list
end

-- Returns the last sign of life of a run that has not ended, or nil: {at=, started=, interval_s=}.
function transitions.read_life(vxa, directory)
    local text = vxa.read_file(transitions.life_path(directory), LONGEST_LINE)
    local record = text and parse(vxa, (text:gsub("\n$", "")))
    return record and record.record == "running" and record or nil
end

return transitions
