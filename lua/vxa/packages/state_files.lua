-- The files of a state directory, as a diagnostic package has them and its manifest quotes them.
-- The directory can belong to another user, and another process can be writing it.

local json = require "dkjson"

local complete_lines = require "vxa.complete_lines"
local printable = require "vxa.output.printable"

local state_files = { FAIL_OPEN_KEY = "vxp.filter.FailOpenState" }

-- At most this much of the end of a file: packages are sent by mail.
local MOST_BYTES = 8 * 1024 * 1024
local LONGEST_LINE = 65536
local ENOENT = 2  -- errno value

-- ---- entries ----------------------------------------------------------------------------

-- `older`: what the file's start was moved to when it had become large.
local FILES = {
    { name = "transitions.jsonl", older = "transitions.jsonl.1",
      if_none = "no transition was recorded" },
    { name = "events.jsonl", if_none = "no event was recorded" },
}

-- Returns the end of a file, and the number of bytes in front of it. A file that does not exist is
-- empty. Otherwise returns nil and a message.
local function read_end(vxa, path, most_bytes)
    local text, skipped, code = vxa.read_tail(path, most_bytes)
    if text then return text, skipped end
    if code == ENOENT then return "", 0 end
    return nil, skipped
end

local function read_both_ends(vxa, directory, file)
    local text, skipped = read_end(vxa, directory .. "/" .. file.name, MOST_BYTES)
    if not text or skipped > 0 or not file.older then return text, skipped end
    local older, older_skipped = read_end(vxa, directory .. "/" .. file.older, MOST_BYTES - #text)
    if not older then return nil, older_skipped end
    return older .. text, older_skipped
end

-- Returns the end of a file from the start of a line, and why that is not all; nil and a message if
-- it cannot be read.
local function read_lines(vxa, directory, file)
    local text, skipped = read_both_ends(vxa, directory, file)
    if not text or skipped == 0 then return text, not text and skipped or nil end
    local partial = text:match("^[^\n]*\n?")
    return text:sub(#partial + 1),
        ("the first %.0f bytes were left out"):format(skipped + #partial)
end

-- Returns {name, text, reason, is_expected} for each file: nil as text if it is missing, the reason
-- if it is missing or incomplete, and whether that is as it should be.
function state_files.read(vxa, directory)
    local entries = {}
    for i, file in ipairs(FILES) do
        local text, reason = read_lines(vxa, directory, file)
        local is_none = text == "" and not reason
        entries[i] = { name = "state/" .. file.name, text = not is_none and text or nil,
                       is_expected = is_none, reason = is_none and file.if_none or reason }
    end
    return entries
end

-- ---- what the manifest quotes -------------------------------------------------------------

local OBJECT = {}  -- the metatable of JSON objects

-- Returns the object of a line that is safe to quote, or nil.
local function parse(vxa, line)
    if #line > LONGEST_LINE or printable(line) ~= line then return nil end
    local stop, record = vxa.parse_json(line, 1, json.null, OBJECT)
    return stop and stop > #line and getmetatable(record) == OBJECT and record or nil
end

-- For json.encode, which would write the members in any order.
local function quote(line)
    return setmetatable({}, { __tojson = function() return line end })
end

-- The state of fail-open in a directory that another process has open, or nil and why it is not
-- known.
function state_files.fail_open(vxa, directory)
    local path = directory .. "/document.json"
    local text, skipped, code = vxa.read_tail(path, MOST_BYTES)
    if not text then return nil, code == ENOENT and "no cycle was run" or skipped end
    if skipped > 0 then return nil, path .. ": too large" end
    local _, document = vxa.parse_json(text, 1, json.null, OBJECT)
    local state = getmetatable(document) == OBJECT and document[state_files.FAIL_OPEN_KEY]
    if type(state) == "string" then return state end
    return nil, path .. " does not have it"
end

-- The record that a run replaces at each cycle, or nil and why there is none.
function state_files.last_cycle(vxa, directory)
    local path = directory .. "/running.json"
    local text, message, code = vxa.read_tail(path, LONGEST_LINE)
    if not text then return nil, code == ENOENT and "no vxa run is running with it" or message end
    local line = text:gsub("%s+$", "")
    if parse(vxa, line) then return quote(line) end
    return nil, path .. " is not a JSON object in one line"
end

local kinds = { started = "policy", policy = "policy", entered = "transition", left = "transition",
                ended = "ended", lost = "ended" }

-- Returns what the records of the transitions say: `transition`, the last one as it was written;
-- `policy`, the record of the policy of the last run; and `run_ended`, when that run ended, nil if
-- it did not record that.
function state_files.summary(vxa, entries)
    local last = {}
    for line in complete_lines(entries[1].text or "") do
        local name = line:match('^{"record":"(%l+)"')
        local kind = kinds[name]
        if kind then last[kind] = line end
        if name == "started" then last.ended = nil end
    end
    local ended = last.ended and parse(vxa, last.ended)
    return {
        transition = last.transition and parse(vxa, last.transition) and quote(last.transition),
        policy = last.policy and parse(vxa, last.policy),
        run_ended = ended and type(ended.time) == "string" and ended.time or nil,
    }
end

return state_files
