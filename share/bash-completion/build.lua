-- Writes the completion for bash: build.lua ROOT FILE.

local root, file = table.unpack(arg)
package.path = ("%s/share/man/?.lua;%s/lua/?.lua;%s"):format(root, root, package.path)

local commands = require "commands"
local options = require "vxa.options"

-- Placeholders: what they offer, if not files; those with a suffix offer files.
local VALUES = { NAME = options.ENGINES, CATEGORY = options.TRACE_CATEGORIES,
                 FORMAT = options.POLICY_FORMATS }
local FILES, NUMBERS = { "FILE", "DIR", "CMD", "ENTRY" }, { "N", "MIB", "SECONDS", "TIME" }

local known = {}
for name in pairs(VALUES) do known[name] = true end
for _, list in ipairs { FILES, NUMBERS } do
    for _, name in ipairs(list) do known[name] = true end
end

-- Returns the placeholder; one that is not known would silently offer nothing.
local function placeholder(name)
    if known[name] or name:find("^%u+%.%l+$") then return name end
    error(("what does the completion offer for %s? Add it to %s"):format(name, arg[0]), 0)
end

local function plain(word)
    return word:find("^[%w._-]+$") and word or error("not a plain word: " .. word)
end

local function words(list)
    local plain_words = {}
    for i, word in ipairs(list) do plain_words[i] = plain(word) end
    return table.concat(plain_words, " ")
end

local function option_words(list)
    local all = {}
    for _, option in ipairs(list) do
        for _, name in ipairs(option.names) do
            all[#all + 1] = plain(name) .. (option.value and "=" .. placeholder(option.value) or "")
        end
    end
    return table.concat(all, " ")
end

local function argument_names(command)
    local names = {}
    for i, argument in ipairs(command.arguments) do
        names[i] = placeholder(argument.name)
    end
    return table.concat(names, " ")
end

local function row(name, command, arguments)
    return ("        %s) options=(%s) arguments=(%s) ;;"):format(name,
        option_words(command.options), arguments)
end

local names, rows, values = {}, {}, {}
local all = commands()
for i, command in ipairs(all) do
    names[i], rows[i] = command.name, row(plain(command.name), command, argument_names(command))
end
table.insert(rows, row("help", { options = {} }, "COMMAND"))
table.insert(rows, row("*", all.main, ""))
VALUES.COMMAND = names
for name, list in pairs(VALUES) do
    values[#values + 1] = ("        %s) _vxa_words %s ;;"):format(name, words(list))
end
table.sort(values)

local template = assert(io.open(root .. "/share/bash-completion/vxa.in"))
local text = template:read("*a"):gsub("@(%u+)@", {
    COMMANDS = table.concat(rows, "\n"), VALUES = table.concat(values, "\n"), NAMES = words(names),
})
local output = assert(io.open(file, "w"))
assert(output:write(text))
assert(output:close())
