-- Options that several commands have, and the checks of their values.

local policy_source = require "vxa.policy_source"
local times = require "vxa.times"

local options = {}

-- ---- values -----------------------------------------------------------------------------

-- Each returns a converter for argparse, which returns the value or nil and a message.

function options.whole(name, lowest, highest)
    return function(text)
        local number = text:match("^%d+$") and tonumber(text)
        if number and number >= lowest and number <= highest then return number end
        return nil, ("%s must be a whole number from %d to %d, not '%s'")
            :format(name, lowest, highest, text)
    end
end

-- Decimal notation only: tonumber would also accept "0x1BB".
function options.decimal(text)
    return text:match("^%d+%.?%d*$") and tonumber(text) or text:match("^%.%d+$") and tonumber(text)
end

local LONGEST_INTERVAL_S = 86400

function options.seconds(name)
    return function(text)
        local number = options.decimal(text)
        if number and number > 0 and number <= LONGEST_INTERVAL_S then return number end
        return nil, ("%s must be a number of seconds above 0, at most %d, not '%s'")
            :format(name, LONGEST_INTERVAL_S, text)
    end
end

local function time(name)
    return function(text)
        local seconds = times.parse(text, os.time())
        if seconds then return seconds end
        if times.parse(text .. "Z") then
            return nil, ("%s %s does not exist: the local clock skips it"):format(name, text)
        end
        return nil, ("%s must be a date (2026-11-22), a time (2026-11-22T04:06; in UTC with Z at "
            .. "its end) or a duration (7d, 12h, 30m), not '%s'"):format(name, text)
    end
end

function options.file_name(option)
    return function(text)
        if text ~= "" then return text end
        return nil, option .. ": the file name is empty"
    end
end

-- ---- names of values ----------------------------------------------------------------------

options.ENGINES = { "linux", "sim" }
options.POLICY_FORMATS = { "policy", "conf" }

options.TRACE_CATEGORIES = { "filter", "diagnostics", "VXI", "SysHealth.eng", "SysHealth.scan",
                             "SysHealth.conf", "SysHealth.metr" }

-- ---- options ----------------------------------------------------------------------------

function options.add_engine(command)
    command:option("--engine", "Packet filter engine: linux (default) or sim."):argname("NAME")
end

function options.add_driver(command)
    options.add_engine(command)
    command:option("--trace", "Show the module's messages of a trace category, such as "
        .. "SysHealth.eng or 'SysHealth.*'. May be repeated.")
        :argname("CATEGORY"):count("*"):target("traces")
end

function options.add_record(command)
    command:argument("FILE.csv", "A record of vxa run --record."):target("record")
        :convert(options.file_name("FILE.csv"))
end

function options.add_lenient(command)
    command:flag("--lenient", "Accept policy members of the wrong type as the module does, and "
        .. "warn about them.")
end

function options.add_policy_file(command)
    command:option("--policy", ("Health policy, a JSON file. Default: %s if it exists, otherwise "
        .. "a built-in policy."):format(policy_source.CONF_PATH)):argname("FILE.json")
        :convert(options.file_name("--policy"))
end

function options.add_port(command)
    command:option("--port", "Monitor the connections of this port. Where connections are "
        .. "redirected (DNAT), this is the port they are redirected to; traffic forwarded to "
        .. "containers is not counted. Overrides the policy's port, and adds connection "
        .. "thresholds if the policy has none."):argname("N")
        :convert(options.whole("--port", 1, 65535))
    command:flag("--outbound", "The port is on remote servers. Default: on this machine.")
end

function options.add_policy(command)
    options.add_policy_file(command)
    options.add_lenient(command)
    options.add_port(command)
end

-- `meaning`: the words in front of "local date ... or time".
function options.add_time(command, name, meaning)
    command:option(name, meaning .. " local date (2026-11-22) or time (2026-11-22T04:06; in UTC "
        .. "with Z at its end), or this long ago (7d, 12h, 30m)."):argname("TIME")
        :convert(time(name))
end

function options.add_json(command)
    return command:flag("--json", "Print one JSON object per line.")
end

function options.add_cycles(command, what)
    command:option("--interval", ("Seconds from one %s to the next (default 10)."):format(what))
        :argname("SECONDS"):convert(options.seconds("--interval")):default(10)
    command:option("--cycles", ("Stop after N %ss."):format(what)):argname("N")
        :convert(options.whole("--cycles", 1, 1000000000))
end

function options.add_state(command, description)
    return command:option("--state", description):argname("DIR")
        :convert(options.file_name("--state"))
end

return options
