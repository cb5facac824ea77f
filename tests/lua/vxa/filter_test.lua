-- The filter script on the real module: the health monitor's transitions, values and who is over;
-- connection feedback on a clock of the test's; and whose addresses are whose.

local addresses = require "vxa.machine.addresses"
local filter = require "filter"
local recorder = require "recorder"
local testing = require "testing"
local vxa = require "vxa"

local MACHINE = os.getenv("FAKE_MACHINE") .. "/"
local dom = vxa.Dom()

testing.raises("require 'fc' first", filter.new, { dom = dom })
require "fc"
testing.raises("options.dom must be an SLB.Dom, not userdata", filter.new, { dom = io.stdout })
testing.raises("unknown option 'polciy'", filter.new, { dom = dom, polciy = "" })
testing.raises("options.policy must be a string, not number", filter.new, { dom = dom, policy = 7 })

-- What the module finds on the machine; nil for a command or file that gives nothing.
local function set_machine(load, free_pct)
    testing.write(MACHINE .. "nproc.out", "4\n")
    testing.write(MACHINE .. "uptime.out", load and (" up 1 day, load average: %s, 0.4, 0.3\n")
        :format(load) or "")
    testing.write(MACHINE .. "proc/meminfo", free_pct and ("MemTotal: 1000000 kB\nMemFree: %d kB\n")
        :format(free_pct * 10000) or "")
end

