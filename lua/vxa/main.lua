-- Runs the command that the arguments name and returns its exit status.

local command_line = require "vxa.command_line"
local console = require "vxa.output.console"
local exit = require "vxa.exit"
local session = require "vxa.session"

local function version_line()
    local vxa = session.load_host()
    return ("vxa %s (%s, engines %s)"):format(vxa.version, _VERSION,
        table.concat(vxa.engines(), ", "))
end

local function perform(arguments)
    local parsed, message = command_line.parse(arguments)
    if not parsed then exit.fail(2, "%s", message) end
    if parsed.version then
        console.line(version_line())
        return 0
    end
    return require("vxa.commands." .. parsed.command).run(parsed)
end

-- The exit status and the message for an error. Internal errors keep their file and line.
local function describe(err)
    if type(err) == "table" then return err.status, err.message end
    if exit.is_interrupt(err) then return exit.signal_status("SIGINT") end
    -- bin/vxa knows which package has a missing Lua module.
    if tostring(err):find("module '%w+' not found") then error(err, 0) end
    return 1, "internal error: " .. tostring(err)
end

return function(arguments)
    local ok, result = pcall(perform, arguments)
    if ok then return result end
    local status, message = describe(result)
    if message then console.complain(message) end
    return status
end
