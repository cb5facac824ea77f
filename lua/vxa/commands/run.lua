-- vxa run: health check cycles at a steady pace, with connection reports.

local connection_feedback = require "vxa.feedback"
local console = require "vxa.output.console"
local exit = require "vxa.exit"
local filter = require "filter"
local messages = require "vxa.messages"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local session = require "vxa.session"

-- Further listeners, in the order in which they are called after the report. Each is a file of
-- lua/vxa/listeners that returns two functions: `define(command)` adds its options, and
-- `new(monitored, options)` returns the listener, or nil if its option was not given.
--
-- What is printed or kept of a run is made by listeners. They have these methods, all optional:
--
-- start()                    before the first cycle
-- reloaded(refusal)          SIGHUP: the policy was read again; `refusal`: why the old one stays
-- annotate(result)           a cycle has run: adds fields to its result, before any listener's
--                            cycle()
-- cycle(result, errors)      the result of Monitor:cycle in lua/filter.lua with its `number` in the
--                            run, and error messages
-- connections(report)        the result of Feedback:report
-- saved()                    the cycle and its publication are over, and the connection counts are
--                            in the state directory
-- ended(totals)              after the last cycle: adds fields to the totals, before any listener's
--                            finish()
-- finish(totals)             after that
local LISTENERS = { "record", "observe", "metrics", "history", "log", "hook" }

local reports = { [true] = "vxa.reports.run_json", [false] = "vxa.reports.run_text" }

local function define(command)
    command:description("Run health check cycles and print a line for each.")
    option.add_policy(command)
    option.add_driver(command)
    command:mutex(option.add_json(command), command:flag("--quiet", "Leave out the lines of "
        .. "cycles and connection reports."))
    option.add_cycles(command, "cycle")
    option.add_state(command, "Keep the host document, its events and the transitions of the run "
        .. "in this directory.")
    for _, name in ipairs(LISTENERS) do require("vxa.listeners." .. name).define(command) end
end

