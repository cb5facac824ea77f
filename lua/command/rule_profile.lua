-- The rule profile of a package as a table: the rules of each chain, what they counted,
-- and what they counted while profiling was on.
--
-- The payload is the listing of `nft -j list ruleset`, with one object "profile" at its end
-- where profiling was on. Members that are missing or of another kind than expected are
-- passed over: the file may come from anywhere.

local json = require "dkjson"

local printable = require "command.printable"
local rule_text = require "command.rule_text"
local text = require "command.text"

local rule_profile = {}

local function as_table(value)
    return type(value) == "table" and value or {}
end

local function whole(value)
    return type(value) == "number" and ("%.0f"):format(value) or "-"
end

local function plain(value)
    return printable(type(value) == "table" and json.encode(value) or tostring(value))
end

-- Chains of different tables bear the same names.
local function chain_key(object)
    return ("%s %s %s"):format(plain(object.family), plain(object.table),
        plain(object.chain or object.name))
end

local function rule_key(object)
    return ("%s %s %s"):format(plain(object.family), plain(object.table), plain(object.handle))
end

-- ---- collecting ---------------------------------------------------------------------------

local function chain_of(ruleset, object)
    local key = chain_key(object)
    local chain = ruleset.chains[key]
    if not chain then
        chain = { title = key, rules = {} }
        ruleset.chains[key] = chain
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

local collect = {
    metainfo = function() end,
    table = function(ruleset) ruleset.tables = ruleset.tables + 1 end,
    chain = function(ruleset, chain) chain_of(ruleset, chain).hook = hook(chain) end,
    rule = function(ruleset, rule)
        local rules = chain_of(ruleset, rule).rules
        rules[#rules + 1] = rule
        ruleset.rules = ruleset.rules + 1
    end,
    counter = function(ruleset, counter) table.insert(ruleset.counters, counter) end,
    profile = function(ruleset, profile)
        ruleset.profile = { milliseconds = profile.milliseconds, ticks = profile.ticks, rules = {} }
        for _, rule in ipairs(as_table(profile.rules)) do
            rule = as_table(rule)
            ruleset.profile.rules[rule.family and rule_key(rule) or plain(rule.handle)] = rule
        end
    end,
}

local function read(objects)
    local ruleset = { tables = 0, rules = 0, chains = {}, counters = {}, others = {} }
    for _, object in ipairs(objects) do
        local kind, value = next(as_table(object))
        if type(kind) == "string" and type(value) == "table" then
            local take = collect[kind]
            if take then take(ruleset, value) else count_other(ruleset, kind) end
        end
    end
    return ruleset
end

-- ---- rendering ----------------------------------------------------------------------------

local function profiled(ruleset, rule)
    if not ruleset.profile then return {} end
    local rules = ruleset.profile.rules
    return rules[rule_key(rule)] or rules[plain(rule.handle)] or {}
end

local function counter_of(rule)
    for _, statement in ipairs(as_table(rule.expr)) do
        local counter = as_table(statement).counter
        if type(counter) == "table" then return counter end
    end
    return {}
end

-- handle, packets, bytes, what was counted while profiling, the rule
local function row(ruleset, rule)
    local counter, since = counter_of(rule), profiled(ruleset, rule)
    local cells = { whole(rule.handle), whole(counter.packets), whole(counter.bytes) }
    if ruleset.profile then
        cells[4], cells[5] = whole(since.packets), whole(since.bytes)
    end
    cells[#cells + 1] = rule_text.render(rule)
    return cells
end

local function header(ruleset)
    if not ruleset.profile then return { "handle", "packets", "bytes", "rule" } end
    return { "handle", "packets", "bytes", "+packets", "+bytes", "rule" }
end

-- All rows share their columns, so the titles of the chains are put in between afterwards.
local function rule_lines(ruleset)
    local rows, titles = { header(ruleset) }, {}
    for _, chain in ipairs(ruleset.chains) do
        titles[#rows + 1] = chain.title .. (chain.hook or "")
        if #chain.rules == 0 then titles[#rows + 1] = nil end
        for _, rule in ipairs(chain.rules) do rows[#rows + 1] = row(ruleset, rule) end
    end
    local right = { true, true, true, ruleset.profile ~= nil, ruleset.profile ~= nil }
    local lines = {}
    for i, line in ipairs(text.columns(rows, right)) do
        if titles[i] then lines[#lines + 1] = titles[i] end
        lines[#lines + 1] = line
    end
    return lines
end

local function counter_lines(ruleset)
    if #ruleset.counters == 0 then return {} end
    local rows = { { "packets", "bytes", "named counter" } }
    for i, counter in ipairs(ruleset.counters) do
        rows[i + 1] = { whole(counter.packets), whole(counter.bytes),
                        ("%s %s %s"):format(plain(counter.family), plain(counter.table),
                            plain(counter.name)) }
    end
    return text.columns(rows, { true, true })
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

-- The profile as text, or nil and what is wrong with it.
function rule_profile.render(vxa, payload)
    local ok, message, line, column = vxa.check_json(payload)
    if not ok then return nil, ("line %d, column %d: %s"):format(line, column, message) end
    local objects = as_table(json.decode(payload, 1, json.null)).nftables
    if type(objects) ~= "table" then return nil, "no listing of rules" end
    local ruleset = read(objects)
    local lines = { summary(ruleset) }
    if ruleset.rules > 0 then
        for _, text_line in ipairs(rule_lines(ruleset)) do lines[#lines + 1] = text_line end
    end
    for _, text_line in ipairs(counter_lines(ruleset)) do lines[#lines + 1] = text_line end
    return table.concat(lines, "\n")
end

return rule_profile
