-- Sets up what the commands need, in the required order, and runs health check cycles.

local console = require "vxa.output.console"
local environment = require "vxa.machine.environment"
local exit = require "vxa.exit"
local filter = require "filter"
local messages = require "vxa.messages"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local resources = require "vxa.machine.resources"
local simulation = require "vxa.machine.simulation"

local session = {}

local function load_module(name)
    local ok, result = pcall(require, name)
    if ok then return result end
    if exit.is_interrupt(result) then exit.after_signal("SIGINT") end
    local cause, hint = tostring(result), ""
    if cause:find("^module '" .. name .. "' not found") then
        local layout = require "vxa.layout"  -- bin/vxa defines it
        cause = ("no %s.so in %s"):format(name, layout.modules)
        hint = " (not built or not installed; VXA_LIB can name its directory)"
    elseif cause:find("undefined symbol", 1, true) then
        hint = " (the loader found another version of a library; ldd shows which)"
    end
    exit.fail(1, "cannot load module '%s': %s%s", name, cause, hint)
end

-- Loads the host module in an environment that is safe for it. Do this first. From then on
-- signals only set what vxa.interrupted() returns.
function session.load_host()
    local vxa = load_module "vxa"
    vxa.catch_signals()
    environment.scrub(vxa)
    return vxa
end

-- Loads the filter module. Needs the host module.
function session.load_filter()
    load_module "fc"
end

local function select_engine(vxa, name)
    name = name or os.getenv("VXI_ENGINE")
    if name == "" then name = nil end
    local selected, message = vxa.engine(name)
    return selected or exit.fail(2, "%s", message)
end

-- What every command that uses the driver needs: returns {vxa, engine}.
function session.attach_driver(options)
    local vxa = session.load_host()
    local engine = select_engine(vxa, options.engine)
    local valid, message = vxa.check_environment()
    if not valid then exit.fail(2, "%s", message) end
    return { vxa = vxa, engine = engine }
end

-- The same with the module `fc` loaded.
function session.attach(options)
    local attached = session.attach_driver(options)
    session.load_filter()
    local vxa = attached.vxa
    local missing = vxa.simulated_machine() and {} or environment.missing_commands(vxa)
    for _, lacking in ipairs(missing) do console.complain(lacking) end
    return attached
end

-- ---- logs -------------------------------------------------------------------------------

local function glob_to_pattern(glob)
    return "^" .. glob:gsub("[%^%$%(%)%%%.%[%]%+%-%?]", "%%%0"):gsub("%*", ".*") .. "$"
end

-- Switches the categories on and returns them as a set. An unknown one would silently show
-- nothing, so it is an error.
local function switch_traces(vxa, globs)
    local shown = {}
    for _, glob in ipairs(globs) do
        local pattern, known = glob_to_pattern(glob), false
        for _, category in ipairs(option.TRACE_CATEGORIES) do
            if category:match(pattern) then known, shown[category] = true, true end
        end
        if not known then
            exit.fail(2, "unknown trace category '%s'; known categories: %s", glob,
                table.concat(option.TRACE_CATEGORIES, ", "))
        end
        vxa.trace(glob, true)
    end
    return shown
end

-- From now on log records are kept for `attached.messages`.
function session.capture_logs(attached, options)
    attached.vxa.capture(true)
    attached.messages = messages.new(attached.vxa, switch_traces(attached.vxa, options.traces))
end

-- ---- document and driver ----------------------------------------------------------------

-- Opens the host document in the directory given by --state, or in memory.
function session.open_document(attached, options)
    local dom, message = attached.vxa.Dom(options.state)
    attached.dom = dom or exit.fail(1, "%s", message)
end

-- Returns an open handle whose driver messages are traced if the user asked for them, or nil
-- and a message.
function session.open_driver(vxa)
    local handle, message = vxa.open()
    if handle then SLB.filter.setup_tbtrace(handle) end
    return handle, message
end

-- ---- health monitoring ------------------------------------------------------------------

-- From the module, which runs nproc, so that the default policy and the metrics agree.
function session.cpu_count()
    local _, rows = SLB.filter.GetSysHealthMetrics()
    return rows[#rows].cpu_count
end

local function choose_policy(options, vxa)
    local chosen = policy_source.choose(options, vxa, session.cpu_count)
    policy_source.warn(chosen)
    return chosen
end

local function describe_port(values)
    local port = values.SYS_CONF_CONN_REFUSAL_PORT
    local direction = values.SYS_CONF_CONN_REFUSAL_OUTBOUND == 1 and "outbound" or "inbound"
    return port and ("port %d, %s,"):format(port, direction)
end

-- Starts health monitoring. Returns {vxa, engine, policy, dom, messages, monitor}.
function session.start_monitoring(options)
    local monitored = session.attach(options)
    local vxa = monitored.vxa
    if vxa.simulated_machine() then simulation.start(vxa) end
    monitored.policy = choose_policy(options, vxa)
    monitored.first_port = describe_port(monitored.policy.values)
    session.capture_logs(monitored, options)
    -- The monitor reads values from both: three decimals from the status line, six from traces.
    vxa.verbose(true)
    vxa.trace("SysHealth.eng", true)
    vxa.mkdir(messages.LOG_DIRECTORY)  -- if this fails, the module reports it
    session.open_document(monitored, options)
    monitored.monitor = filter.new {
        dom = monitored.dom, policy = monitored.policy.text, settings = monitored.policy.values,
        observe = options.observe, records = function() return monitored.messages:take() end,
        clock = vxa.time,
    }
    return monitored
end

-- Runs one cycle; the result also has the seconds that it took and, as `machine`, what
-- resources.read returns.
function session.run_cycle(monitored)
    simulation.update(monitored.vxa)
    local started = monitored.vxa.clock()
    local result = monitored.monitor:cycle()
    result.seconds = monitored.vxa.clock() - started
    result.machine = resources.read(monitored.vxa)
    if result.unpublished then
        monitored.messages:warn_once("cannot update the host document: " .. result.unpublished)
    end
    return result
end

-- When the cycle after the one due at `due` is due. A late cycle does not delay the next ones,
-- and missed cycles are not caught up.
function session.next_due(vxa, due, interval_s)
    return math.max(due + interval_s, vxa.clock())
end

-- The module keeps counting the first port that it gave to the driver.
local function check_port(monitored)
    local port = describe_port(monitored.policy.values)
    monitored.first_port = monitored.first_port or port
    if port and port ~= monitored.first_port then
        console.complain(("warning: %s stays monitored until vxa is restarted")
            :format(monitored.first_port))
    end
end

-- Reads the policy again; the new one is in force from the next cycle on. If it is refused, the
-- old one stays, and the reason is returned.
function session.reload_policy(monitored, options)
    local ok, chosen = pcall(choose_policy, options, monitored.vxa)
    if not ok then
        if type(chosen) ~= "table" or not chosen.message then error(chosen, 0) end
        console.complain(chosen.message .. "; the current policy stays in force")
        return chosen.message
    end
    monitored.policy = chosen
    check_port(monitored)
    monitored.monitor:set_policy(chosen.text, chosen.values)
    monitored.messages:forget()
end

function session.close_document(attached)
    local closed, message = attached.dom:close()
    if not closed then exit.fail(1, "cannot save the host document: %s", message) end
end

-- Returns what the engine delivers on this machine, and the driver's message if that is unknown.
function session.capabilities(vxa)
    local handle, message = vxa.open()
    if not handle then return {}, message end
    local rows
    rows, message = handle:capabilities()
    handle:close()
    return rows or {}, message
end

return session
