-- Compares the rulesets of two packages.

local listing = require "vxa.rules.listing"
local pairing = require "vxa.diff.pairing"
local rule_line = require "vxa.rules.line"

-- ---- counters ---------------------------------------------------------------------------

local function counts(packets, bytes)
    return packets and bytes and { packets = packets, bytes = bytes } or nil
end

-- Rules and named counters that count both times.
local function compare_counts(section, old, new, row)
    local older, newer = counts(old.packets, old.bytes), counts(new.packets, new.bytes)
    if not older or not newer then return end
    local packets, bytes = newer.packets - older.packets, newer.bytes - older.bytes
    if packets == 0 and bytes == 0 then return end
    row.older, row.newer = older, newer
    if packets < 0 or bytes < 0 then return section:add("restarted", row) end
    row.change = counts(packets, bytes)
    row.per_second = counts(section:rate(packets), section:rate(bytes))
    section:add("counted", row)
end

-- ---- rules ------------------------------------------------------------------------------

-- Returns a function that returns a rule as nft writes it. Few rules are shown, so the others are
-- not rendered.
local function renderer(vxa, text)
    return function(rule)
        return rule_line.rule(listing.object_at(vxa, text, rule.at).rule)
    end
end

local function compare_rule(section, old, new, render)
    local rule = new or old
    local row = { kind = "rule", describe = function()
        return ("%s: %s"):format(rule.key, (new and render.newer or render.older)(rule))
    end }
    if not old then return section:add("added", row) end
    if not new then return section:add("removed", row) end
    if old.value == new.value then return compare_counts(section, old, new, row) end
    row.describe = function()
        row.older, row.newer = render.older(old), render.newer(new)
        if row.older == row.newer then  -- counters are not part of the line
            row.older = row.older .. (old.packets and " counter" or "")
            row.newer = row.newer .. (new.packets and " counter" or "")
        end
        return new.key
    end
    section:add("changed", row)
end

-- Reports the chains in which the rules that are in both packages have another order. `places`
-- has the place in the older package by that in the newer.
local function compare_order(section, rules, places)
    local chain, last, is_reported
    for place, rule in ipairs(rules) do
        if rule.chain ~= chain then chain, last, is_reported = rule.chain, 0, false end
        local before = places[place]
        if before and before < last and not is_reported then
            section:add("reordered", { kind = "chain", name = chain })
            is_reported = true
        end
        last = math.max(last, before or 0)
    end
end

-- Loading a ruleset again gives its rules new handles: a rule can be recognised by its content,
-- too.
local function chain_and_content(rule)
    return rule.chain .. "\n" .. rule.value
end

local function compare_rules(section, older, newer, check, render)
    local places, other_handles = {}, 0
    pairing.each(older.rules, newer.rules, check, function(old, new)
        compare_rule(section, old, new, render)
        if not old or not new then return end
        places[new.place] = old.place
        if (old.first_key or old.key) ~= (new.first_key or new.key) then
            other_handles = other_handles + 1
        end
    end, chain_and_content)
    compare_order(section, newer.rules, places)
    if other_handles > 0 then
        section:note("%d unchanged rules have other handles: they were loaded again",
            other_handles)
    end
end

-- ---- other objects ----------------------------------------------------------------------

local function compare_object(section, old, new)
    local row = { kind = "object", name = (new or old).key, older = old and old.value,
                  newer = new and new.value }
    if not old then return section:add("added", row) end
    if not new then return section:add("removed", row) end
    if old.value ~= new.value then return section:add("changed", row) end
    compare_counts(section, old, new, { kind = "counter", name = new.key })
end

local function compare_element(section, old, new)
    if old and new then return end
    local item = new or old
    section:add(new and "added" or "removed", { kind = "element", describe = function()
        return item.set .. ": " .. rule_line.expression(item.element)
    end })
end

-- `texts`: the two entries, {older, newer}.
return function(section, older, newer, check, texts, vxa)
    local render = { older = renderer(vxa, texts.older), newer = renderer(vxa, texts.newer) }
    compare_rules(section, older, newer, check, render)
    pairing.each(older.objects, newer.objects, check, function(old, new)
        compare_object(section, old, new)
    end)
    pairing.each(older.elements, newer.elements, check, function(old, new)
        compare_element(section, old, new)
    end)
end
