-- vxa redact: copies a diagnostic package with addresses and names replaced by pseudonyms.

local json = require "dkjson"

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local manifest = require "vxa.manifest"
local new_file = require "vxa.output.new_file"
local option = require "vxa.options"
local printable = require "vxa.output.printable"
local progress = require "vxa.output.progress"
local session = require "vxa.session"

local function define(command)
    command:description("Copy a diagnostic package, with addresses and names replaced by "
        .. "pseudonyms, so that it can be given to others. What stays: numbers, ports, times, "
        .. "and the relations between addresses; docs/package.md has the details.")
    command:argument("IN.zip", "The package."):target("source")
        :convert(option.file_name("IN.zip"))
    command:argument("OUT.zip", "The copy to write."):target("archive")
        :convert(option.file_name("OUT.zip"))
    command:option("--map", "Keep the pairs of original and pseudonym in FILE, readable by its "
        .. "owner only. If FILE exists, the same pseudonyms are used again, and new ones are "
        .. "added."):argname("FILE"):convert(option.file_name("--map"))
    command:flag("--force", "Replace an existing OUT.zip.")
end

-- How the entries that can be masked are written.
local FORMATS = {
    ["vxa_stats.txt"] = "statistics", ["vxa_variables.txt"] = "text",
    ["vxa_conn_track.txt"] = "text", ["vxa_blacklist.txt"] = "blacklist", ["vxa.tpf"] = "rules",
    ["vxa_conn_states.txt"] = "text", ["state/transitions.jsonl"] = "json",
    ["state/events.jsonl"] = "json", ["diag.log"] = "text",
}

-- ---- entries ------------------------------------------------------------------------------

