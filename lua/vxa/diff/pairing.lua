-- Finds the items of two packages that belong together.

local index = require "vxa.diff.index"

local pairing = {}

local function unpaired(items)
    local rest = {}
    for _, item in ipairs(items) do
        if not item.paired then rest[#rest + 1] = item end
    end
    return rest
end

-- Calls `visit(older, newer)` for pairs of items with the same key and, with `exact`, the same
-- value; returns the rest of both.
local function match(older, newer, exact, check, visit)
    local known, rest = index.new(), {}
    for _, item in ipairs(older) do
        item.following, item.last = nil, nil
        known:put(item)
        check()
    end
    for _, item in ipairs(newer) do
        local found = known:take(item.key, exact and item.value)
        if found then
            found.paired = true
            visit(found, item)
        else
            rest[#rest + 1] = item
        end
        check()
    end
    return unpaired(older), rest
end

-- Calls `visit(older, newer)` for each pair, then for the items without a partner, with nil in
-- its place. Items of the same key are paired by value first. `other_key(item)`, if given, returns
-- another key, under which the items left are paired by value before they are paired by key alone.
function pairing.each(older, newer, check, visit, other_key)
    local old, new = match(older, newer, true, check, visit)
    if other_key then
        for _, items in ipairs { old, new } do
            for _, item in ipairs(items) do item.key, item.first_key = other_key(item), item.key end
        end
        old, new = match(old, new, true, check, visit)
        for _, items in ipairs { old, new } do
            for _, item in ipairs(items) do item.key = item.first_key end
        end
    end
    old, new = match(old, new, false, check, visit)
    for _, item in ipairs(new) do visit(nil, item) end
    for _, item in ipairs(old) do visit(item, nil) end
end

return pairing
