-- The command line.

local argparse = require "argparse"

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

local LONGEST_INTERVAL_S = 86400

local function interval(text)
    local number = decimal(text)
    if number and number > 0 and number <= LONGEST_INTERVAL_S then return number end
    return nil, ("--interval must be seconds above 0 and up to %d, not '%s'")
        :format(LONGEST_INTERVAL_S, text)
end

local function add_common(command)
    command:option("--policy", "Health policy, a JSON file. Without it: /etc/vx_filter.conf, "
        .. "or the built-in default where that does not exist."):argname("FILE")
    command:option("--port", "Monitor the connections of this port. Takes the place of the "
        .. "policy's port and adds connection thresholds to a policy that has none.")
        :argname("N"):convert(whole("--port", 1, 65535))
    command:flag("--outbound", "The port is that of remote servers; without it, of servers here.")
    command:option("--engine", "What plays the packet filter: linux (default) or sim.")
        :argname("NAME")
    command:option("--trace", "Show the module's messages of this category, such as "
        .. "SysHealth.eng or 'SysHealth.*'. May be repeated.")
        :argname("CATEGORY"):count("*"):target("traces")
    command:flag("--json", "One JSON object a line instead of text.")
end

local function build()
    local parser = argparse("vxa")
        :description("Health monitoring with fail-open: watches this machine and says when a "
            .. "network filter should stop enforcing, and when it may enforce again.")
        :epilog("Exit status: 0 done; 1 the run failed; 2 the call or the policy is wrong.")
        :help_max_width(90):usage_max_width(90):command_target("command")
    parser:flag("--version", "Show the version and exit.")
    parser:require_command(false)

    local run = parser:command("run", "Run health check cycles and show each.")
    add_common(run)
    run:option("--interval", "Seconds from one cycle to the next (default 10)."):argname("SECONDS")
        :convert(interval):default(10)
    run:option("--cycles", "End after this many cycles."):argname("N")
        :convert(whole("--cycles", 1, 1000000000))
    run:option("--state", "Keep the host document and its events in this folder."):argname("DIR")

    local status = parser:command("status", "Run one cycle and show what is monitored, and how "
        .. "far this machine allows it.")
    add_common(status)
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

-- The options as a table, or nil and what is wrong. Help ends the process.
function options.parse(arguments)
    local parser = build()
    local ok, parsed = parser:pparse(bind_negative_numbers(arguments))
    if not ok then return nil, (parsed:gsub("\nDid you mean", "; did you mean")) end
    if parsed.outbound and not parsed.port then return nil, "--outbound needs --port" end
    if not parsed.version and not parsed.command then
        return nil, "no command given: use 'vxa run' or 'vxa status' (vxa --help tells more)"
    end
    return parsed
end

return options
