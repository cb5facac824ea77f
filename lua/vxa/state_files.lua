-- The files of a state directory, as a diagnostic package has them.

local json = require "dkjson"

local printable = require "vxa.output.printable"

local state_files = { FAIL_OPEN_KEY = "vxp.filter.FailOpenState" }

-- At most this much of the end of a file: packages are sent by mail.
local MOST_BYTES = 8 * 1024 * 1024
local LONGEST_LINE = 65536

local FILES = {
    { name = "transitions.jsonl", if_none = "no transition was recorded" },
    { name = "events.jsonl", if_none = "no event was recorded" },
}

local ENOENT = 2  -- errno value

-- Returns the end of a file from the start of a line, and why it is not all; neither if there is
-- no such file.
local function read_lines(vxa, path)
    local text, skipped, code = vxa.read_tail(path, MOST_BYTES)
    if not text then return nil, code ~= ENOENT and skipped or nil end
    if skipped == 0 then return text end
    local partial = text:match("^[^\n]*\n?")
    return text:sub(#partial + 1),
        ("the first %.0f bytes were left out"):format(skipped + #partial)
end

-- Returns {name, text, reason, is_expected} for each file: nil as text if it is missing, the reason
-- if it is missing, empty or incomplete, and whether that is as it should be.
function state_files.read(vxa, directory)
    local entries = {}
    for i, file in ipairs(FILES) do
        local text, reason = read_lines(vxa, directory .. "/" .. file.name)
        local is_none = not reason and (text or "") == ""
        entries[i] = { name = "state/" .. file.name, text = text, is_expected = is_none,
                       reason = is_none and file.if_none or reason }
    end
    return entries
end

-- Returns the state of fail-open in a directory that another process has open, or nil and why it is
-- not known.
function state_files.fail_open(vxa, directory)
    local path = directory .. "/document.json"
    local text, skipped = vxa.read_tail(path, MOST_BYTES)
    if not text then return nil, skipped end
    if skipped > 0 then return nil, path .. ": too large" end
    local _, document = vxa.parse_json(text, 1, json.null, {})
    local state = type(document) == "table" and document[state_files.FAIL_OPEN_KEY]
    if type(state) == "string" then return state end
    return nil, path .. " does not have it"
end

-- ---- transitions and cycles -----------------------------------------------------------------

local OBJECT = {}  -- the metatable of JSON objects

-- Returns a value for json.encode that is written as this line, or nil if it is not a JSON object.
local function as_object(vxa, line)
    if #line > LONGEST_LINE or printable(line) ~= line then return nil end
    local stop, value = vxa.parse_json(line, 1, json.null, OBJECT)
    if not stop or stop <= #line or getmetatable(value) ~= OBJECT then return nil end
    return setmetatable({}, { __tojson = function() return line end })
end

-- Returns the last complete line of a text.
local function last_line(text)
    return text:sub(-LONGEST_LINE):match("([^\n]+)\n[^\n]*$")
end

-- Returns the last of the transitions that `read` returned, or nil and why there is none.
function state_files.last_transition(vxa, entries)
    local transitions = entries[1]
    local line = transitions.text and last_line(transitions.text)
    local record = line and as_object(vxa, line)
    if record then return record end
    return nil, transitions.reason or transitions.name .. " does not end with a JSON object"
end

local function strip(text)
    return (text:gsub("%s+$", ""))
end

-- Returns the record of the last cycle of `vxa run --state`, or nil and why there is none.
function state_files.last_cycle(vxa, directory)
    local path = directory .. "/last_cycle.json"
    local text, message, code = vxa.read_tail(path, LONGEST_LINE + 1)
    if not text then return nil, code == ENOENT and "no cycle was recorded" or message end
    local record = as_object(vxa, strip(text))
    if not record then return nil, path .. " is not a JSON object in one line" end
    return record
end

return state_files
