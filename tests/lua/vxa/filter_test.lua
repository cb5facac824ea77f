-- The filter script on a fake machine and a clock that the test sets; this machine's addresses.

local addresses = require "vxa.machine.addresses"
local filter = require "filter"
local health_policy = require "health_policy"
local recorder = require "recorder"
local testing = require "testing"
local vxa = require "vxa"

local equal = testing.equal
local MACHINE = os.getenv("FAKE_MACHINE") .. "/"
local dom = vxa.Dom()

testing.raises("require 'fc' first", filter.new, { dom = dom })
require "fc"
testing.raises("options.dom must be an SLB.Dom, not userdata", filter.new, { dom = io.stdout })
testing.raises("unknown option 'polciy'", filter.new, { dom = dom, polciy = "" })

-- ---- health monitor ---------------------------------------------------------------------

-- What the module finds on the machine; nil for a command or file without it.
local function set_machine(load, free_pct)
    testing.write(MACHINE .. "uptime.out", ("load average: %s, 0.4, 0.3\n"):format(load or ""))
    testing.write(MACHINE .. "proc/meminfo", ("MemTotal: 1000 kB\nMemFree: %s kB\n")
        :format(free_pct and free_pct * 10 or ""))
end

vxa.capture(true)
vxa.verbose(true)
vxa.trace("SysHealth.eng", true)

