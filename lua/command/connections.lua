-- vxa connections: samples the flows at a steady pace and prints each report of the module.

local console = require "command.console"
local feedback = require "command.feedback"
local pace = require "command.pace"
local session = require "command.session"

local reports = { [true] = "command.connection_json", [false] = "command.connection_text" }

local function sample(attached, report, totals)
    local flows, new, beyond = attached.feedback:sample()
    if not flows then
        if not attached.vxa.interrupted() then
            attached.messages:tell_once("connections cannot be read: " .. new)
        end
        return
    end
    totals.samples = totals.samples + 1
    totals.observations = totals.observations + new
    report:sample { time = attached.vxa.time(), flows = flows, new = new, beyond = beyond }
end

local function publish(attached, report, totals)
    local published = attached.feedback:report()
    if not published then return end
    totals.reported = totals.reported + published.observations
    report:report(published)
end

-- Sleeps until the next sample, and wakes for a report that comes due before.
local function rest_until(attached, due, report, totals)
    local vxa = attached.vxa
    while due > vxa.clock() do
        local left = due - vxa.clock()
        local wait = math.min(left, math.max(attached.feedback:due(), 0.1))
        if not vxa.sleep(wait) then return false end
        publish(attached, report, totals)
    end
    return true
end

local function run_cycles(attached, options, report, totals)
    local vxa = attached.vxa
    local due, tried = vxa.clock(), 0
    while not vxa.interrupted() do
        sample(attached, report, totals)
        attached.messages:take()
        attached.messages:show()
        publish(attached, report, totals)
        tried = tried + 1
        if tried == options.cycles then return end
        due = pace.next(vxa, due, options.interval)
        if not rest_until(attached, due, report, totals) then return end
    end
end

return function(options)
    local attached = session.attach(options)
    session.listen(attached, options)
    attached.feedback = feedback.new(attached)
    local report = require(reports[options.json == true]).new(attached, options)
    local totals = { samples = 0, observations = 0, reported = 0, started = attached.vxa.clock() }
    report:start()
    run_cycles(attached, options, report, totals)
    local rest = attached.feedback:rest()
    if rest then report:rest(rest) end
    totals.seconds = attached.vxa.clock() - totals.started
    totals.interrupted = attached.vxa.interrupted()
    report:finish(totals)
    if totals.samples > 0 or totals.interrupted then return 0 end
    console.complain("not once could connections be read")
    return 1
end
