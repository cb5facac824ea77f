-- One nftables rule, from JSON, as a line close to what nft prints. Anything without a short
-- form here stays JSON, so that nothing is left out.
--
-- The JSON schema is libnftables-json(5).

local json = require "dkjson"

local printable = require "vxa.output.printable"

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

-- ---- expressions ------------------------------------------------------------------------

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

-- Several flags as one operand need brackets.
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
    local kind, operands = next(value)
    if verdicts[kind] and type(operands) ~= "table" or kind and operands == json.null then
        return tostring(kind)
    end
    if kind == "jump" or kind == "goto" then
        local target = type(operands) == "table" and expression(operands.target) or "?"
        return ("%s %s"):format(kind, target)
    end
    local render = type(operands) == "table" and expressions[kind]
    return render and render(operands) or word(value)
end

-- ---- statements -------------------------------------------------------------------------

-- nft omits "==" after a plain field.
local function relation(x)
    local left = type(x.left) == "table" and next(x.left) or nil
    if x.op == "in" or (x.op == "==" and not operators[left]) then return "" end
    return word(x.op)
end

-- The pairs of a verdict map.
local function verdict_pairs(data)
    local set = type(data) == "table" and data.set
    if type(set) ~= "table" then return expression(data) end
    local parts = {}
    for i, pair in ipairs(set) do parts[i] = list(pair, " : ") end
    return "{ " .. table.concat(parts, ", ") .. " }"
end

local function address_translation(kind)
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
    vmap = function(x) return ("%s vmap %s"):format(expression(x.key), verdict_pairs(x.data)) end,
    mangle = function(x) return ("%s set %s"):format(expression(x.key), expression(x.value)) end,
    set = function(x)
        return ("%s %s { %s }"):format(word(x.op), word(x.set), expression(x.elem))
    end,
    snat = address_translation "snat", dnat = address_translation "dnat",
}

-- An anonymous counter is shown in columns; one that rules share has a name.
local function statement(kind, operands)
    if kind == "counter" then
        return type(operands) == "string" and "counter name " .. operands or ""
    end
    if operands == json.null then return kind end
    if type(operands) ~= "table" then return words(kind, operands) end
    if next(operands) == nil then return kind end
    local render = statements[kind]
    return render and render(operands) or kind .. " " .. word(operands)
end

local line = {}

-- Returns the line of a rule that was decoded with json.null for null, without which
-- {"accept": null} would be empty.
function line.rule(rule)
    local parts = {}
    for _, part in ipairs(type(rule.expr) == "table" and rule.expr or {}) do
        if type(part) == "table" then
            local kind, operands = next(part)
            local written = kind and statement(tostring(kind), operands) or ""
            if written ~= "" then parts[#parts + 1] = written end
        end
    end
    if type(rule.comment) == "string" then
        parts[#parts + 1] = ('comment "%s"'):format(rule.comment)
    end
    return printable(table.concat(parts, " "))
end

-- Returns an expression, such as an element of a set, as nft writes it.
function line.expression(value)
    return printable(expression(value))
end

return line
