-- vxa show: lists a diagnostic package or prints one of its entries.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local option = require "vxa.options"
local package_entries = require "vxa.package_entries"
local printable = require "vxa.output.printable"
local rule_profile = require "vxa.rules.profile"
local session = require "vxa.session"

local function define(command)
    command:description("List a diagnostic package, or print one of its entries.")
    command:argument("OUT.zip", "The package."):target("archive")
        :convert(option.file_name("OUT.zip"))
    command:argument("ENTRY", "The entry to print."):target("entry"):args("?")
    command:flag("--raw", "Write the entry's bytes unchanged.")
end

-- ---- list -------------------------------------------------------------------------------

local function content_of(name)
    for _, entry in ipairs(package_entries) do
        if entry.name == name then return entry.content end
    end
    return ""
end

local function list(vxa, path)
    local entries, message = vxa.zip_entries(path)
    if not entries then exit.fail(1, "%s", message) end
    local rows, bytes = { { "entry", "bytes", "packed", "kind", "content" } }, 0
    for i, entry in ipairs(entries) do
        bytes = bytes + entry.bytes
        rows[i + 1] = { printable(entry.name), ("%.0f"):format(entry.bytes),
                        ("%.0f"):format(entry.packed_bytes), entry.text and "text" or "data",
                        content_of(entry.name) }
    end
    console.lines(format.columns(rows, { [2] = true, [3] = true }))
    console.line("%s: %s, %s", printable(path), format.count(#entries, "entry", "entries"),
        format.size(bytes))
end

-- ---- one entry --------------------------------------------------------------------------

-- Entries can be large, and their readable form several times that: render and write in pieces.
local PIECE_BYTES = 65536

-- Returns the end of a piece, so that it does not split a UTF-8 character.
local function piece_end(bytes, at)
    local last = math.min(at + PIECE_BYTES - 1, #bytes)
    local start = last < #bytes and bytes:sub(last - 2, last):find("[\192-\255][\128-\191]*$")
    return start and last - 3 + start - 1 or last
end

local function write_hexadecimal(vxa, bytes)
    for at = 1, #bytes, PIECE_BYTES do
        exit.if_interrupted(vxa)
        console.write(vxa.hexdump(bytes:sub(at, at + PIECE_BYTES - 1), at - 1))
    end
end

local function write_text(vxa, bytes)
    local at = 1
    while at <= #bytes do
        local last = piece_end(bytes, at)
        exit.if_interrupted(vxa)
        console.write(vxa.printable(bytes:sub(at, last), true))
        at = last + 1
    end
    if bytes:sub(-1) ~= "\n" then console.write("\n") end
end

-- Whether there are control characters that text does not have.
local function is_binary(vxa, bytes)
    for at = 1, #bytes, PIECE_BYTES do
        exit.if_interrupted(vxa)
        local piece = bytes:sub(at, at + PIECE_BYTES - 1)
        if piece:find("[%z\1-\8\14-\26\28-\31\127]") then return true end
    end
    return false
end

-- While a rule profile is rendered, almost nothing becomes garbage: with Lua's default pause of
-- 200 the collector takes a fifth of the time. Pieces become garbage at once and must not pile
-- up next to a large entry.
local PROFILE_PAUSE, PIECES_PAUSE = 300, 110

-- Writes an entry in a form that is readable and safe for a terminal.
local function write_readable(vxa, name, bytes)
    collectgarbage("setpause", PROFILE_PAUSE)
    local profile = name:find("%.tpf$") and rule_profile.render(vxa, bytes)
    collectgarbage("setpause", PIECES_PAUSE)
    if profile then return console.line("%s", profile) end
    return (is_binary(vxa, bytes) and write_hexadecimal or write_text)(vxa, bytes)
end

local function show(vxa, options)
    local bytes, message = vxa.zip_read(options.archive, options.entry)
    if not bytes then exit.fail(1, "%s", message) end
    if options.raw then return console.write(bytes) end
    if #bytes == 0 then return console.line("(%s is empty)", printable(options.entry)) end
    write_readable(vxa, options.entry, bytes)
end

local function run(options)
    if options.raw and not options.entry then exit.fail(2, "--raw needs an entry") end
    local vxa = session.load_host()
    if options.raw and vxa.isatty(1) then
        exit.fail(2, "--raw does not write to a terminal; redirect it to a file or a command")
    end
    if options.entry then show(vxa, options) else list(vxa, options.archive) end
    return 0
end

return { define = define, run = run }
