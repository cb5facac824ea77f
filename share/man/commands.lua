-- The commands of vxa with their options and arguments, as the command's own parser has them.

local command_line = require "vxa.command_line"

-- Returns the placeholder of an option's value, or nil for a flag.
local function value_of(option)
    return option._maxargs > 0 and option._argname or nil
end

local function describe_option(option)
    return { names = option._aliases, value = value_of(option), required = option._mincount > 0,
             repeated = option._maxcount > 1 }
end

local function describe_argument(argument)
    return { name = argument._name, optional = argument._minargs == 0 }
end

local function map(list, convert)
    local converted = {}
    for _, item in ipairs(list) do converted[#converted + 1] = convert(item) end
    return converted
end

local function describe(command)
    return { name = command._name, options = map(command._options, describe_option),
             arguments = map(command._arguments, describe_argument) }
end

-- Returns an array with the commands in the order of the help; `main` has the options of vxa
-- without a command.
return function()
    local parser = command_line.parser()
    local commands = map(parser._commands, describe)
    commands.main = describe(parser)
    return commands
end
