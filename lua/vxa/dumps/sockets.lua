-- Parses vxa_conn_states.txt.

local lines = require "vxa.dumps.lines"

local function read(line)
    local name, digits = line:match("^(tcp[46] %S+) (%d+)$")
    if not name then name, digits = line:match("^(udp[46]) (%d+)$") end
    if not name or not lines.is_number(digits) then return nil end
    return { key = name, value = digits }
end

-- Items are {key: family and state, value: a decimal number as a string}.
return function(text, check)
    return lines.parse(text, read, check)
end
