-- A diagnostic package: its entries and its manifest, see docs/package.md. The file may come from
-- anywhere.

local exit = require "vxa.exit"
local manifest = require "vxa.packages.manifest"
local package_entries = require "vxa.packages.entries"
local times = require "vxa.times"

local archive = {}

local Archive = {}
Archive.__index = Archive

-- ---- the manifest -----------------------------------------------------------------------

-- Returns the value of a member of the manifest, such as host.name; nil if it is unknown.
function Archive:member(kind, ...)
    local value = self.manifest
    for _, name in ipairs { ... } do value = value and value[name] end
    return type(value) == kind and value or nil
end

-- When the package was made, in seconds since the epoch; nil if unknown.
function Archive:time()
    local time = self:member("string", "end")
    return time and times.of_record(time)
end

-- Returns the manifest's state of an entry and the reason for it, nil if it has none.
function Archive:entry_state(name)
    for _, row in ipairs(self:member("table", "entries") or {}) do
        if row.name == name then return row.state, row.reason end
    end
end

-- ---- the entries ------------------------------------------------------------------------

local function is_package(entries)
    for _, entry in ipairs(package_entries) do
        if entries[entry.name] then return true end
    end
    return false
end

-- Returns {path, list, entries: by name, manifest, no_manifest: why there is none}.
function archive.open(vxa, path)
    local list, message = vxa.zip_entries(path)
    if not list then exit.fail(2, "%s", message) end
    local package = setmetatable({ path = path, list = {}, entries = {} }, Archive)
    for _, entry in ipairs(list) do
        if not package.entries[entry.name] then
            package.entries[entry.name] = entry
            table.insert(package.list, entry)
        end
    end
    if not is_package(package.entries) then
        exit.fail(2, "%s is not a diagnostic package: it has none of the entries of one", path)
    end
    local reason, is_there
    package.manifest, reason, is_there = manifest.read(vxa, path, list)
    if not package.manifest then
        package.no_manifest = is_there and "its manifest cannot be used: " .. reason
            or "it has no manifest"
    end
    return package
end

-- Adds `sha256` to the entries that `wanted(entry)` chooses, or `problem`, why they cannot be
-- read.
function Archive:add_digests(vxa, wanted, check)
    local reader, message = vxa.zip_reader(self.path)
    if not reader then exit.fail(1, "%s", message) end
    local seen = {}
    while true do
        local listed
        listed, message = reader:next()
        if listed == nil then exit.fail(1, "%s", message) end
        if not listed then break end
        local entry = self.entries[listed.name]
        if entry and not seen[listed.name] and wanted(entry) then
            check()
            entry.sha256, entry.problem = reader:sha256()
        end
        seen[listed.name] = true
    end
    reader:close()
end

return archive
