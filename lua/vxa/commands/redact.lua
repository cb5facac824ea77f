-- vxa redact: copies a diagnostic package with addresses and names replaced by pseudonyms.

local json = require "dkjson"

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local manifest = require "vxa.packages.manifest"
local new_file = require "vxa.output.new_file"
local option = require "vxa.options"
local printable = require "vxa.output.printable"
local session = require "vxa.session"

local function define(command)
    command:description("Copy a diagnostic package, with addresses and names replaced by "
        .. "pseudonyms, so that it can be given to others. What stays: numbers, ports, times, "
        .. "and the relations between addresses; vxa-redact(1) has the details.")
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

-- All entries are read twice: networks in any of them decide about the pseudonyms in all. Returns
-- true, or nil and a message.
local function copy_entries(redaction, source, copied, archive)
    for _, method in ipairs { "survey", "copy" } do
        for _, entry in ipairs(copied) do
            local done, message = redaction[method](redaction, source, entry.name,
                FORMATS[entry.name], archive)
            if not done then return nil, message end
        end
    end
    return true
end

-- ---- the manifest -------------------------------------------------------------------------

local array = json_records.array

local function missing_row(name, reason)
    return { name = name, state = "missing", reason = reason, bytes = json.null,
             sha256 = json.null, milliseconds = json.null }
end

-- The rows of the copy's manifest, each name once and without its own.
local Rows = {}
Rows.__index = Rows

