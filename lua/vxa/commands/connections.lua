-- vxa connections: samples the flows at a steady pace and prints the module's reports.

local connection_feedback = require "vxa.feedback"
local console = require "vxa.output.console"
local filter = require "filter"
local option = require "vxa.options"
local session = require "vxa.session"

local function define(command)
    command:description("Feed this machine's connections to the module and show its reports, "
        .. "until Ctrl-C.")
    command:epilog(("The module publishes at most once every %d seconds, so the first report "
        .. "comes %d seconds after the start. Until Ctrl-C or --cycles, each sample prints a line "
        .. "with the number of new connections. Connections that were not published by then are "
        .. "listed at the end."):format(filter.PUBLICATION_INTERVAL_S,
        filter.PUBLICATION_INTERVAL_S))
    option.add_driver(command)
    option.add_json(command)
    option.add_cycles(command, "sample")
end

local reports = { [true] = "vxa.reports.connections_json",
                  [false] = "vxa.reports.connections_text" }

local function sample(attached, report, totals)
    local flows, new, beyond = attached.feedback:sample()
    if not flows then
        if not attached.vxa.interrupted() then
            attached.messages:warn_once("cannot read connections: " .. new)
        end
        return
    end
    totals.samples = totals.samples + 1
    report:sample { time = attached.vxa.time(), flows = flows, new = new, beyond = beyond }
end

local function publish(attached, report)
    local published = attached.feedback:report()
    if published then report:report(published) end
end

-- Sleeps until the next sample, waking for a report that is due earlier. Returns false on a
-- signal.
local function wait(attached, due, report)
    local vxa = attached.vxa
    while due > vxa.clock() do
        local left = due - vxa.clock()
        if not vxa.sleep(math.min(left, math.max(attached.feedback:due(), 0.1))) then
            return false
        end
        publish(attached, report)
    end
    return true
end

local function run_samples(attached, options, report, totals)
    local vxa = attached.vxa
    local due, tried = vxa.clock(), 0
    while not vxa.interrupted() do
        sample(attached, report, totals)
        attached.messages:take()
        attached.messages:show()
        publish(attached, report)
        tried = tried + 1
        if tried == options.cycles then return end
        due = session.next_due(vxa, due, options.interval)
        if not wait(attached, due, report) then return end
    end
end

local function run(options)
    local attached = session.attach(options)
    session.capture_logs(attached, options)
    attached.feedback = connection_feedback.new(attached)
    local report = require(reports[options.json == true]).new(attached, options)
    local totals = { samples = 0, started = attached.vxa.clock() }
    report:start()
    run_samples(attached, options, report, totals)
    local unpublished = attached.feedback:unpublished()
    if unpublished then report:unpublished(unpublished) end
    totals.connections = attached.feedback:counts()
    totals.seconds = attached.vxa.clock() - totals.started
    totals.interrupted = attached.vxa.interrupted()
    report:finish(totals)
    if totals.samples > 0 or totals.interrupted then return 0 end
    console.complain("no sample could read connections")
    return 1
end

return { define = define, run = run }
