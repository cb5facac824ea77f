-- A JSON parser for files written by hand. It accepts exactly RFC 8259, reports where and why a
-- text is not JSON, and keeps the order of members and repeated members, which a plain Lua table
-- loses.
--
--     local value, message, line, column, at = strict_json.parse(text [, tolerate])
--
-- A value is a table with its position in the text, `at`, and a `type`: "number" and "string" also
-- have a `value`, "object" has `members`, an array of {key=, value=, at=} in their order; "array",
-- "true", "false" and "null" have nothing else (the elements of an array are checked and dropped).
-- On an error, `value` is nil; line and column start at 1, columns count characters. A byte order
-- mark is skipped.
--
-- cJSON, the module's parser, accepts more than RFC 8259. With `tolerate`, a function, so does
-- this: it calls tolerate(at, message) at each deviation that cJSON accepts, and goes on with what
-- cJSON makes of it.

local strict_json = {}

local DEEPEST_NESTING = 1000  -- CJSON_NESTING_LIMIT of cJSON
local LONGEST_NUMBER = 63  -- characters; older versions of cJSON take no more

local char, floor = string.char, math.floor

local function fail(at, format, ...)
    error({ at = at, message = format:format(...) }, 0)
end

-- Reports what RFC 8259 forbids and cJSON accepts.
local function deviate(reader, at, format, ...)
    if not reader.tolerate then fail(at, format, ...) end
    reader.tolerate(at, format:format(...))
end

-- Returns what is at this place, for a message.
local function describe(text, at)
    local word = text:match("^[%w_.+-]+", at) or text:match("^[^%c\128-\255]", at)
        or text:match("^[\194-\244][\128-\191]+", at)
    return word and "'" .. word:sub(1, 20) .. "'" or ("byte 0x%02x"):format(text:byte(at))
end

-- What other notations have in place of JSON: pattern, message.
local FOREIGN = {
    { "^\255\254", "JSON is UTF-8, not UTF-16" },
    { "^\254\255", "JSON is UTF-8, not UTF-16" },
    { "^//", "JSON has no comments" },
    { "^/%*", "JSON has no comments" },
    { "^#", "JSON has no comments" },
    { "^'", "JSON has double quotes, not single ones" },
    { "^\226\128[\152-\159]", "JSON has straight double quotes, not typographic ones" },
    { "^%+[%d.]", "a number in JSON has no '+'" },
    { "^%-?%.%d", "a number in JSON has a digit before the point" },
    { "^[+-]?[Nn][Aa][Nn]%f[%W]", "JSON has no NaN" },
    { "^[+-]?[Ii][Nn][Ff]%a*%f[%W]", "JSON has no infinity" },
    { "^T[Rr][Uu][Ee]%f[%W]", "JSON writes true in lower case" },
    { "^F[Aa][Ll][Ss][Ee]%f[%W]", "JSON writes false in lower case" },
    { "^N[UuOo][LlNn][LlEe]%f[%W]", "JSON writes null in lower case" },
}

