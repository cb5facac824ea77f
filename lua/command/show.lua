-- vxa show: what a diagnostic package holds.

local console = require "command.console"
local fail = require "command.fail"
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

local function hexadecimal(bytes)
    local lines = {}
    for at = 1, #bytes, 16 do
        local row = bytes:sub(at, at + 15)
        lines[#lines + 1] = ("%08x  %-48s %s"):format(at - 1,
            row:gsub(".", function(byte) return ("%02x "):format(byte:byte()) end),
            (row:gsub("[^\32-\126]", ".")))
    end
    return table.concat(lines, "\n")
end

-- In the form that suits the entry; nothing in it can harm a terminal.
local function readable(vxa, name, bytes)
    if name:find("%.tpf$") and #bytes > 0 then
        local profile = rule_profile.render(vxa, bytes)
        if profile then return profile end
    end
    if bytes:find("[%z\1-\8\14-\26\28-\31\127]") then return hexadecimal(bytes) end
    return printable(bytes, true)
end

local function show(vxa, options)
    local bytes, message = vxa.zip_read(options.archive, options.entry)
    if not bytes then fail(1, "%s", message) end
    if options.raw then return console.write(bytes) end
    if #bytes == 0 then return console.line("(%s is empty)", printable(options.entry)) end
    local shown = readable(vxa, options.entry, bytes)
    console.write(shown:find("\n$") and shown or shown .. "\n")
end

return function(options)
    local vxa = session.host()
    if options.raw and vxa.isatty(1) then
        fail(2, "--raw writes bytes that a terminal must not get; send them to a file or command")
    end
    if options.entry then show(vxa, options) else list(vxa, options.archive) end
    return 0
end
