-- Compares two packages entry by entry.

local compare_manifests = require "vxa.diff.manifests"
local compare_rules = require "vxa.diff.rules"
local format = require "vxa.output.format"
local lines = require "vxa.dumps.lines"
local manifest = require "vxa.packages.manifest"
local section = require "vxa.diff.section"
local tables = require "vxa.diff.tables"

-- ---- what is known about the entries ----------------------------------------------------

local function parse_records(text, check)
    return lines.parse(text, function(line) return { key = line } end, check)
end

local RECORDS = { title = "records", parse = parse_records, compare = tables.records }

-- `is_long`: has its own limit for the changes that are listed.
local kinds = {
    ["vxa_stats.txt"] = { title = "counters", is_long = true, compare = tables.statistics,
                          parse = require "vxa.dumps.statistics" },
    ["vxa_variables.txt"] = { title = "variables", is_long = true, compare = tables.variables,
                              parse = require "vxa.dumps.variables" },
    ["vxa_conn_track.txt"] = { title = "connections", compare = tables.connections,
                               parse = require "vxa.dumps.connections" },
    ["vxa_blacklist.txt"] = { title = "blacklisted addresses", compare = tables.blacklist,
                              parse = require "vxa.dumps.blacklist" },
    ["vxa_conn_states.txt"] = { title = "sockets by state", is_long = true,
                                compare = tables.sockets, parse = require "vxa.dumps.sockets" },
    ["vxa.tpf"] = { title = "rules; packets/bytes", compare = compare_rules,
                    parse = require "vxa.dumps.ruleset" },
    ["state/transitions.jsonl"] = RECORDS, ["state/events.jsonl"] = RECORDS,
}

-- Entries about the making of the package.
local own = { [manifest.NAME] = true, ["diag.log"] = true }

-- Larger entries are compared as a whole: their items might not fit in memory.
local MOST_BYTES = 2 ^ 26
-- An archive can be packed a thousandfold, and have 10000 entries.
local MOST_BYTES_IN_ALL = 2 ^ 32

local SIDES = { "older", "newer" }

-- ---- headings and damaged lines ---------------------------------------------------------

-- Returns a heading without its counts.
local function shape(heading)
    return heading and (heading:gsub("%f[%w]at tick %d+", ""):gsub("%d+", "N"))
end

local incomplete = { "^skipped ", "incomplete", "unreadable", "missing", "do not fit", "is cut",
                     "no slot", "showing %d+ of %d+ flows" }

local function note_incomplete(found, side, parsed)
    for _, heading in ipairs(parsed.headings) do
        for _, pattern in ipairs(incomplete) do
            if heading:find(pattern) then
                found:note("the %s package is incomplete here: %s", side, heading)
                break
            end
        end
    end
end

local function note_damaged(found, side, parsed)
    for _, damaged in ipairs(parsed.damaged) do
        found:note("the %s package: line %d is damaged: %s", side, damaged.line, damaged.text)
    end
    local more = parsed.damaged_count - #parsed.damaged
    if more > 0 then found:note("the %s package: %d more lines are damaged", side, more) end
    found.is_damaged = found.is_damaged or parsed.damaged_count > 0
end

local function note_parsed(found, parsed)
    if not parsed.older.headings then return end
    local older, newer = parsed.older.headings[1], parsed.newer.headings[1]
    if shape(older) ~= shape(newer) then
        found:note("read from different sources: %s / %s", older or "no heading",
            newer or "no heading")
    end
    for _, side in ipairs(SIDES) do
        note_incomplete(found, side, parsed[side])
        note_damaged(found, side, parsed[side])
    end
end

-- ---- one entry --------------------------------------------------------------------------

-- Why an entry has nothing to compare in a package, nil if it has.
local function absence(package, name)
    local entry = package.entries[name]
    if entry and entry.bytes > 0 then return nil end
    local state, reason = package:entry_state(name)
    local what = entry and "empty" or "missing"
    if state == "ok" and not entry then return "missing, but the manifest lists it" end
    reason = reason or package.no_manifest
    return reason and ("%s: %s"):format(what, reason) or what
end

local function note_states(found, packages, name)
    for _, side in ipairs(SIDES) do
        local state, reason = packages[side]:entry_state(name)
        if state == "incomplete" then
            found:note("the %s package is incomplete here: %s", side, reason or "no reason given")
        end
    end
end

-- Compares the content of an entry that differs. Returns what keeps it from being compared item
-- by item, or nil; and whether the entry cannot be read at all.
local function compare_content(vxa, packages, name, found, check)
    local kind, texts, parsed = kinds[name], {}, {}
    for _, side in ipairs(SIDES) do
        local entry, message = packages[side].entries[name]
        if entry.problem then return entry.problem, true end
        if entry.bytes > MOST_BYTES then
            return "too large to compare in detail: " .. format.size(entry.bytes)
        end
        texts[side], message = vxa.zip_read(packages[side].path, name, MOST_BYTES)
        if not texts[side] then return message, true end
        parsed[side], message = kind.parse(texts[side], check, vxa)
        if not parsed[side] then return ("%s in the %s package"):format(message, side) end
    end
    note_parsed(found, parsed)
    kind.compare(found, parsed.older, parsed.newer, check, texts, vxa)
end

local function is_unchanged(older, newer)
    return older.sha256 ~= nil and older.sha256 == newer.sha256
end

