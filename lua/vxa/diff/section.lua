-- What was found in one entry of the two packages.

local section = {}

local Section = {}
Section.__index = Section

-- The kinds of changes, in the order they are shown.
section.CHANGES = { "changed", "restarted", "counted", "replaced", "appeared", "added", "vanished",
                    "removed", "expired", "renewed", "reordered" }

-- `elapsed`: seconds between the packages, nil if unknown. `limit`: how many changes of each kind
-- are kept to be listed.
function section.new(entry, title, elapsed, limit)
    return setmetatable({ entry = entry, title = title, elapsed = elapsed, limit = limit,
                          lists = {}, counts = {}, total = 0, notes = {} }, Section)
end

-- Adds a change: {kind, name, older, newer, change, per_second, describe}. `kind` is what changed,
-- `describe()`, if given, returns the name, and is called for changes that are kept only.
function Section:add(what, change)
    self.total = self.total + 1
    self.counts[what] = (self.counts[what] or 0) + 1
    local list = self.lists[what] or {}
    self.lists[what] = list
    if #list == self.limit then return end
    if change.describe then change.name = change.describe() end
    list[#list + 1] = change
end

-- Adds something to know about the comparison, which is not a difference.
function Section:note(text, ...)
    table.insert(self.notes, select("#", ...) == 0 and text or text:format(...))
end

-- Returns the change of a counter per second, nil if that is unknown.
function Section:rate(change)
    return self.elapsed and self.elapsed > 0 and change / self.elapsed or nil
end

return section
