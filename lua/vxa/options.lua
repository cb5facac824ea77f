-- The command line: commands, options and the checks of their values.

local argparse = require "argparse"
local console = require "vxa.output.console"
local filter = require "filter"

local options = {}

-- ---- values -----------------------------------------------------------------------------

-- Decimal notation only: tonumber would accept "0x1BB" as a port.
local function decimal(text)
    return text:match("^%d+%.?%d*$") and tonumber(text) or text:match("^%.%d+$") and tonumber(text)
end

local function whole(name, lowest, highest)
    return function(text)
        local number = text:match("^%d+$") and tonumber(text)
        if number and number >= lowest and number <= highest then return number end
        return nil, ("%s must be a whole number from %d to %d, not '%s'")
            :format(name, lowest, highest, text)
    end
end

local LONGEST_INTERVAL_S = 86400

local function seconds(name)
    return function(text)
        local number = decimal(text)
        if number and number > 0 and number <= LONGEST_INTERVAL_S then return number end
        return nil, ("%s must be a number of seconds above 0, at most %d, not '%s'")
            :format(name, LONGEST_INTERVAL_S, text)
    end
end

local function file_name(option)
    return function(text)
        if text ~= "" then return text end
        return nil, option .. ": the file name is empty"
    end
end

-- ---- options that commands share --------------------------------------------------------

local function add_driver(command)
    command:option("--engine", "Packet filter engine: linux (default) or sim."):argname("NAME")
    command:option("--trace", "Show the module's messages of a trace category, such as "
        .. "SysHealth.eng or 'SysHealth.*'. May be repeated.")
        :argname("CATEGORY"):count("*"):target("traces")
end

local function add_policy(command)
    command:option("--policy", "Health policy, a JSON file. Default: /etc/vx_filter.conf if it "
        .. "exists, otherwise a built-in policy."):argname("FILE"):convert(file_name("--policy"))
    command:option("--port", "Monitor the connections of this port. Where connections are "
        .. "redirected (DNAT), this is the port they are redirected to; traffic forwarded to "
        .. "containers is not counted. Overrides the policy's port, and adds connection "
        .. "thresholds if the policy has none."):argname("N"):convert(whole("--port", 1, 65535))
    command:flag("--lenient", "Accept policy members of the wrong type as the module does, and "
        .. "warn about them.")
    command:flag("--outbound", "The port is on remote servers. Default: on this machine.")
end

local function add_json(command)
    command:flag("--json", "Print one JSON object per line.")
end

local function add_cycles(command, what)
    command:option("--interval", ("Seconds from one %s to the next (default 10)."):format(what))
        :argname("SECONDS"):convert(seconds("--interval")):default(10)
    command:option("--cycles", ("Stop after N %ss."):format(what)):argname("N")
        :convert(whole("--cycles", 1, 1000000000))
end

local function add_state(command)
    command:option("--state", "Keep the host document and its events in this directory.")
        :argname("DIR"):convert(file_name("--state"))
end

-- ---- commands ---------------------------------------------------------------------------

local function add_run(parser)
    local run = parser:command("run", "Run health check cycles and print a line for each.")
    add_policy(run)
    add_driver(run)
    add_json(run)
    add_cycles(run, "cycle")
    add_state(run)
end

local function add_status(parser)
    local status = parser:command("status", "Run one cycle and show what is monitored and what "
        .. "this machine supports.")
    add_policy(status)
    add_driver(status)
    add_json(status)
end

local function add_connections(parser)
    local connections = parser:command("connections",
        "Feed this machine's connections to the module and show its reports.")
    connections:epilog(("The module publishes at most once every %d seconds, so the first report "
        .. "comes %d seconds after the start. Until Ctrl-C or --cycles, each sample prints a line "
        .. "with the number of new connections. Connections that were not published by then are "
        .. "listed at the end."):format(filter.PUBLICATION_INTERVAL_S,
        filter.PUBLICATION_INTERVAL_S))
    add_driver(connections)
    add_json(connections)
    add_cycles(connections, "sample")
end

local function add_diag(parser)
    local diag = parser:command("diag", "Write a diagnostic package with the driver's tables.")
    diag:argument("OUT.zip", "The package to write."):target("archive")
        :convert(file_name("OUT.zip"))
    diag:flag("--force", "Replace an existing file.")
    diag:option("--profile", "Profile the rules for SECONDS and include per-rule counters in "
        .. "the package."):argname("SECONDS"):convert(seconds("--profile"))
    add_driver(diag)
    add_state(diag)
end

local function add_show(parser)
    local show = parser:command("show", "List a diagnostic package, or print one of its entries.")
    show:argument("OUT.zip", "The package."):target("archive"):convert(file_name("OUT.zip"))
    show:argument("ENTRY", "The entry to print."):target("entry"):args("?")
    show:flag("--raw", "Write the entry's bytes unchanged.")
end

-- Prints the help and ends the process, as argparse does, since the rest of the line may be
-- incomplete. argparse itself ignores write errors.
local function show_help(command)
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

local function build_parser()
    local parser = argparse("vxa")
        :description("Plays the filter script of a host security agent: monitors this machine's "
            .. "health and decides when a network filter should stop enforcing, reports "
            .. "connections, and packages the driver's tables.")
        :epilog("Exit status: 0 success; 1 the run failed; 2 wrong arguments or policy.")
        :help_max_width(80):usage_max_width(80):command_target("command")
    parser:flag("--version", "Show the version and exit.")
    parser:require_command(false)
    add_run(parser)
    add_status(parser)
    add_connections(parser)
    add_diag(parser)
    add_show(parser)
    replace_help(parser)
    return parser
end

-- ---- parsing ----------------------------------------------------------------------------

-- argparse takes a negative number for an option: attach it to the option in front of it, whose
-- check then refuses it by name.
local function attach_negative_numbers(arguments)
    local attached = {}
    for _, text in ipairs(arguments) do
        local previous = attached[#attached]
        if text:find("^%-[%d.]") and previous and previous:find("^%-%-[%a]+$") then
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
function options.parse(arguments)
    local parser = build_parser()
    local ok, parsed = parser:pparse(attach_negative_numbers(with_help_option(arguments)))
    if not ok then return nil, (parsed:gsub("\nDid you mean", "; did you mean")) end
    if parsed.outbound and not parsed.port then return nil, "--outbound needs --port" end
    if parsed.lenient and not parsed.policy then return nil, "--lenient needs --policy" end
    if parsed.raw and not parsed.entry then return nil, "--raw needs an entry" end
    if not parsed.version and not parsed.command then
        return nil, "no command given; vxa --help lists the commands"
    end
    return parsed
end

return options
