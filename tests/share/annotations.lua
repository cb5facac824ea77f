-- Reads LuaLS annotations, and checks values and calls against them.

local annotations = { classes = {}, aliases = {}, functions = {}, constants = {}, problems = {},
                      modules = {} }

local BUILTIN = { boolean = "boolean", string = "string", number = "number", any = "any",
                  table = "table", ["function"] = "function", ["nil"] = "nil" }

local function complain(format, ...)
    table.insert(annotations.problems, format:format(...))
end

-- ---- types ------------------------------------------------------------------------------

local union_at

-- `(A|B)`, `fun(…): T`, `"literal"`, a number, or a name with its arguments in `<>`.
local function primary_at(text, at)
    local literal, stop = text:match('^("[^"]*")()', at)
    if not literal then literal, stop = text:match("^(%d+)()", at) end
    if literal then return { literal = literal:match '^"(.*)"$' or tonumber(literal) }, stop end
    if text:find("^%(", at) then
        local inner
        inner, stop = union_at(text, at + 1)
        return inner, text:match("^%)()", stop) or error "')' expected"
    end
    stop = text:match("^fun%b()()", at)
    if stop then
        local result = text:match("^: ()", stop)
        while result do
            stop = select(2, union_at(text, result))
            result = text:match("^, ()", stop)
        end
        return { name = "function" }, stop
    end
    local name
    name, stop = text:match("^([%a_][%w_.]*)()", at)
    if not name then error "a type expected" end
    local node = { name = name }
    if text:find("^<", stop) then
        node.key, stop = union_at(text, stop + 1)
        node.value, stop = union_at(text, text:match("^, ()", stop) or error "',' expected")
        stop = text:match("^>()", stop) or error "'>' expected"
    end
    return node, stop
end