local kinds = "log trace"  -- of the records that the script gets
local switched
local monitor = filter.new {
    dom = dom, enforce = function(...) switched = { ... } end, records = function()
        local found = {}
        for _, record in ipairs((vxa.captured())) do
            if kinds:find(record.kind) then found[#found + 1] = record end
        end
        return found
    end,
}

-- Load, free memory in %, result of the cycle, a new policy, kinds of records. The minimum duration
-- of fail-open is 0, so the next cycle leaves it.
local THRESHOLDS = '{"SYS_CONF_MIN_ACT_DURATION":0,"SYS_THR_RUNQ":{"value":%s},'
    .. '"SYS_THR_FREE_MEM":{"value":%s}}'
for i, row in ipairs {
    { nil, nil, "no load figures", THRESHOLDS:format("8", "5") },
    { "8.0", 5, "normal" },
    { "9.0", 50, "enter fail-open, rqpct 9 8" },
    { "9.0", 50, "leave fail-open, rqpct 9 8" },
    { "0.5", 4, "enter fail-open, frepct 4 5" },
    { nil, 50, "no load figures" },
    { "9.0", nil, "no memory figures" },
    { "0.5", 50, "leave fail-open" },
    { "8.0", 4, "enter fail-open, rqpct 8 7.9999", THRESHOLDS:format("7.9999", "4") },
    { "0.5", 50, "leave fail-open" },
    { "8.0", 4, "enter fail-open, rqpct 8 1e-09, frepct 4 25", THRESHOLDS:format("1e-9", "25") },
    { "0.5", 50, "leave fail-open" },
    -- Without traces, what is equal to its rounded threshold is the cause; without any record the
    -- values are whole numbers.
    { "8.0", 50, "enter fail-open, rqpct 8 7.9999", THRESHOLDS:format("7.9999", "1"), "log" },
    { "0.5", 50, "leave fail-open", nil, "none" },
    { "8.0", 50, "enter fail-open, rqpct 8 0.5", THRESHOLDS:format("0.5", "1"), "none" },
    { "0.5", 50, "leave fail-open", nil, "log" },
    -- What is wrong with a policy is reported once.
    { "0.5", 50, "not monitoring, line 1, column 7: a comma before '}'", '{"a":1,}' },
    { "0.5", 50, "not monitoring" },
    { "0.5", 50, 'normal, SYS_THR_RUNQ must be {"value": 8}, not 8',
      '{"SYS_THR_RUNQ":8,"SYS_THR_FREE_MEM":{"value":1}}' },
    { "0.5", 50, "normal, 1 warnings", '{"SYS_THR_RUNQUE":0,"SYS_THR_FREE_MEM":{"value":1}}' },
    { "0.5", 50, "normal" },
} do
    set_machine(row[1], row[2])
    if row[4] then monitor:set_policy(row[4]) end
    kinds, switched = row[5] or kinds, nil
    local result = monitor:cycle()
    local text = result.text
    for _, metric in ipairs(result.over) do
        text = ("%s, %s %.14g %.14g"):format(text, metric.name, metric.value, metric.threshold)
    end
    if result.policy_error then text = text .. ", " .. result.policy_error end
    if result.policy_warnings then text = text .. ", " .. #result.policy_warnings .. " warnings" end
    equal(text, row[3], "cycle " .. i)
    equal({ result.state, dom:get("vxp.filter.FailOpenState"), switched }, { monitor.state,
        monitor.state, result.transition and { result.transition == "left", false } }, "state")
end

-- A transition that cannot be carried out leaves the state.
monitor:set_policy(THRESHOLDS:format("8", "5"))
set_machine("9.0", 50)
monitor.enforce = error
equal({ pcall(monitor.cycle, monitor), monitor.state }, { false, "Deactivated" }, "raised")
monitor.enforce = nil

-- An entry that only rates cause waits after a failed sample: load, connections opened, results of
-- the cycle without and with observation.
local counted = { [false] = monitor, [true] = filter.new { dom = dom, observe = true } }
for observe, each in pairs(counted) do
    each:set_policy('{"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_THR_CONN_EST_PER_CPU":{"value":10},'
        .. '"SYS_THR_RUNQ":{"value":8},"SYS_CONF_MIN_ACT_DURATION":0}')
    for i, row in ipairs {
        { "0.5", 0, "normal", "normal" },
        { nil, 0, "no load figures", "no load figures" },
        { "0.5", 1e6, "wait one cycle", "wait one cycle" },
        { "0.5", 2e6, "enter fail-open", "would enter" },
        { "0.5", 2e6, "leave fail-open", "normal" },
        { nil, 2e6, "no load figures", "no load figures" },
        { "9.0", 3e6, "enter fail-open", "would enter" },
        { "0.5", 3e6, "leave fail-open", "normal" },
    } do
        set_machine(row[1], 50)
        recorder.answer { values = { 0, 0, row[2] } }
        local result, expected = each:cycle(), observe and row[4] or row[3]
        equal({ result.text, result.held, result.would_enter, result.state == "Activated" },
            { expected, expected:find "wait" and true, expected:find "would" and true,
              expected:find "enter f" ~= nil }, ("observe %s, cycle %d"):format(observe, i))
    end
end
set_machine("0.5", 50)

local status = filter.parse_status "SysHealth: a min_dur=60 act_dur=7 port=443 estab=inf(50.000)"
equal(status.figures.estab, { value = math.huge, threshold = 50 }, "not finite")

-- Names that the module has as well, and which thresholds need a port there.
local needs_port = {}
for _, setting in ipairs(health_policy.settings) do needs_port[setting.key] = setting.needs_port end
for i, metric in ipairs(filter.metrics) do
    equal(metric.name, select(2, SLB.filter.GetSysHealthMetrics())[i].name, "name")
    monitor:set_policy(('{"%s":{"value":20}}'):format(metric.setting))
    local is_disabled = monitor:cycle().action == filter.DISABLED
    equal({ metric.rate == true, needs_port[metric.setting] == true },
        { is_disabled, is_disabled }, metric.setting .. " needs a port")
end

-- ---- connection feedback ----------------------------------------------------------------

local function pass(seconds)
    recorder.clock((os.time() + seconds) * 1e6)
end

-- Empties the module, whose next publication is then 61 seconds away.
local function start(options)
    pass(100)
    SLB.filter.UpdateConnMetrics()
    SLB.filter.GetConnMetrics()
    return filter.feedback(options)
end

local function flow(protocol, src, sport, dst, dport)
    return { protocol = protocol, src = src, sport = sport, dst = dst, dport = dport }
end

local function rows(report)
    local list = {}
    for i, row in ipairs(report.rows) do
        list[i] = ("%d %s %s:%d %d%d%d"):format(row.count, row.protocol, row.dst_addr, row.dst_port,
            row.flags, row.cf_udp_connection, row.cf_outbound_connection)
    end
    return list
end

-- After 61 seconds, the module must report the rows that the script counted.
local function check_report(feedback, what, observations, refused)
    local expected = rows(feedback:rest())
    pass(61)
    local report = feedback:report()
    equal({ rows(report), report.observations, report.refused, report.time - report.since },
        { expected, observations, refused, 61 }, what)
end

-- A flow is fed once while it lasts, and again when it comes back.
local feedback = start { is_local = function(a) return a == "10.0.0.1" or a == "::1" end }
local a = flow("tcp", "10.0.0.2", 1, "10.0.0.1", 443)
local b = flow("tcp", "10.0.0.2", 2, "10.0.0.1", 443)
local out = flow("udp", "::1", 3, "2001:db8::1", 443)
local also = flow("tcp", "::1", 3, "2001:db8::1", 443)
for i, sample in ipairs { { { a, b, a }, 2, 2 }, { { a, b, out }, 3, 1 }, { { b, also }, 2, 1 },
                          { { a }, 1, 1 } } do
    equal({ feedback:sample(sample[1]) }, { sample[2], sample[3] }, "sample " .. i)
end
equal(rows(feedback:rest()), { "3 tcp 10.0.0.1:443 000", "1 tcp 2001:db8::1:443 401",
                               "1 udp 2001:db8::1:443 611" }, "not published yet")
check_report(feedback, "services", 5, 0)

-- Keys beyond the maximum; an interrupted sample feeds nothing, and the next one everything.
local flows, asked = {}, 0
for i = 1, 20002 do flows[i] = flow("tcp", "10.0.0.2", i, "10.0.0." .. i % 2, math.ceil(i / 2)) end
feedback = start { interrupted = function() asked = asked + 1 return asked == 2 end }
equal({ feedback:sample(flows) }, { nil, "interrupted" }, "interrupted")
equal(#feedback:rest().rows, 0, "fed")
equal({ feedback:sample(flows) }, { 20002, 20002 }, "the next sample")
feedback:sample { flow("tcp", "::3", 1, "10.0.0.1", 1), flow("tcp", "::3", 1, "10.0.0.1", 10001) }
check_report(feedback, "full", 10001, 10003)

-- A report comes when it is due, also after the clock was set back, and has everything.
feedback = start()
local fed, reported, reports = 0, 0, 0
for second = 1, 300 do
    pass(second == 100 and -30 or 1)
    fed = fed + select(2, feedback:sample { flow("tcp", "::2", second, "::1", second % 3) })
    local due, report = feedback:due(), feedback:report()
    equal(report ~= nil, due == 0, "due in " .. due)
    if report then reports, reported = reports + 1, reported + report.observations end
end
equal({ reports, reported + feedback:rest().observations }, { 4, fed }, "reports")

-- ---- addresses --------------------------------------------------------------------------

addresses.IPV4_PATH, addresses.IPV6_PATH = MACHINE .. "fib_trie", MACHINE .. "if_inet6"
testing.write(addresses.IPV4_PATH, "  +-- 192.0.2.0/24 2 0 2\n     |-- 192.0.2.2\n"
    .. "        /32 host LOCAL\n     |-- 192.0.2.255\n        /32 link BROADCAST\n")
testing.write(addresses.IPV6_PATH, "fd000000000000000000000000000002 04 40 00 82 eth0\n"
    .. "20010db8000000000001000000000001 04 40 00 82 eth0\n"
    .. "20010db8000100020000000400050006 04 40 00 82 eth0\n")
local is_local = addresses.of_this_machine()
for _, address in ipairs { "192.0.2.2", "127.0.0.53", "::1", "fd00::2", "2001:db8::1:0:0:1",
                           "2001:db8:1:2:0:4:5:6", "::ffff:192.0.2.2" } do
    equal(is_local(address), true, address)
end
equal({ is_local "192.0.2.255", is_local "2001:db8::1" }, { false, false }, "other addresses")

testing.finish()
