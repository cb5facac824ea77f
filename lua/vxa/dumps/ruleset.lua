-- Parses vxa.tpf: the rules, the other objects of a ruleset, and the elements of its sets.
--
-- Of a rule only what identifies it is kept, and where its object is in the text.

local json = require "dkjson"

local listing = require "vxa.rules.listing"

local MOST_ITEMS = 300000

-- ---- content ----------------------------------------------------------------------------

local function set_of(...)
    local set = {}
    for _, name in ipairs { ... } do set[name] = true end
    return set
end

-- Members that change without a change of the ruleset, by what contains them.
local volatile = { counter = set_of("packets", "bytes"), quota = set_of("used", "used_unit"),
                   last = set_of("used"), elem = set_of "expires" }

local function sorted_names(object)
    local names = {}
    for name in pairs(object) do names[#names + 1] = name end
    table.sort(names)
    return names
end

local write

local function write_members(out, object, skipped)
    for _, name in ipairs(sorted_names(object)) do
        if not (skipped and skipped[name]) then
            out[#out + 1] = name .. "="
            write(out, object[name], volatile[name])
            out[#out + 1] = " "
        end
    end
end

-- Appends the value to `out` in a form that does not depend on the order of members, without
-- members in `skipped`.
function write(out, value, skipped)
    if value == json.null then
        out[#out + 1] = "null"
    elseif type(value) == "number" then
        out[#out + 1] = ("%.17g"):format(value)
    elseif type(value) ~= "table" then
        out[#out + 1] = tostring(value)
    elseif getmetatable(value) == listing.OBJECT then
        out[#out + 1] = "{"
        write_members(out, value, skipped)
        out[#out + 1] = "}"
    else
        out[#out + 1] = "["
        for _, element in ipairs(value) do
            write(out, element)
            out[#out + 1] = " "
        end
        out[#out + 1] = "]"
    end
end

local function content(value)
    local out = {}
    write(out, value)
    return table.concat(out)
end

-- ---- reading ----------------------------------------------------------------------------

local function word(value)
    return (value == nil or type(value) == "table") and "?" or tostring(value)
end

local function number(value)
    return type(value) == "number" and value or nil
end

local function title(object, name)
    return ("%s %s %s"):format(word(object.family), word(object.table), word(name))
end

local function rule_item(parsed, rule, position)
    local chain, counter = title(rule, rule.chain), listing.counter_of(rule)
    return { key = ("%s handle %s"):format(chain, word(rule.handle)),
             value = content(rule.expr) .. word(rule.comment or ""), chain = chain, at = position,
             place = #parsed.rules + 1, packets = number(counter.packets),
             bytes = number(counter.bytes) }
end

-- What identifies an object, and lists that are compared separately.
local identity = set_of("family", "table", "name", "handle", "elem")

-- Returns "MEMBER=VALUE MEMBER=VALUE".
local function description(kind, object)
    local parts = {}
    for _, name in ipairs(sorted_names(object)) do
        if not identity[name] and not (volatile[kind] and volatile[kind][name]) then
            parts[#parts + 1] = name .. "=" .. content(object[name])
        end
    end
    return table.concat(parts, " ")
end

local function add_object(parsed, kind, object)
    local name = kind == "table" and ("%s %s"):format(word(object.family), word(object.name))
        or title(object, object.name)
    local key = kind .. " " .. name
    table.insert(parsed.objects, { key = key, value = description(kind, object),
                                   packets = number(object.packets),
                                   bytes = number(object.bytes) })
    if getmetatable(object.elem) == listing.OBJECT then return end
    for _, element in ipairs(listing.as_table(object.elem)) do
        table.insert(parsed.elements, { key = key .. ": " .. content(element), value = "",
                                        set = key, element = element })
    end
end

-- "profile" has what was counted while this package was made, "metainfo" the version of nft.
local function add(parsed, object, position)
    local kind, members = next(listing.as_table(object))
    if type(kind) ~= "string" or type(members) ~= "table" then return end
    if kind == "rule" then
        table.insert(parsed.rules, rule_item(parsed, members, position))
    elseif kind ~= "profile" and kind ~= "metainfo" then
        add_object(parsed, kind, members)
    end
end

-- Returns {rules, objects, elements}, arrays of {key, value}, or nil and a message. `value` is all
-- that can be changed. Rules and objects have `packets` and `bytes` if they count; rules also
-- `chain`, `place`, their position in the listing, and `at`, their position in the text; elements
-- also `set` and `element`, its JSON value.
return function(text, check, vxa)
    local parsed = { rules = {}, objects = {}, elements = {} }
    local function count() return #parsed.rules + #parsed.objects + #parsed.elements end
    local is_listing = listing.each(vxa, text, function(object, position)
        check()
        add(parsed, object, position)
        return count() <= MOST_ITEMS
    end)
    if is_listing then return parsed end
    return nil, count() > MOST_ITEMS and ("has more than %d items"):format(MOST_ITEMS)
        or "is not a listing of rules"
end
