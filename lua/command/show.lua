-- vxa show: what a diagnostic package holds.

local console = require "command.console"
local fail = require "command.fail"
local interruption = require "command.interruption"
local printable = require "command.printable"
local rule_profile = require "command.rule_profile"
local session = require "command.session"
local text = require "command.text"

local contents = {
    ["vxa_stats.txt"] = "driver statistics",
    ["vxa_variables.txt"] = "driver variables",
    ["vxa_conn_track.txt"] = "connections",
    ["vxa_blacklist.txt"] = "blacklisted addresses",
    ["vxa_conn_states.txt"] = "sockets by state",
    ["vxa.tpf"] = "rule profile",
}

local function list(vxa, path)
    local entries, message = vxa.zip_entries(path)
    if not entries then fail(1, "%s", message) end
    local rows, bytes = { { "entry", "bytes", "packed", "kind", "content" } }, 0
    for i, entry in ipairs(entries) do
        bytes = bytes + entry.bytes
        rows[i + 1] = { printable(entry.name), ("%.0f"):format(entry.bytes),
                        ("%.0f"):format(entry.packed_bytes), entry.text and "text" or "data",
                        contents[entry.name] or "" }
    end
    for _, line in ipairs(text.columns(rows, { [2] = true, [3] = true })) do
        console.line("%s", line)
    end
    console.line("%s: %s, %s", printable(path), text.count(#entries, "entry", "entries"),
        text.size(bytes))
end

-- An entry may be large, and what is shown of it several times that: it is made and written
-- in pieces.
local PIECE_BYTES = 65536

-- Ends a piece before a UTF-8 character that would go on in the next.
local function piece_end(bytes, at)
    local last = math.min(at + PIECE_BYTES - 1, #bytes)
    local start = last < #bytes and bytes:sub(last - 2, last):find("[\192-\255][\128-\191]*$")
    return start and last - 3 + start - 1 or last
end

local function write_hexadecimal(vxa, bytes)
    for at = 1, #bytes, PIECE_BYTES do
        interruption.check(vxa)
        console.write(vxa.hexdump(bytes:sub(at, at + PIECE_BYTES - 1), at - 1))
    end
end

local function write_text(vxa, bytes)
    local at = 1
    while at <= #bytes do
        local last = piece_end(bytes, at)
        interruption.check(vxa)
        console.write(vxa.printable(bytes:sub(at, last), true))
        at = last + 1
    end
    if bytes:sub(-1) ~= "\n" then console.write("\n") end
end

-- Whether there are bytes that no text has.
local function is_data(vxa, bytes)
    for at = 1, #bytes, PIECE_BYTES do
        interruption.check(vxa)
        local piece = bytes:sub(at, at + PIECE_BYTES - 1)
        if piece:find("[%z\1-\8\14-\26\28-\31\127]") then return true end
    end
    return false
end

-- Most of what a listing is made into is shown in the end: with Lua's usual 200 the collector
-- takes a fifth of the time to find that out. Pieces are garbage soon, and next to a large
-- entry must not add up to its size.
local LISTING_PAUSE, PIECES_PAUSE = 300, 110

-- In the form that suits the entry; nothing in it can harm a terminal.
local function write_readable(vxa, name, bytes)
    collectgarbage("setpause", LISTING_PAUSE)
    local profile = name:find("%.tpf$") and rule_profile.render(vxa, bytes)
    collectgarbage("setpause", PIECES_PAUSE)
    if profile then return console.line("%s", profile) end
    return (is_data(vxa, bytes) and write_hexadecimal or write_text)(vxa, bytes)
end

local function show(vxa, options)
    local bytes, message = vxa.zip_read(options.archive, options.entry)
    if not bytes then fail(1, "%s", message) end
    if options.raw then return console.write(bytes) end
    if #bytes == 0 then return console.line("(%s is empty)", printable(options.entry)) end
    write_readable(vxa, options.entry, bytes)
end

return function(options)
    local vxa = session.host()
    if options.raw and vxa.isatty(1) then
        fail(2, "--raw writes bytes that a terminal must not get; send them to a file or command")
    end
    if options.entry then show(vxa, options) else list(vxa, options.archive) end
    return 0
end
