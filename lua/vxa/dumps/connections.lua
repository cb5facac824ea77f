-- Parses vxa_conn_track.txt.

local lines = require "vxa.dumps.lines"

local ENDPOINT, ENDPOINT6 = "^[%d.]+:%d+$", "^%[[%x:.]+%]:%d+$"

local function is_endpoint(text)
    return text:find(ENDPOINT) ~= nil or text:find(ENDPOINT6) ~= nil
end

-- Whether it is "-" or "PACKETS/BYTES".
local function is_count(text)
    if text == "-" then return true end
    local packets, bytes = text:match("^(%d+)/(%d+)$")
    return packets ~= nil and lines.is_number(packets) and lines.is_number(bytes)
end

-- Zones are part of a connection's identity; the other words can change.
local function split_words(words)
    if not words:find(" zone", 1, true) then return "", words end
    local zone = words:match(" zone[%-%l]*=%d+") or ""
    return zone, (words:gsub(" zone[%-%l]*=%d+", "", 1))
end

local LINE = "^(%w+) (%S+) > (%S+) (%S+) (%S+) (%S+) (%S+)(.*)$"

local function read(line)
    local protocol, source, destination, state, timeout, forward, backward, words =
        line:match(LINE)
    if not protocol or not is_endpoint(source) or not is_endpoint(destination)
        or timeout ~= "-" and not timeout:find("^%d+s$")
        or not is_count(forward) or not is_count(backward) then
        return nil
    end
    if state ~= "-" and (#state > 16 or not state:find("^%a[%w_]*$")) then return nil end
    local zone, rest = split_words(words)
    return { key = protocol .. " " .. source .. " > " .. destination .. zone,
             value = state .. rest, service = protocol .. " " .. destination,
             forward = forward, backward = backward }
end

-- Items are {key: protocol, source, destination and zone, value: the state and the words after
-- the counts, service: protocol and destination, forward, backward: "PACKETS/BYTES" or "-"}.
-- There can be very many: a ninth field would double the memory for each.
return function(text, check)
    return lines.parse(text, read, check)
end