-- Returns the report and the listeners that were asked for.
local function make_listeners(monitored, options)
    local listeners = { require(reports[options.json == true]).new(monitored, options) }
    for _, name in ipairs(LISTENERS) do
        listeners[#listeners + 1] = require("vxa.listeners." .. name).new(monitored, options)
    end
    return listeners
end

local function notify(listeners, event, ...)
    for _, listener in ipairs(listeners) do
        local method = listener[event]
        if method then method(listener, ...) end
    end
end

-- Calls the last events. Every listener gets them, also if the output of another one fails: what
-- it keeps must be complete. Then raises the first error.
local function finish(listeners, totals)
    local failure
    for _, event in ipairs { "ended", "finish" } do
        for _, listener in ipairs(listeners) do
            local done, cause = pcall(notify, { listener }, event, totals)
            if not done then failure = failure or cause end
        end
    end
    if failure then error(failure, 0) end
end

-- ---- advice -----------------------------------------------------------------------------

local function find_metric(metrics, name)
    for _, metric in ipairs(metrics) do
        if metric.name == name then return metric end
    end
end

local function check_interval(monitored, interval_s, result)
    local delta_t = find_metric(result.metrics, "delta_t")
    if delta_t.enabled and interval_s >= delta_t.threshold then
        monitored.messages:warn_once(("warning: --interval %.14g is not below the threshold of "
            .. "delta_t (%.14g s): every cycle will count as overloaded")
            :format(interval_s, delta_t.threshold))
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

-- If the driver cannot be opened, the module switches the port's metrics off without a message.
local function explain_missing_driver(monitored)
    local handle, message = monitored.vxa.open()
    if handle then return handle:close() end
    monitored.messages:warn_once(("cannot open the driver: %s (%s)")
        :format(message, messages.NOT_COUNTED))
end

local function advise(monitored, options, result)
    if result.measured then
        if not options.observe then check_interval(monitored, options.interval, result) end
        if result.before == filter.DEACTIVATED
            and lacks_port_metrics(result, monitored.policy.values) then
            explain_missing_driver(monitored)
        end
    elseif result.action == filter.DISABLED then
        monitored.messages:warn_once("not monitoring: "
            .. policy_source.why_disabled(monitored.policy))
    end
end

-- ---- connections ------------------------------------------------------------------------

-- Call before the cycle, so that its records include the driver's messages from here.
local function feed(monitored)
    local flows, message = monitored.feedback:sample()
    if not flows and not monitored.vxa.interrupted() then
        monitored.messages:warn_once(("cannot read connections: %s (none are reported)")
            :format(message))
    end
end

local function publish(monitored, listeners)
    local published = monitored.feedback:report()
    if published then notify(listeners, "connections", published) end
end

local function save_counts(monitored)
    local saved, message = monitored.feedback:save()
    if not saved then
        monitored.messages:warn_once(message .. " (connection counts are not kept)")
    end
end

-- ---- cycles -----------------------------------------------------------------------------

local function count(totals, result)
    totals.cycles = totals.cycles + 1
    result.number = totals.cycles
    if result.measured then totals.measured = totals.measured + 1 end
    if result.action == filter.DISABLED then totals.disabled = totals.disabled + 1 end
    if result.transition == "entered" then totals.entered = totals.entered + 1 end
    totals.state = result.state
end

-- Ctrl-C also ends the commands that the module runs: then a failed sample means nothing.
local function was_cut_short(vxa, result)
    return vxa.interrupted() and not result.measured
end

local function has_terminal(vxa)
    return vxa.isatty(0) or vxa.isatty(1) or vxa.isatty(2)
end

-- Waits for the next cycle, reloading the policy on SIGHUP. Returns false if the run must end:
-- on another signal, or if the SIGHUP was sent because the terminal closed.
local function wait(monitored, options, listeners, totals, due)
    local vxa = monitored.vxa
    while true do
        local awake = vxa.sleep(math.max(due - vxa.clock(), 0))
        if vxa.reload_asked() then
            if monitored.has_terminal and not has_terminal(vxa) then
                totals.interrupted = "SIGHUP"
                return false
            end
            notify(listeners, "reloaded", session.reload_policy(monitored, options))
        else
            return awake
        end
    end
end

local function run_cycles(monitored, options, listeners, totals)
    local vxa = monitored.vxa
    local due, awake = vxa.clock(), true
    while awake and not vxa.interrupted() do
        feed(monitored)
        local result = session.run_cycle(monitored)
        if was_cut_short(vxa, result) then return end
        count(totals, result)
        notify(listeners, "annotate", result)
        notify(listeners, "cycle", result, monitored.messages:errors())
        monitored.messages:show()
        advise(monitored, options, result)
        publish(monitored, listeners)
        save_counts(monitored)
        notify(listeners, "saved")
        if totals.cycles == options.cycles then return end
        due = session.next_due(vxa, due, options.interval)
        awake = wait(monitored, options, listeners, totals, due)
    end
end

-- With one name for two files, each would find the other's lines in its own.
local function check_names(options)
    local vxa, seen = session.load_host(), {}
    for _, name in ipairs { "policy", "record", "metrics", "log" } do
        local path = options[name]
        for _, other in ipairs(path and seen or {}) do
            if vxa.same_file(path, options[other]) then
                exit.fail(2, "--%s and --%s are the same file: %s", other, name, path)
            end
        end
        if path then seen[#seen + 1] = name end
    end
end

local function run(options)
    check_names(options)
    local monitored = session.start_monitoring(options)
    local vxa = monitored.vxa
    monitored.feedback = connection_feedback.new(monitored, options.state)
    monitored.has_terminal = has_terminal(vxa)
    vxa.reload_on_hangup()
    local listeners = make_listeners(monitored, options)
    local totals = { cycles = 0, measured = 0, disabled = 0, entered = 0, started = vxa.clock(),
                     state = monitored.monitor.state }
    notify(listeners, "start")
    local done, cause = pcall(run_cycles, monitored, options, listeners, totals)
    if not done and not exit.is_quiet(cause) then error(cause, 0) end
    totals.seconds = vxa.clock() - totals.started
    totals.interrupted = totals.interrupted or vxa.interrupted()
    save_counts(monitored)
    totals.connections = monitored.feedback:counts()
    totals.unpublished = monitored.feedback:unpublished()
    finish(listeners, totals)
    session.close_document(monitored)
    if totals.cycles > 0 and totals.measured + totals.disabled == 0 then
        console.complain("no cycle could sample this machine; --trace SysHealth.eng shows why")
        return 1
    end
    return 0
end

return { define = define, run = run }
