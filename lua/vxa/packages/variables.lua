-- Parses vxa_variables.txt.

local lines = require "vxa.packages.lines"

local ABSENT = "absent"

-- The process that wrote the package, so always another one.
local PROCESS = "vxi.process_id"

local function read(line)
    local number, name, value = line:match("^(%d+) (%S+) (.+)$")
    if not number or not lines.is_number(number) then return nil end
    local digits = value:match("^(%d+)$") or value:match("^(%d+) or more$")
    if value ~= ABSENT and not (digits and lines.is_number(digits)) then return nil end
    if name == PROCESS or value == ABSENT then return false end
    return { key = name, value = value }
end

-- Items are {key: the name, value: as printed}; absent variables are not listed.
return function(text, check)
    return lines.parse(text, read, check)
end