-- `kinds`: of the records that the script gets.
local function monitor_of(options, kinds)
    vxa.captured()
    options.dom, options.records = dom, function()
        local found = {}
        for _, record in ipairs((vxa.captured())) do
            if kinds:find(record.kind) then found[#found + 1] = record end
        end
        return found
    end
    return filter.new(options)
end

vxa.capture(true)
vxa.verbose(true)
vxa.trace("SysHealth.eng", true)

-- In each cycle: load, free memory in %, text of the action, state, transition. The minimum
-- time of fail-open is 0, so the cycle after the one that enters it leaves it.
local POLICY = '{"SYS_CONF_MIN_ACT_DURATION":0,"SYS_THR_RUNQ":{"value":8},'
    .. '"SYS_THR_FREE_MEM":{"value":5}}'
local switched = {}
local monitor = monitor_of({ policy = POLICY,
    enforce = function(...) switched[#switched + 1] = { ... } end }, "log trace")
for i, cycle in ipairs {
    { nil, nil, "no load figures", "Deactivated" },
    { "8.0", 5, "normal", "Deactivated" },
    { "9.0", 50, "enter fail-open", "Activated", "entered" },
    { "9.0", 50, "leave fail-open", "Deactivated", "left" },
    { "0.5", 4, "enter fail-open", "Activated", "entered" },
    { nil, 50, "no load figures", "Activated" },
    { "9.0", nil, "no memory figures", "Activated" },
    { "0.5", 50, "leave fail-open", "Deactivated", "left" },
} do
    local load, free, text, state, transition = table.unpack(cycle, 1, 5)
    set_machine(load, free)
    local result = monitor:cycle()
    testing.equal({ result.text, result.state, dom:get("vxp.filter.FailOpenState"),
                    result.transition }, { text, state, state, transition }, "cycle " .. i)
    testing.equal(table.remove(switched), transition and { state == "Deactivated", false },
        "enforcement")
end

-- A transition that cannot be carried out leaves the state.
set_machine("9.0", 50)
monitor.enforce = error
testing.equal({ pcall(monitor.cycle, monitor), monitor.state }, { false, "Deactivated" }, "raised")

-- Policy and the kinds of records, and the metrics that are over, with value and threshold, at a
-- load of 8.0 and 4 % free memory. Without traces, what is equal to its threshold caused it;
-- without any record the values are whole numbers.
set_machine("8.0", 4)
for _, row in ipairs {
    { '{"SYS_THR_RUNQ":{"value":8},"SYS_THR_FREE_MEM":{"value":4}}', "log trace" },
    { '{"SYS_THR_RUNQ":{"value":7.9999}}', "log trace", "rqpct", 8, 7.9999 },
    { '{"SYS_THR_RUNQ":{"value":1e-9},"SYS_THR_FREE_MEM":{"value":25}}', "log trace",
      "rqpct", 8, 1e-9, "frepct" },
    { '{"SYS_THR_RUNQ":{"value":7.9999}}', "log", "rqpct", 8, 7.9999 },
    { '{"SYS_THR_RUNQ":{"value":0.5}}', "none", "rqpct", 8, 0.5 },
} do
    local policy, kinds, over, value, threshold, second_over = table.unpack(row, 1, 6)
    local result = monitor_of({ policy = policy }, kinds):cycle()
    local first, second = result.over[1] or {}, result.over[2] or {}
    testing.equal({ first.name, first.value, first.threshold, second.name },
        { over, value, threshold, second_over }, policy .. kinds)
    testing.equal(result.exact, kinds ~= "none", policy)
end

-- What is wrong with a policy is reported once.
set_machine("0.5", 50)
monitor = monitor_of({}, "log")
for _, row in ipairs {
    { '{"a":1,}', "not monitoring", "line 1, column 7: a comma before '}'" },
    { '{"SYS_THR_RUNQ":8,"SYS_THR_FREE_MEM":{"value":1}}', "normal",
      'SYS_THR_RUNQ must be {"value": 8}, not 8' },
    { '{"SYS_THR_RUNQUE":{"value":8},"SYS_THR_FREE_MEM":{"value":1}}', "normal", nil, 1 },
} do
    monitor:set_policy(row[1])
    local first, second = monitor:cycle(), monitor:cycle()
    local fault = first.policy_error
    testing.equal({ fault and fault:sub(1, #row[3]), first.policy_warnings and 1 },
        { row[3], row[4] }, row[1])
    testing.equal({ second.policy_error, second.policy_warnings }, {}, "again")
end

local status = filter.parse_status "SysHealth: a min_dur=60 act_dur=7 port=443 estab=inf(50.000)"
local estab = status.figures.estab
testing.equal({ status.in_fail_open_s, estab.value, estab.threshold }, { 7, math.huge, 50 })

-- ---- connection feedback ----------------------------------------------------------------

local function pass(seconds)
    recorder.clock((os.time() + seconds) * 1e6)
end

-- With the module empty, and its next publication 61 seconds away.
local function start(options)
    pass(100)
    SLB.filter.UpdateConnMetrics()
    SLB.filter.GetConnMetrics()
    return filter.feedback(options)
end

local function tcp(src, sport, dst, dport)
    return { protocol = "tcp", src = src, sport = sport, dst = dst, dport = dport }
end

-- The module's rows, and those made of what it has not published, are the same.
local function rows(report)
    local list = {}
    for i, row in ipairs(report.rows) do
        list[i] = ("%d %s %s:%d %d%d%d"):format(row.count, row.protocol, row.dst_addr, row.dst_port,
            row.flags, row.cf_udp_connection, row.cf_outbound_connection)
    end
    return list
end

-- A flow is fed once while it lasts, and again when it comes back.
local feedback = start { is_local = function(a) return a == "10.0.0.1" or a == "::1" end }
local a, b = tcp("10.0.0.2", 1, "10.0.0.1", 443), tcp("10.0.0.2", 2, "10.0.0.1", 443)
local out = { protocol = "udp", src = "::1", sport = 3, dst = "2001:db8::1", dport = 443 }
local also = tcp("::1", 3, "2001:db8::1", 443)
for i, sample in ipairs { { { a, b, a }, 2, 2 }, { { a, b, out }, 3, 1 }, { { b, also }, 2, 1 },
                          { { a }, 1, 1 } } do
    testing.equal({ feedback:sample(sample[1]) }, { sample[2], sample[3] }, "sample " .. i)
end
local expected = { "3 tcp 10.0.0.1:443 000", "1 tcp 2001:db8::1:443 401",
                   "1 udp 2001:db8::1:443 611" }
testing.equal(rows(feedback:rest()), expected, "not published yet")
pass(61)
local report = feedback:report()
testing.equal({ rows(report), report.observations, report.refused, report.time - report.since },
    { expected, 5, 0, 61 }, "report")

-- What finds no room is counted before the report.
local flows = {}
for i = 1, 20002 do flows[i] = tcp("10.0.0.2", i, "10.0.0." .. i % 2, math.ceil(i / 2)) end
feedback = start()
feedback:sample(flows)
feedback:sample { tcp("10.0.0.3", 1, "10.0.0.1", 1), tcp("10.0.0.3", 1, "10.0.0.1", 10001) }
expected = rows(feedback:rest())
pass(61)
report = feedback:report()
testing.equal({ rows(report), report.observations, report.refused }, { expected, 10001, 10003 })

-- An interrupted sample feeds nothing, and the next one everything.
local asked = 0
feedback = start { interrupted = function() asked = asked + 1 return asked == 2 end }
testing.equal({ feedback:sample(flows) }, { nil, "interrupted" }, "interrupted")
testing.equal(#feedback:rest().rows, 0, "fed")
testing.equal({ feedback:sample(flows) }, { 20002, 20002 }, "the next one")

-- A report comes when it is due, and everything is in one.
feedback = start()
local fed, reported, reports = 0, 0, 0
for second = 1, 300 do
    pass(second == 100 and -30 or 1)
    fed = fed + select(2, feedback:sample { tcp("10.0.0.2", second, "10.0.0.1", second % 3) })
    local due
    due, report = feedback:due(), feedback:report()
    testing.equal(report ~= nil, due == 0, "due in " .. due)
    if report then reports, reported = reports + 1, reported + report.observations end
end
testing.equal({ reports, reported + feedback:rest().observations }, { 4, fed }, "reports")

-- Addresses that are this machine's or not, by the kernel's two files.
addresses.IPV4_PATH, addresses.IPV6_PATH = os.tmpname(), os.tmpname()
testing.write(addresses.IPV4_PATH, [[
     +-- 192.0.2.0/24 2 0 2
           |-- 192.0.2.2
              /32 host LOCAL
        |-- 192.0.2.255
           /32 link BROADCAST
]])
testing.write(addresses.IPV6_PATH, [[
fd000000000000000000000000000002 04 40 00 82     eth0
20010db8000000000001000000000001 04 40 00 82     eth0
20010db8000100020003000400050006 04 40 00 82     eth0
]])
local is_local = addresses.of_this_machine()
os.remove(addresses.IPV4_PATH)
os.remove(addresses.IPV6_PATH)
for address, is_ours in pairs {
    ["192.0.2.2"] = true, ["192.0.2.255"] = false, ["127.0.0.53"] = true,
    ["::1"] = true, ["fd00::2"] = true, ["2001:db8::1:0:0:1"] = true, ["2001:db8::1"] = false,
    ["2001:db8:1:2:3:4:5:6"] = true, ["::ffff:192.0.2.2"] = true,
} do
    testing.equal(is_local(address) == true, is_ours, address)
end

testing.finish()
