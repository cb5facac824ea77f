-- The filter script on the real module, a fake machine and a clock that the test sets; and which
-- addresses are this machine's.

local addresses = require "vxa.machine.addresses"
local filter = require "filter"
local health_policy = require "health_policy"
local recorder = require "recorder"
local testing = require "testing"
local vxa = require "vxa"

local equal, raises = testing.equal, testing.raises
local MACHINE = os.getenv("FAKE_MACHINE") .. "/"
local dom = vxa.Dom()

raises("require 'fc' first", filter.new, { dom = dom })
require "fc"
raises("options.dom must be an SLB.Dom, not userdata", filter.new, { dom = io.stdout })
raises("unknown option 'polciy'", filter.new, { dom = dom, polciy = "" })
raises("options.policy must be a string, not number", filter.new, { dom = dom, policy = 7 })

-- ---- health monitor ---------------------------------------------------------------------

-- What the module finds on the machine; nil for a command or file without it.
local function set_machine(load, free_pct)
    testing.write(MACHINE .. "uptime.out", ("load average: %s, 0.4, 0.3\n"):format(load or ""))
    testing.write(MACHINE .. "proc/meminfo", ("MemTotal: 1000 kB\n%s %d kB\n")
        :format(free_pct and "MemFree:" or "", (free_pct or 0) * 10))
end

vxa.capture(true)
vxa.verbose(true)
vxa.trace("SysHealth.eng", true)

local kinds = "log trace"  -- of the records that the script gets
local switched = {}
local monitor = filter.new {
    dom = dom,
    enforce = function(...) switched[#switched + 1] = { ... } end,
    records = function()
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
    { "0.5", 50, "normal" },
    { "0.5", 50, "normal, 1 warnings", '{"SYS_THR_RUNQUE":0,"SYS_THR_FREE_MEM":{"value":1}}' },
    { "0.5", 50, "normal" },
} do
    local load, free, expected, policy, new_kinds = table.unpack(row, 1, 5)
    set_machine(load, free)
    kinds = new_kinds or kinds
    if policy then monitor:set_policy(policy) end
    local result = monitor:cycle()
    local parts = { result.text }
    for _, metric in ipairs(result.over) do
        parts[#parts + 1] = ("%s %.14g %.14g"):format(metric.name, metric.value, metric.threshold)
    end
    parts[#parts + 1] = result.policy_error
        or result.policy_warnings and ("%d warnings"):format(#result.policy_warnings)
    equal(table.concat(parts, ", "), expected, "cycle " .. i)
    equal({ result.state, dom:get("vxp.filter.FailOpenState"), table.remove(switched) },
        { monitor.state, monitor.state, result.transition
            and { result.transition == "left", false } }, "state of cycle " .. i)
end

-- A transition that cannot be carried out leaves the state.
monitor:set_policy(THRESHOLDS:format("8", "5"))
set_machine("9.0", 50)
monitor.enforce = error
equal({ pcall(monitor.cycle, monitor), monitor.state }, { false, "Deactivated" }, "raised")

local status = filter.parse_status "SysHealth: a min_dur=60 act_dur=7 port=443 estab=inf(50.000)"
equal(status.figures.estab, { value = math.huge, threshold = 50 }, "not finite")

-- Names that the module has as well, and which thresholds need a port there.
local _, rows_of_module = SLB.filter.GetSysHealthMetrics()
local needs_port = {}
for i, metric in ipairs(filter.metrics) do
    equal(rows_of_module[i].name, metric.name, "name")
    needs_port[metric.setting] = metric.rate or false
end
for _, setting in ipairs(health_policy.settings) do
    if setting.threshold then
        monitor:set_policy(('{"%s":{"value":%d}}'):format(setting.key, setting.max))
        local is_disabled = monitor:cycle().action == filter.DISABLED
        equal({ setting.needs_port or false, needs_port[setting.key] },
            { is_disabled, is_disabled }, setting.key .. " needs a port")
    end
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

local function tcp(src, sport, dst, dport)
    return { protocol = "tcp", src = src, sport = sport, dst = dst, dport = dport }
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
local a, b = tcp("10.0.0.2", 1, "10.0.0.1", 443), tcp("10.0.0.2", 2, "10.0.0.1", 443)
local out = { protocol = "udp", src = "::1", sport = 3, dst = "2001:db8::1", dport = 443 }
local also = tcp("::1", 3, "2001:db8::1", 443)
for i, sample in ipairs { { { a, b, a }, 2, 2 }, { { a, b, out }, 3, 1 }, { { b, also }, 2, 1 },
                          { { a }, 1, 1 } } do
    equal({ feedback:sample(sample[1]) }, { sample[2], sample[3] }, "sample " .. i)
end
equal(rows(feedback:rest()), { "3 tcp 10.0.0.1:443 000", "1 tcp 2001:db8::1:443 401",
                               "1 udp 2001:db8::1:443 611" }, "not published yet")
check_report(feedback, "services", 5, 0)

-- Keys beyond the maximum; an interrupted sample feeds nothing, and the next one everything.
local flows, asked = {}, 0
for i = 1, 20002 do flows[i] = tcp("10.0.0.2", i, "10.0.0." .. i % 2, math.ceil(i / 2)) end
feedback = start { interrupted = function() asked = asked + 1 return asked == 2 end }
equal({ feedback:sample(flows) }, { nil, "interrupted" }, "interrupted")
equal(#feedback:rest().rows, 0, "fed")
equal({ feedback:sample(flows) }, { 20002, 20002 }, "the next sample")
feedback:sample { tcp("10.0.0.3", 1, "10.0.0.1", 1), tcp("10.0.0.3", 1, "10.0.0.1", 10001) }
check_report(feedback, "full", 10001, 10003)

-- A report comes when it is due, also after the clock was set back, and has everything.
feedback = start()
local fed, reported, reports = 0, 0, 0
for second = 1, 300 do
    pass(second == 100 and -30 or 1)
    fed = fed + select(2, feedback:sample { tcp("10.0.0.2", second, "10.0.0.1", second % 3) })
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
    .. "20010db8000100020003000400050006 04 40 00 82 eth0\n")
local is_local = addresses.of_this_machine()
for _, address in ipairs { "192.0.2.2", "127.0.0.53", "::1", "fd00::2", "2001:db8::1:0:0:1",
                           "2001:db8:1:2:3:4:5:6", "::ffff:192.0.2.2" } do
    equal(is_local(address), true, address)
end
equal({ is_local "192.0.2.255", is_local "2001:db8::1" }, { false, false }, "other addresses")

testing.finish()