-- Returns the section of an entry, nil if neither package has anything in it.
local function compare_entry(vxa, packages, name, new_section, check)
    local found = new_section(name, kinds[name].title, kinds[name].is_long)
    local lost = { older = absence(packages.older, name), newer = absence(packages.newer, name) }
    if lost.older and lost.newer then return nil end
    for _, side in ipairs(SIDES) do
        if lost[side] then
            found.lost, found.total = { side = side, reason = lost[side] }, 1
            return found
        end
    end
    note_states(found, packages, name)
    if is_unchanged(packages.older.entries[name], packages.newer.entries[name]) then
        return found
    end
    local obstacle, is_unreadable = compare_content(vxa, packages, name, found, check)
    if obstacle then found.obstacle, found.total = obstacle, 1 end
    found.is_unreadable = is_unreadable
    return found
end

-- ---- both packages ----------------------------------------------------------------------

-- Returns the names of entries, those that this command knows and the others.
local function names_of(packages)
    local known, others, seen = {}, {}, {}
    for _, side in ipairs(SIDES) do
        for _, entry in ipairs(packages[side].list) do
            local name = entry.name
            local names = kinds[name] and known or others
            if not own[name] and not seen[name] then seen[name], names[#names + 1] = true, name end
        end
    end
    return known, others
end

-- Adds digests to entries of the same size, first to those that this command knows: entries of
-- different sizes differ.
local function add_digests(vxa, packages, known, others, check)
    local bytes, wanted = 0, {}
    for _, names in ipairs { known, others } do
        for _, name in ipairs(names) do
            local old, new = packages.older.entries[name], packages.newer.entries[name]
            local is_wanted = old and new and old.bytes == new.bytes
                and bytes + old.bytes <= MOST_BYTES_IN_ALL
            if is_wanted then bytes, wanted[name] = bytes + old.bytes, true end
        end
    end
    for _, side in ipairs(SIDES) do
        packages[side]:add_digests(vxa, function(entry) return wanted[entry.name] end, check)
    end
end

-- Adds changes of entries whose content is unknown to this command.
local function compare_others(found, packages, names)
    for _, name in ipairs(names) do
        local old, new = packages.older.entries[name], packages.newer.entries[name]
        local row = { kind = "entry", name = name, older = old and old.bytes,
                      newer = new and new.bytes }
        if not old then
            found:add("appeared", row)
        elseif not new then
            found:add("vanished", row)
        elseif old.problem or new.problem then
            found:note("%s: %s", name, old.problem or new.problem)
            found.is_unreadable = true
        elseif old.bytes == new.bytes and not old.sha256 then
            found:note("%s: not compared: the entries in front of it are too large", name)
        elseif not is_unchanged(old, new) then
            found:add("changed", row)
        end
    end
end

-- ---- the packages as a whole ------------------------------------------------------------

local function warn_about_hosts(packages, warnings)
    local host = packages.older:member("string", "host", "name")
    local other = packages.newer:member("string", "host", "name")
    if host and other and host ~= other then
        table.insert(warnings, ("the packages are from different hosts: %s and %s")
            :format(host, other))
    end
end

local function warn_about_manifests(packages, warnings)
    for _, side in ipairs(SIDES) do
        local package = packages[side]
        if package.no_manifest then
            table.insert(warnings, ("%s: %s"):format(package.path, package.no_manifest))
        end
    end
end

-- Returns the seconds from one package to the other, nil if unknown.
local function elapsed_time(packages, warnings)
    local from, to = packages.older:time(), packages.newer:time()
    if not from or not to then return nil end
    if to < from then
        table.insert(warnings, ("%s was made %s before %s: the order is reversed")
            :format(packages.newer.path, format.duration(from - to), packages.older.path))
    end
    return to - from
end

local function keep(result, found)
    result.differences = result.differences + found.total
    result.is_unreadable = result.is_unreadable or found.is_unreadable
    result.is_damaged = result.is_damaged or found.is_damaged
    if found.total > 0 or #found.notes > 0 then
        table.insert(result.sections, found)
    else
        table.insert(result.unchanged, found.entry)
    end
end

local function compare_entries(vxa, packages, result, new_section, check)
    local known, others = names_of(packages)
    check(0, #known)
    add_digests(vxa, packages, known, others, check)
    for i, name in ipairs(known) do
        check(i - 1, #known)
        local found = compare_entry(vxa, packages, name, new_section, check)
        if found then keep(result, found) end
    end
    if #others == 0 then return end
    local found = new_section("other entries", "bytes")
    compare_others(found, packages, others)
    keep(result, found)
end

-- Compares the packages {older, newer}, see lua/vxa/packages/archive.lua. Returns {elapsed,
-- warnings, sections, unchanged: names of entries, differences: their number, is_unreadable and
-- is_damaged: whether there is anything that could not be compared}. `limits`: {short, long}, how
-- many changes of each kind in an entry are kept to be listed. `check(done, total)` is called
-- often, with the number of entries done if that has changed; it may raise an error.
return function(vxa, packages, limits, check)
    local result = { warnings = {}, sections = {}, unchanged = {}, differences = 0 }
    warn_about_hosts(packages, result.warnings)
    warn_about_manifests(packages, result.warnings)
    result.elapsed = elapsed_time(packages, result.warnings)
    local function new_section(name, title, is_long)
        return section.new(name, title, result.elapsed, is_long and limits.long or limits.short)
    end
    if packages.older.manifest and packages.newer.manifest then
        local found = new_section(manifest.NAME, "manifest", true)
        compare_manifests(found, packages.older.manifest, packages.newer.manifest, check)
        keep(result, found)
    end
    compare_entries(vxa, packages, result, new_section, check)
    if result.differences > 0 and not result.elapsed then
        table.insert(result.warnings,
            "there are no rates: the time between the packages is unknown")
    end
    return result
end
