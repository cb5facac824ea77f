-- Returns the subtable at `key`, making it if needed. Nested tables replace concatenated keys:
-- Lua 5.2 hashes only some characters of a string of 32 characters or more (luaS_hash in
-- lstring.c), so long keys that differ in the others collide.

return function(tree, key)
    local found = tree[key]
    if not found then
        found = {}
        tree[key] = found
    end
    return found
end
