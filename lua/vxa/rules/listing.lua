-- The output of `nft -j list ruleset` (libnftables-json(5)), object by object: a ruleset can be
-- very large. The text may come from anywhere, so members can be missing or of any type.

local json = require "dkjson"

local listing = {}

listing.OBJECT = { __jsontype = "object" }  -- the metatable of objects; keeps an empty one {}

function listing.as_table(value)
    return type(value) == "table" and value or {}
end

-- Calls `visit(object, position)` for each object, decoded with json.null for null, until it
-- returns false. Returns whether `text` is a listing and was visited completely.
function listing.each(vxa, text, visit)
    local at = text:match('^%s*{%s*"nftables"%s*:%s*%[%s*()')
    while at and text:sub(at, at) ~= "]" do
        local position, object = at
        at, object = vxa.parse_json(text, at, json.null, listing.OBJECT)
        if not at then return false end
        if visit(object, position) == false then return false end
        at = text:match("^%s*,%s*()", at) or text:match("^%s*()%]", at)
    end
    return at and text:find("^]%s*}%s*$", at) ~= nil
end

-- Returns the object that `visit` got with this position.
function listing.object_at(vxa, text, position)
    return select(2, vxa.parse_json(text, position, json.null, listing.OBJECT))
end

-- The first anonymous counter of a rule, {} if it has none.
function listing.counter_of(rule)
    for _, statement in ipairs(listing.as_table(rule.expr)) do
        local counter = listing.as_table(statement).counter
        if type(counter) == "table" then return counter end
    end
    return {}
end

return listing