local function unexpected(text, at, hint)
    for _, row in ipairs(FOREIGN) do
        if text:find(row[1], at) then fail(at, "%s", row[2]) end
    end
    fail(at, "unexpected %s%s", at > #text and "end" or describe(text, at), hint)
end

local function skip_blanks(reader, at)
    local stop = reader.text:match("^[ \t\r\n]*()", at)
    if not reader.tolerate then return stop end
    local last = reader.text:match("^[\1-\32]*()", stop)
    if last > stop then deviate(reader, stop, "control character between values") end
    return last
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
-- cJSON takes digits that are not hexadecimal for \u0000.
local function unicode_escape(reader, at, closing)
    local text = reader.text
    if text:byte(at + 1) ~= 117 or closing - at < 6 then fail(at, "unknown escape") end
    local digits = text:match("^%x%x%x%x", at + 2)
    if not digits then deviate(reader, at, "unknown escape") end
    local code = tonumber(digits or "0", 16)
    if digits and code == 0 then deviate(reader, at, "NUL characters are not accepted") end
    if code < 0xD800 or code > 0xDFFF then return utf8(code), at + 6 end
    local low = tonumber(text:match("^\\u([Dd][C-Fc-f]%x%x)", at + 6) or "0", 16)
    if code >= 0xDC00 or low == 0 then fail(at, "half of a surrogate pair") end
    return utf8(0x10000 + (code - 0xD800) * 1024 + low - 0xDC00), at + 12
end

local escapes = { ['"'] = '"', ["\\"] = "\\", ["/"] = "/", b = "\b", f = "\f", n = "\n",
                  r = "\r", t = "\t" }

local NO_END = "the string that begins here has no end"

local function closing_quote(text, at)
    local from = at + 1
    repeat
        local stop = text:find('["\\]', from) or fail(at, NO_END)
        from = stop + 2
    until text:sub(stop, stop) == '"'
    return from - 2
end

-- C strings end at a NUL, those of cJSON's values included.
local function string_at(reader, at)
    local text, parts, from = reader.text, {}, at + 1
    local closing = closing_quote(text, at)
    while from < closing do
        local stop = text:find('["\\%z\1-\31]', from)
        local mark = text:sub(stop, stop)
        parts[#parts + 1], from = text:sub(from, stop - 1), stop + 1
        if mark ~= "\\" and stop < closing then
            if mark == "\n" and not reader.tolerate then fail(at, NO_END) end
            deviate(reader, stop, mark == "\n" and "line break in a string"
                or "control character in a string")
            parts[#parts + 1] = mark
        elseif stop < closing then
            local simple = escapes[text:sub(from, from)]
            if simple then
                parts[#parts + 1], from = simple, from + 1
            else
                parts[#parts + 1], from = unicode_escape(reader, stop, closing)
            end
        end
    end
    return table.concat(parts):match("^[^\0]*"), closing + 1
end

-- ---- values -----------------------------------------------------------------------------

local value_at

-- Parses elements and commas up to the closing bracket; returns the position after it.
local function list_at(reader, at, closing, element_at)
    local text = reader.text
    at = skip_blanks(reader, at + 1)
    if text:sub(at, at) == closing then return at + 1 end
    while true do
        at = skip_blanks(reader, element_at(at))
        local mark = text:sub(at, at)
        if mark == closing then return at + 1 end
        if mark ~= "," then unexpected(text, at, (": ',' or '%s' expected"):format(closing)) end
        local comma = at
        at = skip_blanks(reader, at + 1)
        if text:find("^[%]}]", at) then
            fail(comma, "a comma before '%s'", text:sub(at, at))
        end
    end
end

local function object_at(reader, at, depth)
    local text, object = reader.text, { type = "object", members = {} }
    at = list_at(reader, at, "}", function(from)
        if text:sub(from, from) ~= '"' then
            unexpected(text, from, ": a name in double quotes expected")
        end
        local key, colon = string_at(reader, from)
        colon = skip_blanks(reader, colon)
        if text:sub(colon, colon) ~= ":" then unexpected(text, colon, ": ':' expected") end
        local value, stop = value_at(reader, skip_blanks(reader, colon + 1), depth)
        table.insert(object.members, { key = key, value = value, at = from })
        return stop
    end)
    return object, at
end

local function array_at(reader, at, depth)
    return { type = "array" }, list_at(reader, at, "]", function(from)
        return (select(2, value_at(reader, from, depth)))
    end)
end

-- Returns the end of the number at this place, as strtod(3) reads it and as RFC 8259 does; nil if
-- there is none.
local function ends_of_number(text, at)
    local function exponent(stop)
        return stop and (text:match("^[eE][+-]?%d+()", stop) or stop)
    end
    local lax = text:match("^%-?%d+%.?%d*()", at) or text:match("^%-%.%d+()", at)
    local strict = text:match("^%-?0()%f[%D]", at) or text:match("^%-?[1-9]%d*()", at)
    return exponent(lax), exponent(strict and text:match("^%.%d+()", strict) or strict)
end

local function number_at(reader, at)
    local text = reader.text
    local stop, strict_stop = ends_of_number(text, at)
    if not stop then unexpected(text, at, ": a value expected") end
    if stop - at > LONGEST_NUMBER then
        deviate(reader, at, "a number of more than %d characters", LONGEST_NUMBER)
    end
    if text:find("^0[xX]%x", at) then fail(at, "JSON has no hexadecimal numbers") end
    if text:find("^[%w_.+-]", stop) then fail(at, "%s is not a number", describe(text, at)) end
    if stop ~= strict_stop then
        deviate(reader, at, "%s is not a number in JSON", describe(text, at))
    end
    return { type = "number", value = tonumber(text:sub(at, stop - 1)) }, stop
end

local literals = { ["true"] = true, ["false"] = true, null = true }

local function untyped_value_at(reader, at, depth)
    local text = reader.text
    local mark = text:sub(at, at)
    if mark == "{" or mark == "[" then
        if depth == DEEPEST_NESTING then fail(at, "nested too deeply") end
        return (mark == "{" and object_at or array_at)(reader, at, depth + 1)
    elseif mark == '"' then
        local value, stop = string_at(reader, at)
        return { type = "string", value = value }, stop
    end
    local word, stop = text:match("^([%a_][%w_]*)()", at)
    if literals[word] then return { type = word }, stop end
    return number_at(reader, at)
end

function value_at(reader, at, depth)
    local value, stop = untyped_value_at(reader, at, depth)
    value.at = at
    return value, stop
end

-- cJSON gets a C string, which ends at a NUL, and does not look at what follows the value.
local function document(reader)
    local nul = reader.tolerate and reader.text:find("\0", 1, true)
    if nul then
        deviate(reader, nul, "NUL byte: the text ends here")
        reader.text = reader.text:sub(1, nul - 1)
    end
    local text = reader.text
    local at = skip_blanks(reader, text:match("^\239\187\191()") or 1)
    local value, stop = value_at(reader, at, 0)
    stop = skip_blanks(reader, stop)
    if stop > #text then return value end
    if not reader.tolerate then unexpected(text, stop, " after the end") end
    deviate(reader, stop, "%s after the end", describe(text, stop))
    return value
end

-- Returns line and column of an offset in a text.
function strict_json.place(text, at)
    local before = text:sub(1, at - 1)
    local _, lines = before:gsub("\n", "")
    local _, characters = before:match("[^\n]*$"):gsub("[^\128-\191]", "")
    return lines + 1, characters + 1
end

-- Returns a function that does the same for one offset after the other, faster than place() if
-- they ascend.
function strict_json.places(text)
    local line, line_at, from = 1, 1, 1
    return function(at)
        if at < from then line, line_at, from = 1, 1, 1 end
        while true do
            local newline = text:find("\n", from, true)
            if not newline or newline >= at then break end
            line, line_at, from = line + 1, newline + 1, newline + 1
        end
        local _, characters = text:sub(line_at, at - 1):gsub("[^\128-\191]", "")
        return line, characters + 1
    end
end

function strict_json.parse(text, tolerate)
    local ok, result = pcall(document, { text = text, tolerate = tolerate })
    if ok then return result end
    if type(result) ~= "table" then error(result, 0) end
    local line, column = strict_json.place(text, result.at)
    return nil, result.message, line, column, result.at
end

return strict_json
