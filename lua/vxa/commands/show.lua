-- vxa show: what a diagnostic package is and whether it is whole, or one of its entries.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local manifest = require "vxa.packages.manifest"
local option = require "vxa.options"
local package_entries = require "vxa.packages.entries"
local package_text = require "vxa.reports.package_text"
local printable = require "vxa.output.printable"
local rule_profile = require "vxa.rules.profile"
local session = require "vxa.session"

local function define(command)
    command:description("Show what a diagnostic package contains and lacks and check its sums, or "
        .. "print one of its entries.")
    command:argument("OUT.zip", "The package."):target("archive")
        :convert(option.file_name("OUT.zip"))
    command:argument("ENTRY", "The entry to print."):target("entry"):args("?")
    command:flag("--raw", "Write the entry's bytes unchanged.")
    command:flag("--names", "Print only the names of the entries, one per line.")
    option.add_json(command)
end

-- ---- list -------------------------------------------------------------------------------

local function content_of(name)
    for _, entry in ipairs(package_entries) do
        if entry.name == name then return entry.content end
    end
    return ""
end

local function show_listing(entries, path)
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

local function list_entries(vxa, path)
    local entries, message = vxa.zip_entries(path)
    return entries or exit.fail(2, "%s", message)
end

local function show_names(entries)
    local lines = {}
    for i, entry in ipairs(entries) do lines[i] = printable(entry.name) .. "\n" end
    console.write(table.concat(lines))
end

-- Returns the package's {entries, manifest, raw, reason, has_manifest, verified}.
local function inspect(vxa, path)
    local entries = list_entries(vxa, path)
    local found = { entries = entries }
    found.manifest, found.raw, found.has_manifest = manifest.read(vxa, path, entries)
    if found.manifest then
        found.verified = manifest.verify(vxa, path, found.manifest, #entries)
    else
        found.reason = found.raw
    end
    return found
end

local function show_text(found, path)
    if found.manifest then
        package_text.manifest(found.manifest, found.verified)
    else
        package_text.without_manifest(found.reason, found.has_manifest)
    end
    console.line("")
    show_listing(found.entries, path)
end

local function show_json(found, path)
    local array, null = json_records.array, json_records.null
    local entries = array {}
    for i, entry in ipairs(found.entries) do
        entries[i] = { name = printable(entry.name), bytes = entry.bytes,
                       packed_bytes = entry.packed_bytes, text = entry.text }
    end
    local verified = found.verified
    if verified then
        for _, row in ipairs(array(verified.problems)) do
            row.name, row.problem = printable(row.name), printable(row.problem)
        end
    end
    json_records.print { record = "package", path = printable(path), entries = entries,
                         manifest = found.manifest and manifest.in_one_line(found.raw) or null,
                         manifest_error = found.reason and printable(found.reason) or null,
                         verified = verified or null }
end

-- Returns the exit status: 1 if the package is not what its manifest describes.
local function show_package(vxa, options)
    local found = inspect(vxa, options.archive);
    (options.json and show_json or show_text)(found, options.archive)
    if found.verified then return #found.verified.problems > 0 and 1 or 0 end
    return found.has_manifest and 1 or 0
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

local function require_entry(vxa, options)
    for _, entry in ipairs(list_entries(vxa, options.archive)) do
        if entry.name == options.entry then return end
    end
    exit.fail(2, "%s: has no entry %s", options.archive, options.entry)
end

local function show(vxa, options)
    require_entry(vxa, options)
    local bytes, message = vxa.zip_read(options.archive, options.entry)
    if not bytes then exit.fail(1, "%s", message) end
    if options.raw then return console.write(bytes) end
    if #bytes == 0 then return console.line("(%s is empty)", printable(options.entry)) end
    write_readable(vxa, options.entry, bytes)
end

local function run(options)
    if options.raw and not options.entry then exit.fail(2, "--raw needs an entry") end
    if options.json and options.entry then exit.fail(2, "--json does not print entries") end
    if options.names and (options.json or options.entry) then
        exit.fail(2, "--names takes neither an entry nor --json")
    end
    local vxa = session.load_host()
    if options.raw and vxa.isatty(1) then
        exit.fail(2, "--raw does not write to a terminal; redirect it to a file or a command")
    end
    if options.names then
        show_names(list_entries(vxa, options.archive))
        return 0
    end
    if not options.entry then return show_package(vxa, options) end
    show(vxa, options)
    return 0
end

return { define = define, run = run }
