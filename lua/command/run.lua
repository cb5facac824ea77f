-- vxa run: cycles at a steady pace, a line for each.

local console = require "command.console"
local filter = require "filter"
local messages = require "command.messages"
local pace = require "command.pace"
local policy = require "command.policy"
local session = require "command.session"

local reports = { [true] = "command.report_json", [false] = "command.report_text" }

local function warn_of_interval(monitored, interval_s, result)
    local longest = result.metrics[#result.metrics]
    if longest.enabled and interval_s >= longest.threshold then
        monitored.messages:tell_once(("warning: --interval %.14g is not below the threshold of "
            .. "delta_t (%.14g s): every cycle will count as overloaded")
            :format(interval_s, longest.threshold))
    end
end

local function lacks_port_metrics(result, settings)
    for i, metric in ipairs(filter.metrics) do
        if metric.rate and settings[metric.setting] and not result.metrics[i].enabled then
            return true
        end
    end
    return false
end

-- The module switches the thresholds of the port off without a word when the driver
-- cannot be opened.
local function tell_why_no_driver(monitored)
    local handle, message = monitored.vxa.open()
    if handle then return handle:close() end
    monitored.messages:tell_once(("the driver cannot be opened: %s (%s)")
        :format(message, messages.SCAN_COST))
end

local function advise(monitored, options, result)
    if result.measured then
        warn_of_interval(monitored, options.interval, result)
        if result.before == filter.DEACTIVATED
            and lacks_port_metrics(result, monitored.policy.values) then
            tell_why_no_driver(monitored)
        end
    elseif result.action == filter.DISABLED then
        monitored.messages:tell_once("not monitoring: " .. policy.why_disabled(monitored.policy))
    end
end

local function count(totals, result)
    totals.cycles = totals.cycles + 1
    if result.measured then totals.measured = totals.measured + 1 end
    if result.action == filter.DISABLED then totals.disabled = totals.disabled + 1 end
    if result.transition == "entered" then totals.entered = totals.entered + 1 end
    totals.state = result.state
end

-- Ctrl-C also ends the commands that the module runs: a sample that fails together with
-- an interrupt says nothing about the machine.
local function was_cut_short(vxa, result)
    return vxa.interrupted() and not result.measured
end

-- Before the cycle, whose records then hold what the driver says here.
local function feed(monitored, totals)
    local flows, new = monitored.feedback:sample()
    if flows then
        totals.observations = totals.observations + new
    elseif not monitored.vxa.interrupted() then
        monitored.messages:tell_once(("connections cannot be read: %s (none are reported)")
            :format(new))
    end
end

local function publish(monitored, report, totals)
    local published = monitored.feedback:report()
    if not published then return end
    totals.reported = totals.reported + published.observations
    report:connections(published)
end

local function has_terminal(vxa)
    return vxa.isatty(0) or vxa.isatty(1) or vxa.isatty(2)
end

-- Waits for the next cycle and reloads the policy whenever a SIGHUP asks for it. False when
-- the run ends instead: by another signal, or because SIGHUP came with the end of the
-- terminal.
local function wait(monitored, options, report, totals, due)
    local vxa = monitored.vxa
    while true do
        local awake = vxa.sleep(math.max(due - vxa.clock(), 0))
        if vxa.reload_asked() then
            if monitored.has_terminal and not has_terminal(vxa) then
                totals.interrupted = "SIGHUP"
                return false
            end
            report:reloaded(session.reload(monitored, options))
        else
            return awake
        end
    end
end

local function run_cycles(monitored, options, report, totals)
    local vxa = monitored.vxa
    local due, awake = vxa.clock(), true
    while awake and not vxa.interrupted() do
        feed(monitored, totals)
        local result = session.cycle(monitored)
        if was_cut_short(vxa, result) then return end
        count(totals, result)
        report:cycle(result, monitored.messages:faults())
        monitored.messages:show()
        advise(monitored, options, result)
        publish(monitored, report, totals)
        if totals.cycles == options.cycles then return end
        due = pace.next(vxa, due, options.interval)
        awake = wait(monitored, options, report, totals, due)
    end
end

return function(options)
    local monitored = session.start(options)
    local vxa = monitored.vxa
    monitored.has_terminal = has_terminal(vxa)
    vxa.reload_on_hangup()
    local report = require(reports[options.json == true]).new(monitored, options)
    local totals = { cycles = 0, measured = 0, disabled = 0, entered = 0, observations = 0,
                     reported = 0, started = vxa.clock(), state = monitored.monitor.state }
    report:start()
    run_cycles(monitored, options, report, totals)
    totals.seconds = vxa.clock() - totals.started
    totals.interrupted = totals.interrupted or vxa.interrupted()
    totals.rest = monitored.feedback:rest()
    report:finish(totals)
    session.finish(monitored)
    if totals.cycles > 0 and totals.measured + totals.disabled == 0 then
        console.complain("not one cycle could sample this machine")
        return 1
    end
    return 0
end