function Rows:add(row)
    if self.seen[row.name] then return end
    self.seen[row.name], self.list[#self.list + 1] = true, row
end

-- An entry of the copy has the row of the original with the sum of the masked bytes.
function Rows:add_written(entry, row)
    row.name, row.bytes, row.sha256 = entry.name, entry.bytes, entry.sha256
    self:add(row)
end

local function by_name(list)
    local found = {}
    for _, row in ipairs(list) do found[row.name] = row end
    return found
end

-- A manifest with more rows could not be read.
local MOST_LEFT_OUT, LONGEST_NAME = 1000, 256

-- `old`: the rows of the original's manifest.
local function entry_rows(redaction, old, written, left_out)
    local rows = setmetatable({ list = array {}, seen = { [manifest.NAME] = true } }, Rows)
    local entries = by_name(written)
    for _, row in ipairs(old) do
        if entries[row.name] then
            rows:add_written(entries[row.name], row)
        elseif row.bytes == json.null or row.bytes == nil then
            rows:add(row)
        end
    end
    for _, entry in ipairs(written) do
        rows:add_written(entry, { state = "ok", reason = json.null, milliseconds = json.null })
    end
    for i = 1, math.min(#left_out, MOST_LEFT_OUT) do
        local name = redaction:mask(left_out[i].name:sub(1, LONGEST_NAME), "text")
        rows:add(missing_row(name, "left out of the masked copy: " .. left_out[i].reason))
    end
    for _, row in ipairs(old) do
        rows:add(missing_row(row.name, "the masked package did not have it"))
    end
    return rows.list
end

-- Adds how the original differs from its manifest to `rows`, those of an earlier masking.
local function add_problems(redaction, problems, rows)
    for i = 1, math.min(#problems, MOST_LEFT_OUT) do
        local name = problems[i].name:sub(1, LONGEST_NAME)
        rows[#rows + 1] = { name = FORMATS[name] and name or redaction:mask(name, "text"),
                            problem = redaction:mask(problems[i].problem, "text") }
    end
    return array(rows)
end

-- Returns the manifest of the copy as text: that of the package, masked, or one with the entries
-- only. Sums of the original would confirm guesses.
local function masked_manifest(vxa, redaction, found, written)
    local content = {}
    if found.raw then
        for _, row in ipairs(found.raw.entries or {}) do row.sha256 = json.null end
        local text = redaction:mask(manifest.encode(found.raw), "json")
        content = select(2, vxa.parse_json(text, 1, json.null, { __jsontype = "object" }))
            or error("the masked manifest is not JSON")
    end
    content.manifest, content.redacted = manifest.FORMAT, vxa.version
    local old = content.entries ~= json.null and content.entries or {}
    content.entries = entry_rows(redaction, old, written, found.left_out)
    local earlier = content.original_problems ~= json.null and content.original_problems or {}
    content.original_problems = add_problems(redaction, found.problems, earlier)
    return manifest.encode(content)
end

-- ---- the command --------------------------------------------------------------------------

-- Returns true, or nil and a message.
local function fill(vxa, redaction, source, found, archive)
    local copied, message = copy_entries(redaction, source, found.copied, archive)
    if not copied then return nil, message end
    local text = masked_manifest(vxa, redaction, found, archive:entries())
    return archive:add(manifest.NAME, text)
end

-- Returns the number of entries of the copy, or nil and a message.
local function build(vxa, redaction, source, found, file)
    local archive, message = vxa.ZipOutputStream(file)
    if not archive then return nil, message end
    local filled, why_not = fill(vxa, redaction, source, found, archive)
    local closed
    closed, message = archive:close()
    if not filled then return nil, why_not end
    if not closed then return nil, message end
    local saved
    saved, message = redaction:save()
    return saved and #archive:entries(), message
end

-- Returns what is in the package, {copied, left_out, manifest, raw}, and how it differs from its
-- manifest: `problems`, as manifest.verify returns them.
local function inspect(vxa, path)
    local entries, message = vxa.zip_entries(path)
    if not entries then exit.fail(2, "%s", message) end
    local found = { problems = {} }
    found.copied, found.left_out = sort_entries(entries)
    found.manifest, found.raw, found.has_manifest = manifest.read(vxa, path, entries)
    if found.manifest then
        found.problems = manifest.verify(vxa, path, found.manifest, #entries).problems
    else
        if found.has_manifest then
            found.problems = { { name = manifest.NAME, problem = "cannot be used: " .. found.raw } }
        end
        found.raw = nil
    end
    if #found.copied == 0 and not found.manifest then
        exit.fail(2, "%s has no entry of a diagnostic package", path)
    end
    return found
end

local MOST_COMPLAINTS = 20

-- `describe(row)` returns the message for a row; `others` is what more rows are.
local function complain(rows, describe, others)
    for i = 1, math.min(#rows, MOST_COMPLAINTS) do console.complain(describe(rows[i])) end
    if #rows > MOST_COMPLAINTS then
        console.complain(("%d more %s"):format(#rows - MOST_COMPLAINTS, others))
    end
end

-- Returns the exit status: 1 if the package is not what its manifest describes, as for vxa show.
local function judge(found, path)
    complain(found.left_out, function(row)
        return ("%s is left out: %s"):format(row.name, row.reason)
    end, "entries are left out")
    complain(found.problems, function(row)
        local what = row.name == manifest.NAME and "" or " is not what its manifest describes"
        return ("%s%s: %s: %s"):format(path, what, row.name, row.problem)
    end, "such entries")
    return #found.problems > 0 and 1 or 0
end

local function check_names(vxa, options)
    new_file.check(vxa, options.archive, options.force, options.source)
    for _, package in ipairs { options.archive, options.source } do
        if options.map and vxa.same_file(options.map, package) then
            exit.fail(2, "--map %s is also the name of a package", options.map)
        end
    end
end

local function run(options)
    local vxa = session.load_host()
    check_names(vxa, options)
    local found = inspect(vxa, options.source)
    local redaction, message = vxa.redaction(options.map)
    if not redaction then exit.fail(2, "%s", message) end
    local host = found.manifest and found.manifest.host
    if host and host.name then redaction:reserve(host.name) end
    local count = new_file.write(vxa, options.archive, options.force, "copy", function(file)
        return build(vxa, redaction, options.source, found, file)
    end)
    local status = judge(found, options.source)
    console.line("%s: %s, masked", printable(options.archive),
        format.count(count, "entry", "entries"))
    if options.map then
        console.line("%s undoes the masking: do not give it away", printable(options.map))
    end
    return status
end

return { define = define, run = run }
