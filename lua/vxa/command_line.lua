-- The command line: the list of commands, help, and parsing.

local argparse = require "argparse"
local console = require "vxa.output.console"
local session = require "vxa.session"

local command_line = {}

-- In the order of the help. lua/vxa/commands has a file for each, with two functions:
-- `define(command)` adds description and options, `run(options)` returns the exit status.
local COMMANDS = { "run", "status", "check", "connections", "history", "diag", "show", "diff",
                   "redact", "plot", "replay", "tune" }

-- ---- the parser -------------------------------------------------------------------------

-- Prints the help and ends the process, as argparse does, since the rest of the line may be
-- incomplete. argparse itself ignores write errors.
local function show_help(command)
    pcall(session.load_host)  -- ignores SIGPIPE, but the help needs no module
    local ok, err = pcall(console.write, command:get_help() .. "\n")
    if ok then os.exit(0, true) end
    if type(err) ~= "table" then error(err, 0) end
    if err.message then console.complain(err.message) end
    os.exit(err.status, true)
end

local function replace_help(parser)
    for _, command in ipairs { parser, table.unpack(parser._commands) } do
        command:add_help { action = function() show_help(command) end }
    end
end

-- Returns the parser, for a run of the command and for what is generated from its options.
function command_line.parser()
    local parser = argparse("vxa")
        :description("Plays the filter script of a host security agent: monitors this machine's "
            .. "health and decides when a network filter should stop enforcing, reports "
            .. "connections, and packages the driver's tables.")
        :epilog("Exit status: 0 success; 1 the run failed; 2 wrong arguments or files.")
        :help_max_width(80):usage_max_width(80):command_target("command")
    parser:flag("--version", "Show the version and each library's build, and exit.")
    parser:require_command(false)
    for _, name in ipairs(COMMANDS) do
        require("vxa.commands." .. name).define(parser:command(name))
    end
    replace_help(parser)
    return parser
end

-- ---- parsing ----------------------------------------------------------------------------

-- argparse mistakes a negative number for an option: attach it to the option in front of it, whose
-- check then refuses it by name.
local function attach_negative_numbers(arguments)
    local attached = {}
    for _, text in ipairs(arguments) do
        local previous = attached[#attached]
        if text:find("^%-[%d.]") and previous and previous:find("^%-%-[%a-]+$") then
            attached[#attached] = previous .. "=" .. text
        else
            attached[#attached + 1] = text
        end
    end
    return attached
end

-- "vxa help [COMMAND]" is "vxa [COMMAND] --help".
local function with_help_option(arguments)
    if arguments[1] ~= "help" then return arguments end
    return { arguments[2] or "--help", arguments[2] and "--help" }
end

-- Returns the options as a table, or nil and what is wrong. Help ends the process.
function command_line.parse(arguments)
    local parser = command_line.parser()
    local ok, parsed = parser:pparse(attach_negative_numbers(with_help_option(arguments)))
    if not ok then return nil, (parsed:gsub("\nDid you mean", "; did you mean")) end
    if parsed.outbound and not parsed.port then return nil, "--outbound needs --port" end
    if parsed.lenient and not (parsed.policy or parsed.policies and parsed.policies[1]) then
        return nil, "--lenient needs --policy"
    end
    if parsed.observe and parsed.policy then
        return nil, "--observe judges nothing: leave out --policy"
    end
    if parsed.observe and not (parsed.record or parsed.metrics) then
        return nil, "--observe needs --record or --metrics"
    end
    if not parsed.version and not parsed.command then
        return nil, "no command given; vxa --help lists the commands"
    end
    return parsed
end

return command_line
