-- Runs the command that the arguments name; returns the exit status.

local console = require "command.console"
local interruption = require "command.interruption"
local options = require "command.options"

local function version_line()
    local vxa = require("command.session").host()
    return ("vxa %s (%s, engines %s)"):format(vxa.version, _VERSION,
        table.concat(vxa.engines(), ", "))
end

local function perform(arguments)
    local parsed, refusal = options.parse(arguments)
    if not parsed then error({ status = 2, message = refusal }, 0) end
    if parsed.version then
        console.line(version_line())
        return 0
    end
    return require("command." .. parsed.command)(parsed)
end

-- Faults of this program's own keep their place in the text; the rest is for users.
local function describe(fault)
    if type(fault) == "table" then return fault.status, fault.message end
    if interruption.is_cause(fault) then return 130 end
    -- The caller names the package of a Lua module that is missing.
    if tostring(fault):find("module '%w+' not found") then error(fault, 0) end
    return 1, "internal error: " .. tostring(fault)
end

return function(arguments)
    local ok, result = pcall(perform, arguments)
    if ok then return result end
    local status, message = describe(result)
    if message then console.complain(message) end
    return status
end
