-- JSON with numbers that read back as the same values; dkjson writes at most 14 digits.

local json = require "dkjson"

local format = require "vxa.output.format"

local function exact_number(number)
    if number - number ~= 0 or tonumber(tostring(number)) == number then return number end
    return setmetatable({}, { __tojson = function() return format.exact(number) end })
end

local function copy(original)
    local made = setmetatable({}, getmetatable(original))
    for key, member in pairs(original) do made[key] = member end
    return made
end

-- Returns the value itself if dkjson writes all of its numbers exactly.
local function with_exact_numbers(value)
    if type(value) == "number" then return exact_number(value) end
    if type(value) ~= "table" or (getmetatable(value) or {}).__tojson then return value end
    local changed
    for key, member in pairs(value) do
        local replacement = with_exact_numbers(member)
        if not rawequal(replacement, member) then
            changed = changed or copy(value)
            changed[key] = replacement
        end
    end
    return changed or value
end

local json_text = {}

-- As json.encode of dkjson.
function json_text.encode(value, options)
    return json.encode(with_exact_numbers(value), options)
end

return json_text
