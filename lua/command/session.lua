-- Everything that a run needs, in the order in which it must be set up.

local console = require "command.console"
local environment = require "command.environment"
local fail = require "command.fail"
local interruption = require "command.interruption"
local messages = require "command.messages"
local policy = require "command.policy"
local simulation = require "command.simulation"

local session = {}

-- The module writes its effective settings here and makes no folders.
local DIAGNOSTICS_FOLDER = "/var/opt/vx_agent/diag"

local TRACE_CATEGORIES = { "filter", "diagnostics", "VXI", "SysHealth.eng", "SysHealth.scan",
                           "SysHealth.conf", "SysHealth.metr" }

local function load_module(name)
    local ok, result = pcall(require, name)
    if ok then return result end
    if interruption.is_cause(result) then interruption.finish("SIGINT") end
    local cause = tostring(result)
    if cause:find("^module '" .. name .. "' not found") then
        cause = ("no %s.so in %s"):format(name, package.cpath:gsub("/%?%.so$", ""))
    end
    fail(1, "cannot load the module '%s': %s (./dev build makes it; VXA_LIB names another folder)",
        name, cause)
end

-- The host module, in an environment that is safe for it; everything else comes later.
-- From here on a signal ends no command by itself: it asks vxa.interrupted().
function session.host()
    local vxa = load_module "vxa"
    vxa.catch_signals()
    environment.scrub(vxa)
    return vxa
end

local function contains(list, wanted)
    for _, entry in ipairs(list) do
        if entry == wanted then return true end
    end
    return false
end

local function choose_engine(vxa, wanted)
    local name = wanted or os.getenv("VXI_ENGINE")
    if not name or name == "" then return vxa.engine() end
    local known = vxa.engines()
    if not contains(known, name) then
        fail(2, "unknown engine '%s'; known are: %s", name, table.concat(known, ", "))
    end
    vxa.engine(name)
    return name
end

local function glob_to_pattern(text)
    return "^" .. text:gsub("[%^%$%(%)%%%.%[%]%+%-%?]", "%%%0"):gsub("%*", ".*") .. "$"
end

-- Switches the categories on and returns their set. One that nothing writes to would show
-- nothing without a word.
local function switch_traces(vxa, wanted)
    local shown = {}
    for _, text in ipairs(wanted) do
        local pattern, known = glob_to_pattern(text), false
        for _, category in ipairs(TRACE_CATEGORIES) do
            if category:match(pattern) then known, shown[category] = true, true end
        end
        if not known then
            fail(2, "unknown trace category '%s'; known are: %s", text,
                table.concat(TRACE_CATEGORIES, ", "))
        end
        vxa.trace(text, true)
    end
    return shown
end

local function open_document(vxa, folder)
    local dom, message = vxa.Dom(folder)
    return dom or fail(1, "%s", message)
end

-- Debian's nproc, asked through the module so that all figures have one source.
local function cpu_count()
    local _, rows = SLB.filter.GetSysHealthMetrics()
    return rows[#rows].cpu_count
end

local function choose_policy(options, vxa)
    local chosen = policy.choose(options, vxa, cpu_count)
    for _, warning in ipairs(chosen.warnings) do
        console.complain(("warning: %s: %s"):format(chosen.source, warning))
    end
    return chosen
end

-- What every command that asks the driver needs: {vxa, engine}, the module `fc` loaded.
function session.attach(options)
    local vxa = session.host()
    local engine = choose_engine(vxa, options.engine)
    local usable, fault = vxa.check_environment()
    if not usable then fail(2, "%s", fault) end
    load_module "fc"
    return { vxa = vxa, engine = engine }
end

-- From now on the records of the log are kept for `messages`, and for whoever looks at them.
function session.listen(attached, options)
    attached.vxa.capture(true)
    attached.messages = messages.new(attached.vxa, switch_traces(attached.vxa, options.traces))
end

-- The host document in the folder that the user named, or in memory.
function session.document(attached, options)
    attached.dom = open_document(attached.vxa, options.state)
end

-- An open handle whose driver's own messages are traced where the user wants them; or nil
-- and what is wrong.
function session.open(vxa)
    local handle, message = vxa.open()
    if handle then SLB.filter.setup_tbtrace(handle) end
    return handle, message
end

local function port_of(values)
    local port = values.SYS_CONF_CONN_REFUSAL_PORT
    local direction = values.SYS_CONF_CONN_REFUSAL_OUTBOUND == 1 and "outbound" or "inbound"
    return port and ("port %d, %s,"):format(port, direction)
end

-- For health monitoring. Returns {vxa, engine, policy, dom, messages, monitor, feedback}.
function session.start(options)
    local started = session.attach(options)
    if started.engine == "sim" then simulation.start(started.vxa) end
    started.policy = choose_policy(options, started.vxa)
    started.first_port = port_of(started.policy.values)
    session.listen(started, options)
    -- What the monitor reads its values from: three decimals in the status line, six in the
    -- traces about metrics beyond their thresholds.
    started.vxa.verbose(true)
    started.vxa.trace("SysHealth.eng", true)
    started.vxa.mkdir(DIAGNOSTICS_FOLDER)  -- where it cannot be made, the module says so
    session.document(started, options)
    started.monitor = require("filter").new {
        dom = started.dom, policy = started.policy.text, settings = started.policy.values,
        records = function() return started.messages:take() end,
    }
    started.feedback = require("command.feedback").new(started)
    return started
end

-- One cycle, with the time at which it began.
function session.cycle(monitored)
    simulation.update(monitored.vxa)
    local time = monitored.vxa.time()
    local result = monitored.monitor:cycle()
    result.time = time
    if result.unpublished then
        monitored.messages:tell_once("the host document cannot be kept: " .. result.unpublished)
    end
    return result
end

-- The module goes on with the port that it gave the driver first.
local function check_port(monitored)
    local port = port_of(monitored.policy.values)
    monitored.first_port = monitored.first_port or port
    if port and port ~= monitored.first_port then
        console.complain(("warning: %s stays monitored until vxa is started again")
            :format(monitored.first_port))
    end
end

-- Reads the policy again, in force from the next cycle on; returns what was wrong when the
-- old one stays.
function session.reload(monitored, options)
    local ok, chosen = pcall(choose_policy, options, monitored.vxa)
    if not ok then
        if type(chosen) ~= "table" or not chosen.message then error(chosen, 0) end
        console.complain(chosen.message .. "; the policy in force stays")
        return chosen.message
    end
    monitored.policy = chosen
    check_port(monitored)
    monitored.monitor:set_policy(chosen.text, chosen.values)
    monitored.messages:forget()
end

function session.finish(monitored)
    local closed, message = monitored.dom:close()
    if not closed then fail(1, "the host document cannot be kept: %s", message) end
end

return session
