-- A rule of the JSON listing in a line, close to how nft itself writes it. What has no short
-- form here stays JSON, so nothing is left out.

local json = require "dkjson"

local printable = require "command.printable"

local rule_text = {}

local expression

-- JSON for what has no short form, a question mark for what is missing.
local function word(value)
    if value == nil then return "?" end
    return type(value) == "table" and json.encode(value) or tostring(value)
end

local function list(values, separator)
    local parts = {}
    if type(values) ~= "table" or #values == 0 then return expression(values) end
    for i, value in ipairs(values) do
        parts[i] = expression(value)
    end
    return table.concat(parts, separator)
end

local function words(...)
    local line
    for i = 1, select("#", ...) do
        local value = select(i, ...)
        if value ~= "" then line = line and line .. " " .. word(value) or word(value) end
    end
    return line or ""
end

local expressions = {
    payload = function(x)
        if x.base then return ("@%s,%s,%s"):format(word(x.base), word(x.offset), word(x.len)) end
        return words(x.protocol or "", x.field or "")
    end,
    meta = function(x) return "meta " .. word(x.key) end,
    ct = function(x) return words("ct", x.dir or "", x.key or "") end,
    set = function(x) return "{ " .. list(x, ", ") .. " }" end,
    range = function(x) return list(x, "-") end,
    concat = function(x) return list(x, " . ") end,
    prefix = function(x) return ("%s/%s"):format(expression(x.addr), expression(x.len)) end,
    elem = function(x) return expression(x.val) end,
    map = function(x) return ("%s map %s"):format(expression(x.key), expression(x.data)) end,
    fib = function(x) return ("fib %s %s"):format(list(x.flags, " . "), word(x.result)) end,
}
-- Puts several flags of one operand in brackets.
local function operand(value)
    if type(value) == "table" and #value > 1 then return "(" .. list(value, " | ") .. ")" end
    return expression(value)
end

local operators = {}
for _, operator in ipairs { "&", "|", "^", "<<", ">>" } do
    operators[operator] = true
    expressions[operator] = function(x)
        return ("%s %s %s"):format(operand(x[1]), operator, operand(x[2]))
    end
end

local verdicts = { accept = true, drop = true, ["return"] = true, continue = true, queue = true }

function expression(value)
    if type(value) ~= "table" then return word(value) end
    if #value > 0 then return list(value, ",") end
    local kind, content = next(value)
    if verdicts[kind] and type(content) ~= "table" or kind and content == json.null then
        return tostring(kind)
    end
    if kind == "jump" or kind == "goto" then
        local target = type(content) == "table" and expression(content.target) or "?"
        return ("%s %s"):format(kind, target)
    end
    local render = type(content) == "table" and expressions[kind]
    return render and render(content) or word(value)
end

-- nft leaves "==" out where a field stands alone.
local function relation(x)
    local left = type(x.left) == "table" and next(x.left) or nil
    if x.op == "in" or (x.op == "==" and not operators[left]) then return "" end
    return word(x.op)
end

-- The pairs of a map of verdicts.
local function pairs_of(data)
    local set = type(data) == "table" and data.set
    if type(set) ~= "table" then return expression(data) end
    local parts = {}
    for i, pair in ipairs(set) do parts[i] = list(pair, " : ") end
    return "{ " .. table.concat(parts, ", ") .. " }"
end

local function translation(kind)
    return function(x)
        local port = x.port and ":" .. expression(x.port) or ""
        return words(kind, x.addr and "to " .. expression(x.addr) .. port or port)
    end
end

local statements = {
    match = function(x) return words(expression(x.left), relation(x), expression(x.right)) end,
    jump = function(x) return "jump " .. word(x.target) end,
    ["goto"] = function(x) return "goto " .. word(x.target) end,
    log = function(x)
        return words("log", x.prefix and ('prefix "%s"'):format(word(x.prefix)) or "")
    end,
    reject = function(x)
        return words("reject", x.type and "with " .. word(x.type) or "",
            x.expr and expression(x.expr) or "")
    end,
    limit = function(x)
        return ("limit rate %s%s/%s"):format(x.inv and "over " or "", expression(x.rate),
            word(x.per))
    end,
    vmap = function(x) return ("%s vmap %s"):format(expression(x.key), pairs_of(x.data)) end,
    mangle = function(x) return ("%s set %s"):format(expression(x.key), expression(x.value)) end,
    set = function(x)
        return ("%s %s { %s }"):format(word(x.op), word(x.set), expression(x.elem))
    end,
    snat = translation "snat", dnat = translation "dnat",
}

-- A rule's anonymous counter has columns; one that it shares with others has a name.
local function statement(kind, content)
    if kind == "counter" then
        return type(content) == "string" and "counter name " .. content or ""
    end
    if content == json.null then return kind end
    if type(content) ~= "table" then return words(kind, content) end
    if next(content) == nil then return kind end
    local render = statements[kind]
    return render and render(content) or kind .. " " .. word(content)
end

-- `rule` as decoded with json.null for null: {"accept": null} would be empty otherwise.
function rule_text.render(rule)
    local parts = {}
    for _, part in ipairs(type(rule.expr) == "table" and rule.expr or {}) do
        if type(part) == "table" then
            local kind, content = next(part)
            local written = kind and statement(tostring(kind), content) or ""
            if written ~= "" then parts[#parts + 1] = written end
        end
    end
    if type(rule.comment) == "string" then
        parts[#parts + 1] = ('comment "%s"'):format(rule.comment)
    end
    return printable(table.concat(parts, " "))
end

return rule_text
