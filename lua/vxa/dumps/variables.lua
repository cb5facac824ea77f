-- Parses vxa_variables.txt.

local lines = require "vxa.dumps.lines"

local ABSENT = "absent"

-- About the process that made the package: another one each time, and what its options set.
local own = { ["vxi.process_id"] = true, ["vxi.rule_profiling"] = true, ["vxi.trace_level"] = true }

local function read(line)
    local number, name, value = line:match("^(%d+) (%S+) (.+)$")
    if not number or not lines.is_number(number) then return nil end
    local digits = value:match("^(%d+)$") or value:match("^(%d+) or more$")
    if value ~= ABSENT and not (digits and lines.is_number(digits)) then return nil end
    if own[name] or value == ABSENT then return false end
    return { key = name, value = value }
end

-- Items are {key: the name, value: as printed}; absent variables are not listed.
return function(text, check)
    return lines.parse(text, read, check)
end
