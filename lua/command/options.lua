-- The command line.

local argparse = require "argparse"
local console = require "command.console"

local options = {}

-- Plain decimal notation: Lua's own conversion would take "0x1BB" for a port.
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

local function named(what)
    return function(text)
        if text ~= "" then return text end
        return nil, what .. " has an empty name"
    end
end

local LONGEST_INTERVAL_S = 86400

local function seconds(name)
    return function(text)
        local number = decimal(text)
        if number and number > 0 and number <= LONGEST_INTERVAL_S then return number end
        return nil, ("%s must be seconds above 0 and up to %d, not '%s'")
            :format(name, LONGEST_INTERVAL_S, text)
    end
end

local function add_driver(command)
    command:option("--engine", "What plays the packet filter: linux (default) or sim.")
        :argname("NAME")
    command:option("--trace", "Show the module's messages of this category, such as "
        .. "SysHealth.eng or 'SysHealth.*'. May be repeated.")
        :argname("CATEGORY"):count("*"):target("traces")
end

local function add_policy(command)
    command:option("--policy", "Health policy, a JSON file. Without it: /etc/vx_filter.conf, "
        .. "or the built-in default where that does not exist."):argname("FILE")
        :convert(named("the file of --policy"))
    command:option("--port", "Monitor the connections of this port: where redirected (DNAT), the "
        .. "one they are redirected to; what is forwarded to containers does not count. Takes "
        .. "the place of the policy's port and adds connection thresholds to a policy without.")
        :argname("N"):convert(whole("--port", 1, 65535))
    command:flag("--lenient", "Take members of the wrong type as the module does, and warn.")
    command:flag("--outbound", "The port is that of remote servers; without it, of servers here.")
end

local function add_json(command)
    command:flag("--json", "One JSON object a line instead of text.")
end

local function add_cycles(command, what)
    command:option("--interval", ("Seconds from one %s to the next (default 10)."):format(what))
        :argname("SECONDS"):convert(seconds("--interval")):default(10)
    command:option("--cycles", ("End after this many %ss."):format(what)):argname("N")
        :convert(whole("--cycles", 1, 1000000000))
end

local function add_state(command)
    command:option("--state", "Keep the host document and its events in this folder.")
        :argname("DIR"):convert(named("the folder of --state"))
end

local function add_run(parser)
    local run = parser:command("run", "Run health check cycles and show each.")
    add_policy(run)
    add_driver(run)
    add_json(run)
    add_cycles(run, "cycle")
    add_state(run)
end

local function add_status(parser)
    local status = parser:command("status", "Run one cycle and show what is monitored, and how "
        .. "far this machine allows it.")
    add_policy(status)
    add_driver(status)
    add_json(status)
end

local function add_connections(parser)
    local connections = parser:command("connections",
        "Feed the module the connections of this machine and show its reports.")
    connections:epilog("The module publishes what it was fed at most once in 61 seconds, so the "
        .. "first report comes 61 seconds after the start. Until Ctrl-C or --cycles, a line for "
        .. "each sample shows what is new; what was not published by then is shown as such.")
    add_driver(connections)
    add_json(connections)
    add_cycles(connections, "sample")
end

local function add_diag(parser)
    local diag = parser:command("diag", "Write a diagnostic package with the driver's tables.")
    diag:argument("OUT.zip", "The package to write."):target("archive")
        :convert(named("the package"))
    diag:flag("--force", "Replace the file if there is one.")
    diag:option("--profile", "Profile the rules for SECONDS and include per-rule counters in "
        .. "the package."):argname("SECONDS"):convert(seconds("--profile"))
    add_driver(diag)
    add_state(diag)
end

local function add_show(parser)
    local show = parser:command("show", "List a diagnostic package, or print an entry of it.")
    show:argument("OUT.zip", "The package."):target("archive"):convert(named("the package"))
    show:argument("ENTRY", "The entry to print."):target("entry"):args("?")
    show:flag("--raw", "Write the entry's bytes unchanged.")
end

-- In place of the library's own, which does not see whether anybody could be told. Help
-- ends the process, because what else is on the line need not be complete.
local function show_help(command)
    local ok, fault = pcall(console.write, command:get_help() .. "\n")
    if ok then os.exit(0, true) end
    if type(fault) ~= "table" then error(fault, 0) end
    if fault.message then console.complain(fault.message) end
    os.exit(fault.status, true)
end

local function take_help_over(parser)
    for _, command in ipairs { parser, table.unpack(parser._commands) } do
        command:add_help { action = function() show_help(command) end }
    end
end

local function build()
    local parser = argparse("vxa")
        :description("Plays the filter script of a host security agent: watches this machine's "
            .. "health and says when a network filter should stop enforcing, reports "
            .. "connections, and packs up the driver's tables.")
        :epilog("Exit status: 0 done; 1 the run failed; 2 the call or the policy is wrong.")
        :help_max_width(80):usage_max_width(80):command_target("command")
    parser:flag("--version", "Show the version and exit.")
    parser:require_command(false)
    add_run(parser)
    add_status(parser)
    add_connections(parser)
    add_diag(parser)
    add_show(parser)
    take_help_over(parser)
    return parser
end

-- A negative number is meant as the value of the option before it, not as an option.
local function bind_negative_numbers(arguments)
    local bound = {}
    for _, text in ipairs(arguments) do
        local previous = bound[#bound]
        if text:find("^%-[%d.]") and previous and previous:find("^%-%-[%a]+$") then
            bound[#bound] = previous .. "=" .. text
        else
            bound[#bound + 1] = text
        end
    end
    return bound
end

-- "vxa help [COMMAND]" is "vxa [COMMAND] --help".
local function with_help_option(arguments)
    if arguments[1] ~= "help" then return arguments end
    return { arguments[2] or "--help", arguments[2] and "--help" }
end

-- The options as a table, or nil and what is wrong. Help ends the process.
function options.parse(arguments)
    local parser = build()
    local ok, parsed = parser:pparse(bind_negative_numbers(with_help_option(arguments)))
    if not ok then return nil, (parsed:gsub("\nDid you mean", "; did you mean")) end
    if parsed.outbound and not parsed.port then return nil, "--outbound needs --port" end
    if parsed.lenient and not parsed.policy then return nil, "--lenient needs --policy" end
    if parsed.raw and not parsed.entry then return nil, "--raw needs an entry" end
    if not parsed.version and not parsed.command then
        return nil, "no command given: use 'vxa run', 'vxa status', 'vxa connections', 'vxa diag' "
            .. "or 'vxa show' (vxa --help tells more)"
    end
    return parsed
end

return options
