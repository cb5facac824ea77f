-- The filter script on a fake machine and a clock that the test sets; this machine's addresses.

local addresses = require "vxa.machine.addresses"
local filter = require "filter"
local format = require "vxa.output.format"
local health_policy = require "health_policy"
local recorder = require "recorder"
local resources = require "vxa.machine.resources"
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

vxa.setenv("FAKE_OUTPUTS", MACHINE)

-- What the module finds on the machine; nil for a command or file without it.
local function set_machine(load, free_pct)
    testing.write(MACHINE .. "uptime.out", ("load average: %s, 0.4, 0.3\n"):format(load or ""))
    testing.write(MACHINE .. "proc/meminfo", ("MemTotal: 1000000 kB\nMemFree: %s kB\n")
        :format(free_pct and ("%.0f"):format(free_pct * 10000) or ""))
end

vxa.capture(true)
vxa.verbose(true)
vxa.trace("SysHealth.eng", true)

-- A random life of 4000 cycles, in which 10,000 values are judged: thresholds from 0.000001 to the
-- bound of the setting, most of them close to the value or to what makes it near; samples, driver,
-- policy and module fail now and then. What the script reports must follow from what is set here.
local random, now_us, minutes = math.random, 4e15, 0  -- later than the module's loading
local thresholds, past, counters, read = {}, {}, { 0, 0, 0, 0, 0, 0, 0, 0 }, nil
local entered_at, missed, has_gap, held_once = 0, false, false, false
local life = filter.new { dom = dom, clock = function() return now_us / 1e6 end,
                          records = function() return (vxa.captured()) end }
local bounds = {}
for _, setting in ipairs(health_policy.settings) do bounds[setting.key] = setting.max end

local function spread(least, most)
    return least * (most / least) ^ random()
end

-- Returns a number close to the previous one or anywhere within bounds.
local function wander(number, least, most)
    local value = random() < 0.9 and number * spread(0.9, 1.11) or spread(least, most)
    return math.max(least, math.min(most, value))
end

local policy
local function set_policy(values, share)
    minutes, thresholds = random(0, 1), { delta_t = 45 }
    local text = '{"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_CONF_MIN_ACT_DURATION":' .. minutes
    for _, metric in ipairs(filter.metrics) do
        local share_of_it = ({ 1, 0.8, 0.7 })[random(3)] * (1 + (random() - 0.5) * 10 ^ -random(8))
        local close = (values[metric.name] or 0) * (metric.below and share_of_it or 1 / share_of_it)
        local value = random() < 0.7 and close > 0 and close or spread(1e-6, bounds[metric.setting])
        if random() < share then
            thresholds[metric.name] = math.min(value, bounds[metric.setting])
            text = ('%s,"%s":{"value":%.17g}'):format(text, metric.setting,
                thresholds[metric.name])
        end
    end
    policy = text .. "}"
    life:set_policy(policy)
end

-- By the arithmetic of the module.
local function add_rates(values, seconds)
    local function rate(i) return (counters[i] - read[i]) / seconds end
    values.few = rate(1) <= 5
    values.refusalpct = rate(1) > 5 and 100 * rate(4) / rate(1) or nil
    values.estab, values.scanmb = rate(3) / 4, (rate(7) + rate(8)) / (4 * 1048576)
end

-- Checks a row and returns whether it is over and whether it has just come near.
local function check(row, value, is_on, is_few, enforces, is_exact)
    local metric, threshold, before = filter.metrics[row.name], thresholds[row.name], past[row.name]
    if not is_on then value = nil end
    if is_on and (not before or before.threshold ~= threshold) then
        before = { threshold = threshold }
    end
    past[row.name] = before
    local over = value and (metric.below and value < threshold or not metric.below
        and value > threshold) or false
    -- The interval that follows a cycle without a measurement has three decimals unless it is over.
    local digits = row.name == "delta_t" and has_gap and 6e-4 or 6e-7
    if value and not is_exact and math.abs(value - threshold) <= 2 * digits then over = row.over end
    if before then before.since = over and (before.since or now_us / 1e6) or nil end
    equal({ row.over, row.since, row.enabled, row.few or false, row.value ~= nil,
            math.abs((row.value or 0) - (value or 0)) <= digits, not is_on or row.threshold },
        { over, before and before.since, is_on, is_few, value ~= nil, true,
          not is_on or threshold }, row.name)
    if not value or missed and metric.rate then return over, false end
    local pressure = metric.below and threshold / row.value or row.value / threshold
    if pressure < 0.7 then before.near = false end
    local is_near = pressure > 0.8 and enforces and not before.near and not over
    before.near = before.near or over or pressure > 0.8 and enforces
    return over, is_near
