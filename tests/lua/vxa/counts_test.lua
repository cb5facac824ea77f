-- The balance of connections over the life of a host: flows, reports, a full module, runs that end
-- and runs that are killed, and state directories in any condition.

local connection_feedback = require "vxa.feedback"
local prometheus = require "vxa.output.prometheus"
local recorder = require "recorder"
local session = require "vxa.session"
local testing = require "testing"
local vxa = require "vxa"
require "fc"

local equal = testing.equal
local DIRECTORY = os.getenv("FAKE_MACHINE") .. "/state"
local FILE = DIRECTORY .. "/connections.txt"
assert(vxa.mkdir(DIRECTORY))
math.randomseed(8)

local flows = {}
function session.open_driver()
    return { connections = function() return flows, #flows end, close = function() end }
end

local function pass(seconds)
    recorder.clock((os.time() + seconds) * 1e6)
end

-- A process has a module of its own: what the former one kept is gone.
local function start_run(directory)
    pass(100)
    SLB.filter.UpdateConnMetrics()
    SLB.filter.GetConnMetrics()
    return connection_feedback.new({ vxa = vxa }, directory)
end

-- Returns what may only grow, after checking that it adds up.
local function counters(feedback)
    local counts, services = feedback:counts(), 0
    equal(counts.reported + counts.pending + counts.refused, counts.observed, "balance")
    local grow = { counts.observed, counts.reported, counts.refused, counts.reports, counts.other }
    for i, service in ipairs(counts.services) do
        grow[#grow + 1], services = service.count, services + service.count
        equal(i <= 20, true, "services")
    end
    equal(services + counts.other, counts.reported, "sum of the services")
    return grow
end

local function has_grown(now, before)
    for i, value in ipairs(before) do
        if not now[i] or now[i] < value then return false end
    end
    return true
end

local function random_flows(most)
    local list = {}
    for i = 1, math.random(0, most) do
        list[i] = { protocol = math.random(4) == 1 and "udp" or "tcp", src = "10.9.0.2",
                    sport = math.random(60000), dst = "2001:db8::" .. math.random(2),
                    dport = math.random(2) == 1 and math.random(20) or math.random(60000) }
    end
    return list
end

local feedback, saved = start_run(DIRECTORY), {}
local kept, reports, kills = nil, 0, 0
for step = 1, 400 do
    flows = random_flows(step % 40 == 0 and 25000 or 50)
    feedback:sample()
    pass(20)
    if feedback:report() then reports = reports + 1 end
    local now = counters(feedback)
    equal(has_grown(now, saved), true, "counters")
    if math.random(8) > 1 then
        assert(feedback:save())
        saved, kept = now, testing.read(FILE)
    end
    if math.random(8) == 1 then
        feedback, kills = start_run(DIRECTORY), kills + 1
        equal({ counters(feedback), testing.read(FILE) }, { saved, kept }, "as last saved")
    end
end
equal(reports > 50 and saved[3] > 1000 and kills > 20, true, "a full life")

-- ---- state files --------------------------------------------------------------------------

-- A file that is wrong anywhere counts as none, and is replaced by the next one.
local FORMAT = "vxa connections 1\nobserved %s\nreported 5\nrefused 1\nreports 1\nservice tcp %s\n"
    .. "pending udp %s\nend\n"
local warnings = {}
require("vxa.output.console").complain = function(text) warnings[#warnings + 1] = text end
local function observed_of(text)
    testing.write(FILE, text)
    local run = start_run(DIRECTORY)
    flows = {}
    assert(run:save())
    return run:counts().observed
end

local good = FORMAT:format("9", "in 443 4", "::1 53 2 3")
equal({ observed_of(good), #warnings, testing.read(FILE) }, { 9, 0, good }, "a good file")
for i, text in ipairs {
    "", "x", good:sub(1, -2), good:sub(1, -5), good:gsub("1\n", "2\n", 1), good .. "\0\n",
    FORMAT:format("10", "in 443 4", "::1 53 2 3"), FORMAT:format("9", "in 443 6", "::1 53 2 3"),
    FORMAT:format("9", "to 443 4", "::1 53 2 3"), FORMAT:format("9", "in 65536 4", "::1 53 2 3"),
    FORMAT:format("9", "in 443 4", "::1 53 0 3"), FORMAT:format("9", "in 443 4", "a\tb 53 2 3"),
    FORMAT:format("9", "in 443 4", "::1 53 2 -3"), FORMAT:format("9e0", "in 443 4", "::1 53 2 3"),
    FORMAT:format("9", "in 443 2\nservice tcp in 443 2", "::1 53 2 3"), ("x"):rep(5000000),
} do
    equal({ observed_of(text), #warnings }, { 0, i }, text:sub(1, 200))
end
os.remove(FILE)
assert(os.execute("mkfifo " .. FILE))
local run = start_run(DIRECTORY)
equal({ run:counts().observed, (run:save()) }, { 0 }, "a FIFO")
testing.matches(warnings[#warnings], "connections.txt: not a regular file")

-- ---- the format ---------------------------------------------------------------------------

equal(prometheus.text {
    { name = "a_ratio", type = "gauge", help = "a\\b\nc", samples = {
        { value = 0.1 }, { value = 1 / 3, labels = { { "x", 'a"b\\c\nd' }, { "y", 2 } } },
        { value = nil }, { value = -math.huge }, { value = 0 / 0 }, { value = 2 ^ 53 } } },
    { name = "absent", type = "gauge", help = "", samples = { {} } },
}, [[
# HELP a_ratio a\\b\nc
# TYPE a_ratio gauge
a_ratio 0.1
a_ratio{x="a\"b\\c\nd",y="2"} 0.3333333333333333
a_ratio -Inf
a_ratio NaN
a_ratio 9007199254740992
]], "text")

testing.finish()
