-- The differences between two packages as JSON records.

local json_records = require "vxa.output.json_records"
local printable = require "vxa.output.printable"
local section = require "vxa.diff.section"

local null = json_records.null

local EXACT = 2 ^ 53

-- JSON is UTF-8; files may contain anything.
local function text(bytes)
    return bytes and printable(bytes) or null
end

local function texts(list)
    local copy = json_records.array {}
    for i, bytes in ipairs(list) do copy[i] = printable(bytes) end
    return copy
end

-- Decimal numbers are strings here, because Lua's own are exact below 2^53 only.
local function value(item)
    if type(item) ~= "string" then return item or null end
    local number = item:find("^%-?%d+$") and tonumber(item)
    return number and math.abs(number) <= EXACT and number or printable(item)
end

local function origin(package)
    return {
        path = text(package.path), host = text(package:member("string", "host", "name")),
        time = text(package:member("string", "end")),
        version = text(package:member("string", "version")),
        engine = text(package:member("string", "engine")),
        manifest_error = text(package.no_manifest),
    }
end

local function print_change(entry, what, change)
    json_records.print {
        record = "change", entry = text(entry), change = what, kind = change.kind,
        name = text(change.name),
        older = value(change.older), newer = value(change.newer),
        difference = value(change.change), per_second = change.per_second or null,
    }
end

local function print_entry(found)
    local counts = json_records.object(found.counts)
    local traffic = found.traffic
    json_records.print {
        record = "entry", entry = text(found.entry), changes = counts,
        lost_in = found.lost and found.lost.side or null,
        reason = text(found.lost and found.lost.reason or found.obstacle),
        traffic = traffic and json_records.object(traffic) or null,
        notes = texts(found.notes),
    }
end

local function print_section(found)
    print_entry(found)
    for i = 1, math.min(#(found.services or {}), found.limit) do
        local row = found.services[i]
        json_records.print { record = "service", entry = found.entry, service = row.service,
                             state = row.state, older = row.older, newer = row.newer,
                             added = row.added, removed = row.removed }
    end
    for _, what in ipairs(section.CHANGES) do
        for _, change in ipairs(found.lists[what] or {}) do
            print_change(found.entry, what, change)
        end
    end
end

-- Prints what lua/vxa/diff/comparison.lua returns.
return function(packages, result)
    json_records.print {
        record = "diff", older = origin(packages.older), newer = origin(packages.newer),
        seconds = result.elapsed or null, warnings = texts(result.warnings),
    }
    for _, found in ipairs(result.sections) do print_section(found) end
    json_records.print { record = "end", differences = result.differences,
                         unchanged = texts(result.unchanged) }
end
