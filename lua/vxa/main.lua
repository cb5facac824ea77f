-- Runs the command that the arguments name and returns its exit status.

local command_line = require "vxa.command_line"
local console = require "vxa.output.console"
local exit = require "vxa.exit"
local printable = require "vxa.output.printable"
local session = require "vxa.session"

-- The command, then the files that the process has loaded, whichever installation they are from.
local function show_versions()
    local vxa = session.load_host()
    console.line("vxa %s (%s, engines %s)", vxa.version, _VERSION,
        table.concat(vxa.engines(), ", "))
    session.load_filter()
    for _, file in ipairs(vxa.versions()) do
        console.line("%-14s  %-8s  %-40s  %s", file.name, printable(file.version or "-"),
            file.build_id or "-", printable(file.path))
    end
end

local function perform(arguments)
    local parsed, message = command_line.parse(arguments)
    if not parsed then exit.fail(2, "%s", message) end
    if parsed.version then
        show_versions()
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