-- Returns the entries to copy, in their order, and an array of {name, reason} of the others.
local function sort_entries(entries)
    local copied, left_out, seen = {}, {}, {}
    for _, entry in ipairs(entries) do
        local reason = entry.name ~= manifest.NAME
            and (not FORMATS[entry.name] and "what it contains is not known"
                or seen[entry.name] and "the package has it twice")
        seen[entry.name] = true
        if reason then
            left_out[#left_out + 1] = { name = entry.name, reason = reason }
        elseif entry.name ~= manifest.NAME then
            copied[#copied + 1] = entry
        end
    end
    return copied, left_out
end

-- Returns true, or nil and a message.
local function copy_entries(vxa, redaction, source, copied, archive)
    local line, done, total = progress.new(vxa, "masking bytes"), 0, 0
    for _, entry in ipairs(copied) do total = total + entry.bytes end
    for _, entry in ipairs(copied) do
        line:show(done, total)
        local added, message = redaction:copy(source, entry.name, FORMATS[entry.name], archive)
        if not added then
            line:finish()
            return nil, message
        end
        done = done + entry.bytes
    end
    line:finish()
    return true
end

-- ---- the manifest -------------------------------------------------------------------------

local function array(list)
    return setmetatable(list, { __jsontype = "array" })
end

-- Returns the row of the copy's manifest for an entry: the old one with new sums.
local function entry_row(row, written)
    if not written then
        row.state, row.bytes, row.sha256, row.milliseconds = "missing", json.null, json.null,
            json.null
        return row
    end
    row.bytes, row.sha256 = written.bytes, written.sha256
    return row
end

local function rows_by_name(rows)
    local found = {}
    for _, row in ipairs(type(rows) == "table" and rows or {}) do
        if type(row) == "table" and type(row.name) == "string" then
            found[row.name] = found[row.name] or row
        end
    end
    return found
end

-- Entries that the package never had keep their rows. Names that are not known are masked.
local function entry_rows(vxa_mask, old, archive_entries, left_out)
    local rows, names = array {}, {}
    local known = rows_by_name(old)
    for _, written in ipairs(archive_entries) do
        rows[#rows + 1] = entry_row(known[written.name] or { name = written.name, state = "ok",
            reason = json.null, milliseconds = json.null }, written)
        names[written.name] = true
    end
    for _, row in ipairs(type(old) == "table" and old or {}) do
        if FORMATS[row.name] and not names[row.name] and row.bytes == json.null then
            rows[#rows + 1], names[row.name] = row, true
        end
    end
    for _, entry in ipairs(left_out) do
        local row = entry_row { name = vxa_mask(entry.name) }
        row.reason = "left out of the masked copy: " .. entry.reason
        if not names[row.name] then rows[#rows + 1], names[row.name] = row, true end
    end
    return rows
end

-- Returns the manifest of the copy as text: that of the package, masked, or one with the entries
-- only.
local function masked_manifest(vxa, redaction, raw, archive, left_out)
    local content = {}
    if raw then
        local text = redaction:mask(manifest.encode(raw), "json")
        content = select(2, vxa.parse_json(text, 1, json.null, { __jsontype = "object" }))
            or error("the masked manifest is not JSON")
    end
    local function mask(name) return redaction:mask(name, "text") end
    content.manifest = manifest.FORMAT
    content.redacted = vxa.version
    content.entries = entry_rows(mask, content.entries, archive:entries(), left_out)
    return manifest.encode(content)
end

-- ---- the command --------------------------------------------------------------------------

-- Returns true, or nil and a message.
local function fill(vxa, redaction, options, found, archive)
    local done, message = copy_entries(vxa, redaction, options.source, found.copied, archive)
    if not done then return nil, message end
    return archive:add(manifest.NAME,
        masked_manifest(vxa, redaction, found.raw, archive, found.left_out))
end

-- Returns the entries of the copy, or nil and a message.
local function build(vxa, redaction, options, found, file)
    local archive, message = vxa.ZipOutputStream(file)
    if not archive then return nil, message end
    local filled, closed, saved
    filled, message = fill(vxa, redaction, options, found, archive)
    closed, message = archive:close(), message
    if not filled then return nil, message end
    if not closed then return nil, select(2, archive:close()) end
    saved, message = redaction:save()
    if not saved then return nil, message end
    return archive:entries()
end

-- Returns what is in the package: {copied, left_out, manifest, raw}.
local function inspect(vxa, path)
    local entries, message = vxa.zip_entries(path)
    if not entries then exit.fail(2, "%s", message) end
    local found = {}
    found.copied, found.left_out = sort_entries(entries)
    local has_manifest
    found.manifest, found.raw, has_manifest = manifest.read(vxa, path, entries)
    if not found.manifest then
        if has_manifest then table.insert(found.left_out, { name = manifest.NAME,
                                                            reason = found.raw }) end
        found.raw = nil
    end
    if #found.copied == 0 and not found.manifest then
        exit.fail(2, "%s has no entry of a diagnostic package", path)
    end
    return found
end

local function complain(left_out)
    for _, entry in ipairs(left_out) do
        console.complain(("%s is left out: %s"):format(entry.name, entry.reason))
    end
end

local function run(options)
    local vxa = session.load_host()
    if options.archive == options.source then
        exit.fail(2, "%s cannot be both the package and the copy", options.archive)
    end
    if options.map == options.archive or options.map == options.source then
        exit.fail(2, "--map %s is also the name of a package", options.map)
    end
    new_file.check(vxa, options.archive, options.force)
    local found = inspect(vxa, options.source)
    local redaction, message = vxa.redaction(options.map)
    if not redaction then exit.fail(2, "%s", message) end
    local host = found.manifest and found.manifest.host
    if host and host.name then redaction:reserve(host.name) end
    local entries = new_file.write(vxa, options.archive, options.force, "copy", function(file)
        return build(vxa, redaction, options, found, file)
    end)
    complain(found.left_out)
    console.line("%s: %s, masked", printable(options.archive),
        format.count(#entries, "entry", "entries"))
    if options.map then
        console.line("%s undoes the masking: do not give it away", printable(options.map))
    end
    return 0
end

return { define = define, run = run }