function union_at(text, at)
    local union = {}
    repeat
        local node
        node, at = primary_at(text, at)
        while text:find("^%[%]", at) do node, at = { element = node }, at + 2 end
        if text:find("^%?", at) then union[#union + 1], at = { name = "nil" }, at + 1 end
        union[#union + 1] = node
        local more = text:match("^|()", at)
        at = more or at
    until not more
    return union, at
end

local function type_of(text, line)
    local ok, node, stop = pcall(union_at, text, 1)
    if ok and text:find("^%f[ \0]", stop) then return node, text:sub(stop + 1) end
    complain("%s: not a type: %s", line, ok and text or node)
    return { { name = "any" } }, ""
end

-- ---- lines ------------------------------------------------------------------------------

local class, alias, block  -- what the next lines belong to

local tags = {}

function tags.meta() end

function tags.class(text, line)
    local name, parent = text:match "^([%w_.]+):? ?([%w_.]*)$"
    if not name then return complain("%s: not a class: %s", line, text) end
    class = annotations.classes[name] or { name = name, fields = {}, methods = {} }
    class.parent = parent ~= "" and parent or class.parent
    annotations.classes[name], block.class = class, class
end

function tags.field(text, line)
    text = text:gsub("^private ", "")
    local name, optional, rest = text:match '^%[?"?([%w_.]+)"?%]?(%??) (.+)$'
    if not name then return complain("%s: not a field: %s", line, text) end
    local node = type_of(rest, line)
    if text:find '^%[[^"]' then
        class.key, class.value = type_of(name, line), node
    elseif rest:find "^function" then
        class.methods[name] = line
    else
        class.fields[name] = { node = node, is_optional = optional == "?" }
    end
end

function tags.alias(text, line)
    local name, rest = text:match "^([%w_.]+) ?(.*)$"
    alias = rest ~= "" and type_of(rest, line) or {}
    annotations.aliases[name] = alias
end

function tags.param(text, line)
    local name, optional, rest = text:match "^([%w_.]+)(%??) (.+)$"
    if not name then return complain("%s: not a parameter: %s", line, text) end
    local node = type_of(rest, line)
    table.insert(block.params, { name = name, node = node, is_optional = optional == "?" })
end

function tags.returns(text, line)
    table.insert(block.returns, { node = type_of(text, line) })
end

function tags.type(text, line)
    block.type = type_of(text, line)
end

-- Class names by the variables of the file that are bound to them.
local variables

local function declare(name, params, line)
    local owner, method = name:match "^([%w_]+):([%w_]+)$"
    local full = owner and variables[owner] .. ":" .. method or name
    local names = {}
    for i, param in ipairs(block.params) do names[i] = param.name end
    if table.concat(names, ", ") ~= params then complain("%s: parameters of %s", line, full) end
    if not block.text then complain("%s: no description of %s", line, full) end
    annotations.functions[full] = block
    local module, member = name:match "^(.+)%.([%w_]+)$"
    local holder = annotations.classes[owner and variables[owner] or module]
    if holder then holder.methods[method or member] = line end
end

local function read_line(text, line)
    local tag, rest = text:match "^%-%-%-@(%a+) ?(.*)$"
    if tag then
        local read = tags[tag == "return" and "returns" or tag]
        return read and read(rest, line) or not read and complain("%s: unknown tag %s", line, tag)
    elseif text:find "^%-%-%-| " then
        table.insert(alias, type_of(text:sub(6), line)[1])
        return
    elseif text:find "^%-%-%-" then
        block.text = true
        return
    end
    local variable = text:match "^local ([%w_]+) = {}$"
    local name, params = text:match "^function ([%w_.:]+)%((.*)%) end$"
    local constant, value = text:match "^([%w_.]+) = (.+)$"
    if variable then variables[variable] = block.class and block.class.name or variable end
    if name then declare(name, params, line) end
    if constant then annotations.constants[constant] = { source = value, node = block.type } end
    block = { params = {}, returns = {} }
end

function annotations.read(path)
    local number = 0
    class, alias, variables, block = nil, nil, {}, { params = {}, returns = {} }
    for text in io.lines(path) do
        number = number + 1
        read_line(text, ("%s:%d"):format(path:match "[^/]+$", number))
    end
end

-- ---- values -----------------------------------------------------------------------------

local seen = {}  -- by field: true

local fits

local function fits_class(value, fitting)
    local fields, parent = {}, fitting
    while parent do
        for name, field in pairs(parent.fields) do fields[name] = { field, parent.name } end
        parent = annotations.classes[parent.parent]
    end
    for name, field in pairs(fields) do
        local found = value[name]
        if found ~= nil then seen[field[2] .. "." .. name] = true end
        if found == nil and not field[1].is_optional then return false, name .. " is missing" end
        if found ~= nil and not fits(found, field[1].node) then return false, name .. " differs" end
    end
    local is_row = type(value) == "table" and not next(fitting.methods)
    for name, found in pairs(is_row and value or {}) do
        local is_listed = fitting.key and fits(name, fitting.key) and fits(found, fitting.value)
        if not fields[name] and not is_listed then return false, name .. " is not annotated" end
    end
    return true
end

local function fits_all(value, key, element)
    if type(value) ~= "table" then return false, "not a table" end
    for k, v in pairs(value) do
        local ok, why = fits(k, key)
        if ok then ok, why = fits(v, element) end
        if not ok then return false, ("[%s]: %s"):format(tostring(k), why) end
    end
    return true
end

local NUMBER = { { name = "number" } }

local function fits_name(value, node)
    local name = node.name
    if name == "any" then return true end
    if name == "true" or name == "false" then return tostring(value) == name, "not " .. name end
    if name == "integer" then
        return type(value) == "number" and value % 1 == 0, "not an integer"
    end
    if BUILTIN[name] and not node.key then return type(value) == name, "not a " .. name end
    if name == "table" then return fits_all(value, node.key, node.value) end
    if annotations.aliases[name] then return fits(value, annotations.aliases[name]) end
    if type(value) ~= "table" and type(value) ~= "userdata" then return false, "not " .. name end
    return fits_class(value, annotations.classes[name])
end

-- Returns whether the value is of one of the types, or false and why not.
function fits(value, union)
    local reasons = {}
    for _, node in ipairs(union) do
        local ok, why
        if node.element then
            ok, why = fits_all(value, NUMBER, { node.element })
        elseif node.literal then
            ok, why = value == node.literal, "not " .. node.literal
        elseif node.name then
            ok, why = fits_name(value, node)
        else
            ok, why = fits(value, node)
        end
        if ok then return true end
        reasons[#reasons + 1] = why
    end
    return false, table.concat(reasons, ", ")
end

function annotations.check(value, node, what)
    local ok, why = fits(value, node)
    if not ok then complain("%s: %s", what, why) end
end

-- Calls the function of that name, or the method of the first argument, and checks arguments and
-- results; returns the results.
function annotations.call(name, ...)
    local declared = annotations.functions[name] or error("no function " .. name)
    declared.is_called = true
    local arguments = table.pack(...)
    local owner, mark, member = name:match "^(.+)([.:])([%w_]+)$"
    local first = mark == ":" and 1 or 0
    local f = first == 1 and arguments[1][member] or annotations.modules[owner][member]
    for i, param in ipairs(declared.params) do
        local value = arguments[first + i]
        if not (value == nil and param.is_optional) then
            annotations.check(value, param.node, name .. ", parameter " .. param.name)
        end
    end
    local results = table.pack(f(...))
    for i = 1, math.max(results.n, #declared.returns) do
        local result = declared.returns[i]
        if not result then
            complain("%s: result %d is not annotated", name, i)
        else
            annotations.check(results[i], result.node, ("%s, result %d"):format(name, i))
        end
    end
    return table.unpack(results, 1, results.n)
end

-- Adds a problem for each type that is not known, and what no call has shown.
function annotations.finish()
    for name, declared in pairs(annotations.functions) do
        if not declared.is_called then complain("%s is not called", name) end
    end
    for name, declared in pairs(annotations.classes) do
        for field in pairs(declared.fields) do
            if not seen[name .. "." .. field] then complain("%s.%s is not seen", name, field) end
        end
    end
    table.sort(annotations.problems)
    return annotations.problems
end

return annotations
