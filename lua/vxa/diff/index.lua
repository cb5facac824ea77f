-- Finds items by strings of any length and origin.
--
-- Lua 5.2 hashes only some characters of a string of 32 characters or more (luaS_hash in
-- lstring.c), so a table of such keys can take minutes to fill. Here no table has keys longer than
-- PIECE: longer ones are looked up piece by piece.

local subtable = require "vxa.subtable"

local index = {}

local Index = {}
Index.__index = Index

local PIECE = 31

function index.new()
    return setmetatable({ by_length = {} }, Index)
end

-- Where the last piece of a key begins.
local function last_piece(key)
    return #key - (#key - 1) % PIECE
end

-- Returns the table that has, or with `make` is to have, the last piece of the key.
local function leaf(self, key, make)
    local node = make and subtable(self.by_length, #key) or self.by_length[#key]
    for at = 1, last_piece(key) - 1, PIECE do
        if not node then return nil end
        local piece = key:sub(at, at + PIECE - 1)
        node = make and subtable(node, piece) or node[piece]
    end
    return node
end

-- Adds an item with a `key`. Items with the same key are found in the order they were added.
function Index:put(item)
    local node, piece = leaf(self, item.key, true), item.key:sub(last_piece(item.key))
    local first = node[piece]
    if first then
        local last = first.last or first
        last.following, first.last = item, item
    else
        node[piece] = item
    end
end

-- Returns the first item with this key.
function Index:get(key)
    local node = leaf(self, key)
    return node and node[key:sub(last_piece(key))]
end

-- An archive may contain the same key any number of times.
local MOST_TRIED = 16

-- Removes and returns the first item with this key, with `value` the first one of that value.
function Index:take(key, value)
    local node, piece = leaf(self, key), key:sub(last_piece(key))
    local first = node and node[piece]
    local before, item = nil, first
    for _ = 1, MOST_TRIED do
        if not item or not value or item.value == value then break end
        before, item = item, item.following
    end
    if not item or value and item.value ~= value then return nil end
    local rest = item.following
    if not before then
        node[piece] = rest
        if rest then rest.last = first.last end
    else
        before.following = rest
        if not rest then first.last = before end
    end
    return item
end

return index