end

-- The reason must name each metric with two numbers of which the first is beyond the second.
local function check_reason(over)
    local reason, count = format.crossings(over), 0
    local pattern = "(%S+) (%S+) (%l[%l ]*) the threshold of (%S+) "
    for name, value, verb, bound in reason:gmatch(pattern) do
        count = count + 1
        local row, beyond = over[count], tonumber(value) - tonumber(bound)
        local sign = verb == "is below" and -1 or 1
        equal({ name, sign < 0, beyond * sign > 0 or math.abs(row.value - row.threshold) <= 1e-6 },
            { row.name, filter.metrics[row.name].below or false, true }, reason)
    end
    equal(count, #over, reason)
end

local load, free_pct, per_second = 1, 50, { 1, 1, 1, 1, 1, 1, 1, 1 }
for cycle = 1, 4000 do
    local passed_us = random() < 0.1 and 2e6 or math.floor(spread(1000, 9e7))
    now_us = now_us + passed_us
    for i in ipairs(counters) do
        per_second[i] = random() < 0.02 and 5 or wander(per_second[i], 0.2, 1e9)
        counters[i] = counters[i] + math.floor(per_second[i] * passed_us / 1e6)
    end
    load, free_pct = wander(load, 0.1, 250), math.ceil(wander(free_pct, 1e-4, 30) * 1e4) / 1e4
    local shown_load = ("%.1f"):format(load)
    local fails, driver_fails = cycle > 1 and random() < 0.06, cycle > 1 and random() < 0.04
    local is_off, raises = cycle > 1 and random() < 0.03, random() < 0.02
    local values = { rqpct = tonumber(shown_load), frepct = free_pct * 10000 * 100 / 1e6,
                     delta_t = cycle > 1 and passed_us / 1e6 or nil }
    if read then add_rates(values, passed_us / 1e6) end
    if cycle == 1 or random() < 0.15 then set_policy(values, cycle == 1 and 1 or 0.3) end
    if is_off then life:set_policy("{}") end
    if raises then
        local working = SLB.filter.CheckSystemHealthMetrics
        SLB.filter.CheckSystemHealthMetrics = error
        equal(pcall(life.cycle, life), false, "raised")
        SLB.filter.CheckSystemHealthMetrics, missed = working, true
    end
    set_machine(not fails and shown_load .. "0", free_pct)
    recorder.answer { values = counters, get_scan_metrics = driver_fails and -5 or 0 }
    recorder.clock(now_us)

    local was_open = life.state == "Activated"
    local stays = was_open and now_us - entered_at < minutes * 6e7
    local result = life:cycle()
    if is_off then life:set_policy(policy) end
    local unmeasured = fails or is_off
    if not unmeasured and not driver_fails then read = { table.unpack(counters) } end
    local over, only_rates, near = {}, true, {}
    for i, row in ipairs(result.metrics) do
        local metric = filter.metrics[i]
        local is_on = thresholds[row.name] ~= nil
            and not (metric.rate and (was_open or driver_fails))
        local is_over, is_near = check(row, values[row.name], is_on, is_on and values.few
            and row.name == "refusalpct" or false, not was_open and result.state == "Deactivated",
            not stays)
        if is_over then over[#over + 1] = row end
        if is_near then near[#near + 1] = row end
        only_rates = only_rates and (metric.rate or not is_over)
    end
    if unmeasured then for _, each in pairs(past) do each.since = nil end end
    local would = #over > 0 and not was_open
    local held = would and missed and only_rates
    local transition = would and not held and "entered"
        or was_open and not stays and not unmeasured and "left" or nil
    equal({ result.measured, result.transition, result.held, result.over, result.near },
        { not unmeasured, transition, held or nil, over, near }, "cycle " .. cycle)
    if transition == "entered" then
        entered_at = now_us
        check_reason(result.causes)
    end
    if not unmeasured then
        equal(result.lasts_until, result.state == "Activated" and entered_at / 1e6 + minutes * 60
            or nil, "until")
    end
    missed = unmeasured or driver_fails
    has_gap, held_once = unmeasured, held_once or held
end
equal(held_once, true, "held")
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
    { "0.40", 1.9, "normal", THRESHOLDS:format("0.5", "1"), "none" },
    { "0.70", 50, "enter fail-open, rqpct 0 0.5" },
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
    equal(#result.near, i == 2 and 2 or 0, "near")
    equal({ result.state, dom:get("vxp.filter.FailOpenState"), switched }, { monitor.state,
        monitor.state, result.transition and { result.transition == "left", false } }, "state")
end

-- A transition that cannot be carried out leaves the state.
monitor:set_policy(THRESHOLDS:format("8", "5"))
set_machine("9.0", 50)
monitor.enforce = error
equal({ pcall(monitor.cycle, monitor), monitor.state }, { false, "Deactivated" }, "raised")
monitor.observe = true
equal({ monitor:cycle().would_enter, monitor.state }, { true, "Deactivated" }, "observed")
monitor.enforce, monitor.observe = nil, nil

-- The settings that the caller knows can be older than those in force, and without records only
-- the state shows that the rates are off.
kinds = "log trace"
monitor:set_policy(THRESHOLDS:format("20", "5"), { SYS_THR_RUNQ = 5 })
equal(monitor:cycle().metrics[1].threshold, 20, "in force")
kinds = "none"
monitor:set_policy('{"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_THR_CONN_EST_PER_CPU":{"value":0.5},'
    .. '"SYS_THR_RUNQ":{"value":8},"SYS_CONF_MIN_ACT_DURATION":0}')
equal({ monitor:cycle().transition, monitor:cycle().metrics[3].enabled }, { "entered", false })
set_machine("0.5", 50)

local status = filter.parse_status("SysHealth: tval= 1.000001 a min_dur=60 act_dur=7 port=443 "
    .. "estab=inf(50.000)")
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
equal({ feedback:sample(flows) }, { nil, "interrupted", 4 }, "interrupted")
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

-- ---- the machine beside the metrics -----------------------------------------------------

-- /proc/self/cgroup, files with their contents, limits of processors and memory.
resources.PROC, resources.CGROUPS = MACHINE .. "pseudo", MACHINE .. "groups"
for i, row in ipairs {
    { "", {} },
    { "0::/a/b\n", { ["a/b/cpu.max"] = "max 100000", ["a/cpu.max"] = "150000 100000",
                     ["cpu.max"] = "200000 100000", ["a/b/memory.max"] = "4096",
                     ["a/memory.max"] = "max" }, 1.5, 4096 },
    { "0::/../c\n", { ["memory.max"] = "8192", ["../c/memory.max"] = "1" }, nil, 8192 },
    { "4:memory:/\n", { ["memory/memory.limit_in_bytes"] = "9223372036854771712" } },
    { "4:memory:/m\n2:cpu,cpuacct:/\n0::/\n", {
        ["memory/m/memory.limit_in_bytes"] = "9223372036854771712",
        ["memory/memory.limit_in_bytes"] = "1048576", ["cpu,cpuacct/cpu.cfs_quota_us"] = "-1",
        ["cpu,cpuacct/cpu.cfs_period_us"] = "100000", ["cpu.max"] = "50000 100000" },
      0.5, 1048576 },
} do
    os.execute(("cd %s && rm -rf pseudo groups && mkdir -p pseudo/self pseudo/pressure c "
        .. "groups/a/b groups/memory/m groups/cpu,cpuacct"):format(MACHINE))
    testing.write(MACHINE .. "pseudo/self/cgroup", row[1])
    testing.write(MACHINE .. "pseudo/pressure/io", "some avg10=1.25 avg60=0 avg300=0 total=1\n")
    testing.write(MACHINE .. "pseudo/meminfo", "MemAvailable:   8 kB\n")
    for name, text in pairs(row[2]) do testing.write(MACHINE .. "groups/" .. name, text .. "\n") end
    equal(resources.read(vxa), { io_pressure = 1.25, memory_available_bytes = 8192,
                                 cpu_limit = row[3], memory_limit_bytes = row[4] }, "machine " .. i)
end

testing.finish()
