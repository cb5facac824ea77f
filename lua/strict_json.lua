-- A JSON parser for files written by hand. It accepts exactly RFC 8259, reports where and why a
-- text is not JSON, and keeps the order of members and repeated members, which a plain Lua table
-- loses.
--
--     local value, message, line, column = strict_json.parse(text)
--
-- A value is a table with a `type`: "number" and "string" also have a `value`, "object" has
-- `members`, an array of {key=, value=} in their order; "array", "true", "false" and "null" have
-- nothing else (the elements of an array are checked and dropped). On an error, `value` is nil;
-- line and column start at 1, columns count characters. A byte order mark is skipped.

local strict_json = {}

local DEEPEST_NESTING = 1000  -- CJSON_NESTING_LIMIT of cJSON, the module's parser

local char, floor = string.char, math.floor

local function fail(at, format, ...)
    error({ at = at, message = format:format(...) }, 0)
end

-- Returns what is at this place, for a message.
local function describe(text, at)
    local word = text:match("^[%w_.+-]+", at) or text:match("^[^%c\128-\255]", at)
        or text:match("^[\194-\244][\128-\191]+", at)
    return word and "'" .. word:sub(1, 20) .. "'" or ("byte 0x%02x"):format(text:byte(at))
end

local function unexpected(text, at, hint)
    if text:find("^//", at) or text:find("^/%*", at) or text:find("^#", at) then
        fail(at, "JSON has no comments")
    end
    fail(at, "unexpected %s%s", at > #text and "end" or describe(text, at), hint)
end

local function skip_blanks(text, at)
    return text:match("^[ \t\r\n]*()", at)
end

-- ---- strings ----------------------------------------------------------------------------

local function utf8(code)
    local last = 0x80 + code % 64
    if code < 0x80 then return char(code) end
    if code < 0x800 then return char(0xC0 + floor(code / 64), last) end
    local third = 0x80 + floor(code / 64) % 64
    if code < 0x10000 then return char(0xE0 + floor(code / 4096), third, last) end
    return char(0xF0 + floor(code / 262144), 0x80 + floor(code / 4096) % 64, third, last)
end

-- Returns the character of a \uXXXX escape, or of the two of a surrogate pair, and where it ends.
local function unicode_escape(text, at)
    local code = tonumber(text:match("^\\u(%x%x%x%x)", at) or fail(at, "unknown escape"), 16)
    if code == 0 then fail(at, "NUL characters are not accepted") end
    if code < 0xD800 or code > 0xDFFF then return utf8(code), at + 6 end
    local low = tonumber(text:match("^\\u([Dd][C-Fc-f]%x%x)", at + 6) or "0", 16)
    if code >= 0xDC00 or low == 0 then fail(at, "half of a surrogate pair") end
    return utf8(0x10000 + (code - 0xD800) * 1024 + low - 0xDC00), at + 12
end

local escapes = { ['"'] = '"', ["\\"] = "\\", ["/"] = "/", b = "\b", f = "\f", n = "\n",
                  r = "\r", t = "\t" }

local function string_at(text, at)
    local parts, from = {}, at + 1
    while true do
        local stop = text:find('["\\%z\1-\31]', from)
        local mark = stop and text:sub(stop, stop)
        if not stop or mark == "\n" then fail(at, "the string that begins here has no end") end
        parts[#parts + 1] = text:sub(from, stop - 1)
        if mark == '"' then return table.concat(parts), stop + 1 end
        if mark ~= "\\" then fail(stop, "control character in a string") end
        local simple = escapes[text:sub(stop + 1, stop + 1)]
        if simple then
            parts[#parts + 1], from = simple, stop + 2
        else
            parts[#parts + 1], from = unicode_escape(text, stop)
        end
    end
end

-- ---- values -----------------------------------------------------------------------------

local value_at

-- Parses elements and commas up to the closing bracket; returns the position after it.
local function list_at(text, at, closing, element_at)
    at = skip_blanks(text, at + 1)
    if text:sub(at, at) == closing then return at + 1 end
    while true do
        at = skip_blanks(text, element_at(at))
        local mark = text:sub(at, at)
        if mark == closing then return at + 1 end
        if mark ~= "," then unexpected(text, at, (": ',' or '%s' expected"):format(closing)) end
        local comma = at
        at = skip_blanks(text, at + 1)
        if text:find("^[%]}]", at) then
            fail(comma, "a comma before '%s'", text:sub(at, at))
        end
    end
end

local function object_at(text, at, depth)
    local object = { type = "object", members = {} }
    at = list_at(text, at, "}", function(from)
        if text:sub(from, from) ~= '"' then
            unexpected(text, from, ": a name in double quotes expected")
        end
        local key, colon = string_at(text, from)
        colon = skip_blanks(text, colon)
        if text:sub(colon, colon) ~= ":" then unexpected(text, colon, ": ':' expected") end
        local value, stop = value_at(text, skip_blanks(text, colon + 1), depth)
        table.insert(object.members, { key = key, value = value })
        return stop
    end)
    return object, at
end

local function array_at(text, at, depth)
    return { type = "array" }, list_at(text, at, "]", function(from)
        return (select(2, value_at(text, from, depth)))
    end)
end

-- cJSON, the module's parser, accepts at most 63 characters in a number.
local function number_at(text, at)
    local whole, stop = text:match("^(%-?%d+)()", at)
    if not whole or whole:find("^%-?0%d") then unexpected(text, at, ": a value expected") end
    stop = text:match("^%.%d+()", stop) or stop
    stop = text:match("^[eE][+-]?%d+()", stop) or stop
    if text:find("^[%w_.+-]", stop) or stop - at > 63 then fail(at, "not a number") end
    return { type = "number", value = tonumber(text:sub(at, stop - 1)) }, stop
end

local literals = { ["true"] = true, ["false"] = true, null = true }

function value_at(text, at, depth)
    local mark = text:sub(at, at)
    if mark == "{" or mark == "[" then
        if depth == DEEPEST_NESTING then fail(at, "nested too deeply") end
        return (mark == "{" and object_at or array_at)(text, at, depth + 1)
    elseif mark == '"' then
        local value, stop = string_at(text, at)
        return { type = "string", value = value }, stop
    end
    local word, stop = text:match("^([%a_][%w_]*)()", at)
    if literals[word] then return { type = word }, stop end
    return number_at(text, at)
end

local function document(text)
    local at = skip_blanks(text, text:match("^\239\187\191()") or 1)
    local value, stop = value_at(text, at, 0)
    stop = skip_blanks(text, stop)
    if stop <= #text then unexpected(text, stop, " after the end") end
    return value
end

-- Returns line and column of an offset in a text.
function strict_json.place(text, at)
    local before = text:sub(1, at - 1)
    local _, lines = before:gsub("\n", "")
    local _, characters = before:match("[^\n]*$"):gsub("[^\128-\191]", "")
    return lines + 1, characters + 1
end

function strict_json.parse(text)
    local ok, result = pcall(document, text)
    if ok then return result end
    if type(result) ~= "table" then error(result, 0) end
    return nil, result.message, strict_json.place(text, result.at)
end

return strict_json
