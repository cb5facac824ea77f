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

local function pass(seconds) recorder.clock((os.time() + seconds) * 1e6) end

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
local reports, kills = 0, 0
for step = 1, 400 do
    flows = random_flows(step % 40 == 0 and 25000 or 50)
    feedback:sample()
    pass(20)
    if feedback:report() then reports = reports + 1 end
    local now = counters(feedback)
    for i, value in ipairs(saved) do equal(now[i] and now[i] >= value, true, "counter") end
    if math.random(8) > 1 then
        assert(feedback:save())
        saved = now
    end
    if math.random(8) == 1 then
        feedback, kills = start_run(DIRECTORY), kills + 1
        equal(counters(feedback), saved, "as last saved")
    end
end
equal(reports > 50 and saved[3] > 1000 and kills > 20, true, "a full life")

-- ---- state files --------------------------------------------------------------------------

local warnings = {}
require("vxa.output.console").complain = function(text) warnings[#warnings + 1] = text end
flows = {}

-- A file that is wrong anywhere counts as none, and is replaced.
local GOOD = "vxa connections 1\nobserved 9\nreported 5\nrefused 1\nreports 1\n"
    .. "service tcp in 443 4\npending udp ::1 53 2 3\nend\n"
for i, change in ipairs {
    { "", "" }, { ".*", "" }, { ".*", "x" }, { "\n$", "" }, { "end\n", "" }, { "$", "\0\n" },
    { "1\n", "2\n" }, { "observed 9", "observed 10" }, { "observed 9", "observed 9e0" },
    { "443 4", "443 6" }, { "in 443", "to 443" }, { "in 443", "in 65536" }, { "53 2", "53 0" },
    { "::1", "a\tb" }, { "2 3", "2 -3" }, { "443 4", "443 2\nservice tcp in 443 2" },
    { "$", ("x"):rep(5000000) },
} do
    testing.write(FILE, (GOOD:gsub(change[1], change[2], 1)))
    feedback = start_run(DIRECTORY)
    assert(feedback:save())
    equal({ feedback:counts().observed, #warnings }, { i == 1 and 9 or 0, i - 1 }, change[2])
end
os.remove(FILE)
assert(os.execute("mkfifo " .. FILE))
equal(start_run(DIRECTORY):counts().observed, 0, "a FIFO")
testing.matches(warnings[#warnings], "connections.txt: not a regular file")

-- ---- the format ---------------------------------------------------------------------------

equal(prometheus.text { { name = "a", type = "gauge", help = "b\\c\nd", samples = {
        { value = 1 / 3, labels = { { "x", 'a"b\\c\nd' }, { "y", 2 } } }, {},
        { value = -math.huge }, { value = 0 / 0 } } },
    { name = "absent", type = "gauge", help = "", samples = { {} } } },
    "# HELP a b\\\\c\\nd\n# TYPE a gauge\n" .. 'a{x="a\\"b\\\\c\\nd",y="2"} 0.3333333333333333\n'
    .. "a -Inf\na NaN\n", "text")

testing.finish()
