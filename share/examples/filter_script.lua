-- A filter script to start from: change what it logs, reports and decides.
--
-- The agent loads it once per process, calls start(agent), then tick() at a regular interval of
-- several seconds, set_policy(text) when a policy was pushed, and add_diagnostics(archive) when a
-- diagnostic package is asked for. All calls come from one thread. What the agent provides:
--
--     dom                  its document, an "SLB.Dom"
--     open()               an open driver handle; or nil and a message
--     enforce(on, unload)  switches enforcement; `unload`: the policy asks to unload the driver
--     send(report)         takes the connection report of a minute
--     log(message)

require "fc"
local filter = require "filter"
local health_policy = require "health_policy"

local script = {}

local agent, monitor, feedback
local counts = { ticks = 0, entries = 0, reports = 0 }  -- the script's own state

function script.start(given)
    agent, feedback = given, filter.feedback()
    monitor = filter.new { dom = agent.dom, enforce = agent.enforce }
end

-- Puts a policy in force from the next tick on, unless it has mistakes: the module would read them
-- as no settings at all, and stop monitoring.
function script.set_policy(text)
    local settings, report = health_policy.check(text)
    if not settings then
        agent.log("policy refused: " .. report)
        return nil, report
    end
    for _, warning in ipairs(report) do agent.log("policy: " .. warning) end
    monitor:set_policy(text, settings)
    return true
end

local function log_transition(result)
    local causes = {}
    for i, row in ipairs(result.causes) do
        causes[i] = ("%s %s, threshold %s"):format(row.name, row.value, row.threshold)
    end
    agent.log(("%s (%s)"):format(result.text, table.concat(causes, "; ")))
end

-- Feeds the connections that are new since the last tick.
local function feed()
    local handle, message = agent.open()
    local flows
    if handle then
        flows, message = handle:connections()
        handle:close()
    end
    if not flows then return agent.log("connections not counted: " .. message) end
    feedback:sample(flows)
end

function script.tick()
    counts.ticks = counts.ticks + 1
    local result = monitor:cycle()
    if result.transition then log_transition(result) end
    if result.transition == "entered" then counts.entries = counts.entries + 1 end
    if result.unpublished then agent.log("state not stored: " .. result.unpublished) end
    feed()
    local report = feedback:report()
    if report then
        counts.reports = counts.reports + 1
        agent.send(report)
    end
    return result
end

-- Adds the driver's tables and the script's state to an archive, which the caller closes.
function script.add_diagnostics(archive)
    local handle, message = agent.open()
    if handle then
        SLB.filter.setup_tbtrace(handle)
        SLB.filter.AddDriverDiagnostics(agent.dom, handle, archive)
        handle:close()
    else
        agent.log("package without the driver's tables: " .. message)
    end
    return archive:add("script.txt", ("state %s\nticks %d\nentries %d\nreports %d\n")
        :format(monitor.state, counts.ticks, counts.entries, counts.reports))
end

return script
