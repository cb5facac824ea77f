-- The rule profile of a package as a table: the rules of each chain, their counters, and what
-- was counted while profiling was on.
--
-- The profile is the output of `nft -j list ruleset` (libnftables-json(5)), with a "profile"
-- object at its end if profiling was on. The file may come from anywhere: members that are
-- missing or of an unexpected type are skipped. A ruleset can be very large, so it is decoded
-- object by object, and only the line of each rule is kept.

local json = require "dkjson"

local exit = require "vxa.exit"
local format = require "vxa.output.format"
local listing = require "vxa.rules.listing"
local printable = require "vxa.output.printable"
local rule_line = require("vxa.rules.line").rule
local subtable = require "vxa.subtable"

local profile = {}

local as_table = listing.as_table

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

local function table_of(tree, object)
    return subtable(subtable(tree, plain(object.family)), plain(object.table))
end

-- ---- reading ----------------------------------------------------------------------------

-- Chains of different tables may have the same name.
local function chain_of(ruleset, object)
    local name = plain(object.chain or object.name)
    local chain = subtable(table_of(ruleset.tree, object), name)
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

local function add_rule(ruleset, rule)
    local rules, counter = chain_of(ruleset, rule).rules, listing.counter_of(rule)
    rules[#rules + 1] = { whole(rule.handle), whole(counter.packets), whole(counter.bytes),
                          rule_line(rule) }
    ruleset.rules = ruleset.rules + 1
end

-- Keeps what was counted by family, table and handle; for a rule without a family, by its
-- handle alone.
local function add_profile(ruleset, object)
    local tree, by_handle = {}, {}
    for _, rule in ipairs(as_table(object.rules)) do
        rule = as_table(rule)
        local handles = rule.family and table_of(tree, rule) or by_handle
        if type(rule.handle) == "number" then
            handles[whole(rule.handle)] = { whole(rule.packets), whole(rule.bytes) }
        end
    end
    ruleset.profile = { milliseconds = object.milliseconds, ticks = object.ticks,
                        tree = tree, by_handle = by_handle }
end

local readers = {
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

local function add(ruleset, object)
    local kind, members = next(as_table(object))
    if type(kind) ~= "string" or type(members) ~= "table" then return end
    if readers[kind] then return readers[kind](ruleset, members) end
    ruleset.others[kind] = (ruleset.others[kind] or 0) + 1
end

-- Adds each object of the listing; returns false if `text` is not a listing.
local function read(vxa, text, ruleset)
    return listing.each(vxa, text, function(object)
        exit.if_interrupted(vxa)
        add(ruleset, object)
    end)
end

-- ---- rendering --------------------------------------------------------------------------

local NOT_COUNTED = { "-", "-" }

-- Inserts what was counted while profiling in front of each rule's line.
local function add_profiled_columns(profiled, chain)
    local handles = table_of(profiled.tree, chain)
    for _, rule in ipairs(chain.rules) do
        local counted = handles[rule[1]] or profiled.by_handle[rule[1]] or NOT_COUNTED
        rule[4], rule[5], rule[6] = counted[1], counted[2], rule[4]
    end
end

local function header(ruleset)
    if not ruleset.profile then return { "handle", "packets", "bytes", "rule" } end
    return { "handle", "packets", "bytes", "+packets", "+bytes", "rule" }
end

-- All rules share their columns, so the chains' titles are inserted after alignment.
local function rule_lines(vxa, ruleset)
    local rows, titles = { header(ruleset) }, {}
    for _, chain in ipairs(ruleset.chains) do
        if #chain.rules > 0 then titles[#rows + 1] = chain.title .. (chain.hook or "") end
        if ruleset.profile then add_profiled_columns(ruleset.profile, chain) end
        for _, rule in ipairs(chain.rules) do rows[#rows + 1] = rule end
    end
    local right = { true, true, true, ruleset.profile ~= nil, ruleset.profile ~= nil }
    local lines = {}
    local function check() exit.if_interrupted(vxa) end
    for i, line in ipairs(format.columns(rows, right, check)) do
        if titles[i] then lines[#lines + 1] = titles[i] end
        lines[#lines + 1] = line
    end
    return lines
end

local function counter_lines(ruleset)
    if #ruleset.counters == 0 then return {} end
    table.insert(ruleset.counters, 1, { "packets", "bytes", "named counter" })
    return format.columns(ruleset.counters, { true, true })
end

local function profiling_time(profiled)
    if not profiled then return "profiling was off" end
    local milliseconds = profiled.milliseconds
    if type(milliseconds) == "number" and milliseconds >= 0 and milliseconds < 2 ^ 53 then
        return "profiled for " .. format.duration(milliseconds / 1000) .. " (columns with +)"
    end
    return ("profiled for %s ticks (columns with +)"):format(whole(profiled.ticks))
end

local function summary(ruleset)
    local parts = { format.count(ruleset.tables, "table"),
                    format.count(#ruleset.chains, "chain"), format.count(ruleset.rules, "rule") }
    local kinds = {}
    for kind in pairs(ruleset.others) do kinds[#kinds + 1] = kind end
    table.sort(kinds)
    for _, kind in ipairs(kinds) do
        parts[#parts + 1] = format.count(ruleset.others[kind], printable(kind))
    end
    return table.concat(parts, ", ") .. "; " .. profiling_time(ruleset.profile)
end

-- Returns the lines of the table as one string, or nil if `text` is not a listing of rules.
function profile.render(vxa, text)
    local ruleset = { tables = 0, rules = 0, tree = {}, chains = {}, counters = {}, others = {} }
    if not read(vxa, text, ruleset) then return nil end
    local lines = { summary(ruleset) }
    if ruleset.rules > 0 then
        for _, line in ipairs(rule_lines(vxa, ruleset)) do lines[#lines + 1] = line end
    end
    for _, line in ipairs(counter_lines(ruleset)) do lines[#lines + 1] = line end
    return table.concat(lines, "\n")
end

return profile
