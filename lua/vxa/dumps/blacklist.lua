-- Parses vxa_blacklist.txt.

local lines = require "vxa.dumps.lines"

local ADDRESS = "^[%x:][%x:.]*$"

-- Reads "" or " expires SECONDS of SECONDS"; returns nil for anything else.
local function expiry(rest)
    if rest == "" then return "permanent" end
    local expires, timeout = rest:match("^ expires (%d+)s of (%d+)s$")
    if not expires or #expires > 10 or #timeout > 10 then return nil end
    return "expires after " .. timeout .. " s", tonumber(expires)
end

local function read(line)
    local range, set, rest = line:match("^(%S+) set (%d+)(.*)$")
    local first, last = (range or ""):match("^([^-]+)%-?([^-]*)$")
    if not first or not first:find(ADDRESS) or last ~= "" and not last:find(ADDRESS) then
        return nil
    end
    local value, expires_s = expiry(rest)
    if not value then return nil end
    return { range = range, set = set, value = value, expires_s = expires_s }
end

-- The indexes of sets change when one is added; their names do not.
local function set_names(headings)
    local names = {}
    for _, heading in ipairs(headings) do
        local set, name = heading:match("^set (%d+): (.+)$")
        if set then names[set] = name end
    end
    return names
end

-- Items are {key: address or range and the name of its set, value: how long it is listed,
-- expires_s: seconds left, nil if permanent}.
return function(text, check)
    local parsed, message = lines.parse(text, read, check)
    if not parsed then return nil, message end
    local names = set_names(parsed.headings)
    for _, item in ipairs(parsed.items) do
        item.key = item.range .. " in " .. (names[item.set] or "set " .. item.set)
    end
    return parsed
end
