-- The rule profile of a package as a table: the rules of each chain, what they counted,
-- and what they counted while profiling was on.
--
-- The payload is the listing of `nft -j list ruleset`, with one object "profile" at its end
-- where profiling was on. Members that are missing or of another kind than expected are
-- passed over: the file may come from anywhere. A listing can have very many rules, so it
-- is decoded object by object, and of a rule only its line is kept.

local json = require "dkjson"

local interruption = require "command.interruption"
local printable = require "command.printable"
local rule_text = require "command.rule_text"
local text = require "command.text"

local rule_profile = {}

local function as_table(value)
    return type(value) == "table" and value or {}
end

-- The kernel's numbers have at most 64 bits.
local function whole(value)
    if type(value) ~= "number" then return "-" end
    return (math.abs(value) <= 2 ^ 64 and "%.0f" or "%.3g"):format(value)
end

local function plain(value)
    if value == nil then return "?" end
    if type(value) == "string" then return printable(value) end
    return printable(type(value) == "table" and json.encode(value) or tostring(value))
end

-- The table at `name` in a tree of tables. Nested tables find what a composed key would
-- name, in a time that does not depend on the names: of long strings Lua hashes every other
-- byte only, so that names which differ in a few digits collide.
local function child(tree, name)
    local found = tree[name]
    if not found then
        found = {}
        tree[name] = found
    end
    return found
end

local function table_of(tree, object)
    return child(child(tree, plain(object.family)), plain(object.table))
end

-- ---- collecting ---------------------------------------------------------------------------

-- Chains of different tables may have the same name.
local function chain_of(ruleset, object)
    local name = plain(object.chain or object.name)
    local chain = child(table_of(ruleset.tree, object), name)
    if not chain.rules then
        chain.rules, chain.family, chain.table = {}, plain(object.family), plain(object.table)
        chain.title = ("%s %s %s"):format(chain.family, chain.table, name)
        ruleset.chains[#ruleset.chains + 1] = chain
    end
    return chain
end

local function hook(chain)
    if not chain.hook then return "" end
    return (" (%s hook %s, priority %s, policy %s)"):format(plain(chain.type), plain(chain.hook),
        whole(chain.prio), plain(chain.policy or "accept"))
end

local function count_other(ruleset, kind)
    ruleset.others[kind] = (ruleset.others[kind] or 0) + 1
end

local function counter_of(rule)
    for _, statement in ipairs(as_table(rule.expr)) do
        local counter = as_table(statement).counter
        if type(counter) == "table" then return counter end
    end
    return {}
end

local function add_rule(ruleset, rule)
    local rules, counter = chain_of(ruleset, rule).rules, counter_of(rule)
    rules[#rules + 1] = { whole(rule.handle), whole(counter.packets), whole(counter.bytes),
                          rule_text.render(rule) }
    ruleset.rules = ruleset.rules + 1
end

-- What was counted, by family, table and handle; a rule without a family is known by its
-- handle alone.
local function add_profile(ruleset, profile)
    local tree, by_handle = {}, {}
    for _, rule in ipairs(as_table(profile.rules)) do
        rule = as_table(rule)
        local handles = rule.family and table_of(tree, rule) or by_handle
        if type(rule.handle) == "number" then
            handles[whole(rule.handle)] = { whole(rule.packets), whole(rule.bytes) }
        end
    end
    ruleset.profile = { milliseconds = profile.milliseconds, ticks = profile.ticks,
                        tree = tree, by_handle = by_handle }
end

local collect = {
    metainfo = function() end,
    table = function(ruleset) ruleset.tables = ruleset.tables + 1 end,
    chain = function(ruleset, chain) chain_of(ruleset, chain).hook = hook(chain) end,
    rule = add_rule,
    counter = function(ruleset, counter)
        table.insert(ruleset.counters, { whole(counter.packets), whole(counter.bytes),
            ("%s %s %s"):format(plain(counter.family), plain(counter.table),
                plain(counter.name)) })
    end,
    profile = add_profile,
}

local function take(ruleset, object)
    local kind, value = next(as_table(object))
    if type(kind) ~= "string" or type(value) ~= "table" then return end
    if collect[kind] then collect[kind](ruleset, value) else count_other(ruleset, kind) end
end

local OBJECT = { __jsontype = "object" }  -- shows an empty object as {}

-- Takes each object of the listing; false where the payload is not a listing.
local function read(vxa, payload, ruleset)
    local at, object = payload:match('^%s*{%s*"nftables"%s*:%s*%[%s*()'), nil
    while at and payload:sub(at, at) ~= "]" do
        interruption.check(vxa)
        at, object = vxa.parse_json(payload, at, json.null, OBJECT)
        if not at then return false end
        take(ruleset, object)
        at = payload:match("^%s*,%s*()", at) or payload:match("^%s*()%]", at)
    end
    return at and payload:find("^]%s*}%s*$", at) ~= nil
end

-- ---- rendering ----------------------------------------------------------------------------

local NOT_COUNTED = { "-", "-" }

-- Puts what was counted while profiling between the rule's counter and its line.
local function add_profiled(profile, chain)
    local handles = table_of(profile.tree, chain)
    for _, rule in ipairs(chain.rules) do
        local counted = handles[rule[1]] or profile.by_handle[rule[1]] or NOT_COUNTED
        rule[4], rule[5], rule[6] = counted[1], counted[2], rule[4]
    end
end

local function header(ruleset)
    if not ruleset.profile then return { "handle", "packets", "bytes", "rule" } end
    return { "handle", "packets", "bytes", "+packets", "+bytes", "rule" }
end

-- All rows share their columns, so the titles of the chains are put in between afterwards.
local function rule_lines(vxa, ruleset)
    local rows, titles = { header(ruleset) }, {}
    for _, chain in ipairs(ruleset.chains) do
        titles[#rows + 1] = chain.title .. (chain.hook or "")
        if #chain.rules == 0 then titles[#rows + 1] = nil end
        if ruleset.profile then add_profiled(ruleset.profile, chain) end
        for _, rule in ipairs(chain.rules) do rows[#rows + 1] = rule end
    end
    local right = { true, true, true, ruleset.profile ~= nil, ruleset.profile ~= nil }
    local lines = {}
    local function proceed() interruption.check(vxa) end
    for i, line in ipairs(text.columns(rows, right, proceed)) do
        if titles[i] then lines[#lines + 1] = titles[i] end
        lines[#lines + 1] = line
    end
    return lines
end

local function counter_lines(ruleset)
    if #ruleset.counters == 0 then return {} end
    table.insert(ruleset.counters, 1, { "packets", "bytes", "named counter" })
    return text.columns(ruleset.counters, { true, true })
end

local function profiled_for(profile)
    if not profile then return "profiling was off" end
    local milliseconds = profile.milliseconds
    if type(milliseconds) == "number" and milliseconds >= 0 and milliseconds < 2 ^ 53 then
        return "profiled for " .. text.duration(milliseconds / 1000) .. " (columns with +)"
    end
    return ("profiled for %s ticks (columns with +)"):format(whole(profile.ticks))
end

local function summary(ruleset)
    local parts = { text.count(ruleset.tables, "table"), text.count(#ruleset.chains, "chain"),
                    text.count(ruleset.rules, "rule") }
    local kinds = {}
    for kind in pairs(ruleset.others) do kinds[#kinds + 1] = kind end
    table.sort(kinds)
    for _, kind in ipairs(kinds) do
        parts[#parts + 1] = text.count(ruleset.others[kind], printable(kind))
    end
    return table.concat(parts, ", ") .. "; " .. profiled_for(ruleset.profile)
end

-- Returns the profile as text, or nil if the payload is not a listing of rules.
function rule_profile.render(vxa, payload)
    local ruleset = { tables = 0, rules = 0, tree = {}, chains = {}, counters = {}, others = {} }
    if not read(vxa, payload, ruleset) then return nil end
    local lines = { summary(ruleset) }
    if ruleset.rules > 0 then
        for _, line in ipairs(rule_lines(vxa, ruleset)) do lines[#lines + 1] = line end
    end
    for _, line in ipairs(counter_lines(ruleset)) do lines[#lines + 1] = line end
    return table.concat(lines, "\n")
end

return rule_profile
