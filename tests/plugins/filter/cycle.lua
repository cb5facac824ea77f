-- Whole cycles of the unmodified module: what it asks of the driver, byte by byte, what it
-- writes to its logs, and what it answers, on faked commands, files and time.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"
require "fc"

local machine_path = assert(os.getenv "FAKE_MACHINE")
local logs = machine_path .. "/records.jsonl"
local config_file = machine_path .. "/etc/vx_filter.conf"
local config_log = machine_path .. "/var/opt/vx_agent/diag/vx_filter_json.log"
local filter = SLB.filter
local dom = vxa.Dom()

vxa.log_to(logs)

local function machine(load, cpus, total_kb, free_kb)
    t.write(machine_path .. "/uptime.out", load and
        (" 10:00:00 up 1 day,  1 user,  load average: %s, 1.00, 1.00\n"):format(load) or "")
    t.write(machine_path .. "/nproc.out", cpus and cpus .. "\n" or "")
    t.write(machine_path .. "/proc/meminfo", free_kb and
        ("MemTotal: %d kB\nMemFree: %d kB\nBuffers: 1 kB\n"):format(total_kb, free_kb) or "")
end

local now_us = 1700000000000000

local function lines(records)
    local texts = {}
    for _, record in ipairs(records.log) do
        texts[#texts + 1] = record.level .. ": " .. record.message
    end
    return texts
end

local function names(calls)
    local list = {}
    for _, call in ipairs(calls) do list[#list + 1] = call.name end
    return list
end

-- What a function traced, or a category.
local function messages(records, of)
    local texts = {}
    for _, trace in ipairs(records.trace) do
        if trace.category == of or trace["function"] == of then
            texts[#texts + 1] = trace.message
        end
    end
    return texts
end

-- One cycle, `passed` seconds after the one before: action, driver calls, records.
local function cycle(passed, state, policy, document)
    now_us = now_us + math.floor(passed * 1000000 + 0.5)
    recorder.clock(now_us)
    recorder.calls()
    t.records(logs)
    if document == nil then document = dom end
    local results = table.pack(filter.CheckSystemHealthMetrics(document, state, policy))
    t.equal(results, {{action = results[1].action}, n = 1}, "one result with one field")
    return results[1].action, recorder.calls(), t.records(logs)
end

local off, on = "Deactivated", "Activated"
machine("0.52", 4, 1000000, 250000)

local function metrics()
    local ok, rows, more = filter.GetSysHealthMetrics("ignored", {})
    t.equal({ok, more}, {true})
    return rows
end
local function metric(index) return metrics()[index].value end

-- Values and thresholds of all six, and the number of processors.
local function equal_metrics(values, thresholds, cpus)
    local expected = {[7] = {cpu_count = cpus}}
    for i, name in ipairs {"rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t"} do
        expected[i] = {name = name, value = values[i], threshold = thresholds[i]}
    end
    t.equal(metrics(), expected, "metrics", 1)
end
equal_metrics({0, 0, 0, 0, 0, 0}, {50, 10, 50, 100, 100, 100}, 4)

-- ---- wrong arguments: action 6, never an error ---------------------------------------

vxa.trace("SysHealth.*", true)

-- Held to the end: the collector would close them in the midst of what is recorded.
local zip = vxa.ZipOutputStream(machine_path .. "/a.zip")
local handle = vxa.open()
local type_codes = {["nil"] = 0, boolean = 1, number = 3, table = 5, ["function"] = 6}
for _, wrong in ipairs {false, 1, "SLB.Dom", {}, print, io.stdout, zip, handle} do
    t.equal((cycle(1, off, "", wrong)), 6, "document " .. tostring(wrong))
end
t.equal(filter.CheckSystemHealthMetrics().action, 6, "no arguments")
t.equal(filter.GetSysHealthEnabled(), true, "bad arguments leave monitoring on")

for kind, code in pairs(type_codes) do
    local wrong = ({boolean = true, number = 1, table = {}, ["function"] = print})[kind]
    local expected = {"incorrect type " .. code .. " for state string", "Setting status: enabled"}
    for _, arguments in ipairs {{wrong, ""}, {off, wrong}} do
        local action, calls, records = cycle(1, arguments[1], arguments[2])
        t.equal(action, 6, kind)
        t.equal(calls, {}, kind)
        t.equal(messages(records, "SysHealth.eng"), expected, kind)
    end
end

-- A byte that no encoding explains is shown as Latin-1, not dropped with the whole text.
for state, shown in pairs {activated = "activated", [""] = "", Deactivate = "Deactivate",
        [" Activated"] = " Activated", ["%s%n"] = "%s%n", ["Bad\255"] = "Bad\195\191"} do
    local action, _, records = cycle(1, state, "")
    t.equal(action, 6, state)
    t.equal(lines(records), {"error: incorrect state value " .. shown .. " for state string"})
end

-- ---- monitoring disabled: action 2 ---------------------------------------------------

local no_port = {
    SYS_THR_CONN_REFUSAL_PCT =
        "SysHealth - Conn Refusal enabled but monitoring port not configured",
    SYS_THR_CONN_EST_PER_CPU =
        "SysHealth - Conn Established enabled but monitoring port not configured",
    SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU =
        "SysHealth - Scan Mbytes enabled but monitoring port not configured",
}
for member, message in pairs(no_port) do
    local policy = ('{"%s": {"value": 5}, "SYS_THR_RUNQ": {"value": 50}}'):format(member)
    local action, calls, records = cycle(1, off, policy)
    t.equal(action, 2, member)
    t.equal(calls, {}, member)
    t.equal(lines(records), {"error: " .. message}, member)
    t.equal(messages(records, "SysHealth.eng"),
        {("cloud_config size[%d]:%s "):format(#policy, policy), "Setting status: disabled"}, member)
    t.equal(filter.GetSysHealthEnabled(), false, member)
end

-- Queries may be traced; the two lines on the port go to different categories.
t.records(logs)
t.equal({filter.GetSysHealthEnabled("ignored", {})}, {false})
t.equal({filter.GetScanMetricPort("ignored", {})}, {false, 0})
metrics()
local queries = t.records(logs)
t.equal(messages(queries, "SysHealth.eng"), {"GetSysHealthEnabled() called",
    "GetSysHealthEnabled() returning 0", "GetScanMetricPort() returning"})
t.equal(messages(queries, "SysHealth.metr"), {"GetScanMetricPort() called",
    "GetSysHealthMetrics() called", "GetSysHealthMetrics() returning"})

-- ---- collectors fail: actions 5 and 7 ------------------------------------------------

local runq = '{"SYS_THR_RUNQ": {"value": 50}}'
for _, case in ipairs {
    {{nil, 4, 1000, 250}, 5, "failed to collect rqLen, exiting"},
    {{"0.52", nil, 1000, 250}, 5, "failed to collect numCpus, exiting"},
    {{"0.52", 0, 1000, 250}, 5, "failed to collect numCpus, exiting"},
    {{"0.52", 4, nil, nil}, 7, "failed to collect vmstat metrics, exiting"},
} do
    machine(table.unpack(case[1], 1, 4))
    local action, calls, records = cycle(1, off, runq)
    t.equal(action, case[2], case[3])
    t.equal(calls, {}, case[3])
    local traces = messages(records, "SysHealth.eng")
    t.equal({traces[#traces - 1], traces[#traces]}, {case[3], "Setting status: enabled"}, case[3])
    t.equal(filter.GetSysHealthEnabled(), true, case[3])
end
machine("0.52", 4, 1000000, 250000)

-- ---- the driver: exact calls and records ---------------------------------------------

local scan_policy = [[{"SYS_CONF_CONN_REFUSAL_PORT": 8099,
  "SYS_THR_CONN_REFUSAL_PCT": {"value": 40}, "SYS_THR_CONN_EST_PER_CPU": {"value": 1000},
  "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 1000}, "SYS_THR_RUNQ": {"value": 50}}]]

-- No handle: nothing else is asked, the other thresholds are judged.
recorder.answer {opens = 0}
local action, calls, records = cycle(1, off, scan_policy)
t.equal(action, 0)
t.equal(names(calls), {"open"})
t.equal(lines(records), {})
t.equal(metrics()[3].threshold, 0)

-- Neither call delivers: told with the driver's text, and with the statuses.
recorder.answer {set_status = -5, get_status = -95, error = "no such thing"}
action, calls, records = cycle(1, off, scan_policy)
t.equal(action, 0)
t.equal(names(calls), {"open", "set_scan_monitoring", "get_error", "get_scan_metrics", "get_error",
    "get_error", "close"})
for _, call in ipairs(calls) do
    t.equal(call.null_handle, false, call.name)
    if call.name == "get_error" then t.equal(call.number, 128, "error buffer") end
end
t.equal(lines(records), {
    "error: vxi_set_scan_monitoring failed rc= -5 buf{no such thing}",
    "error: vxi_get_scan_metrics failed rc= -95, buf{no such thing}",
    "error: get_scan_metrics() failed rc=-95, exiting, buf{no such thing}"})
t.equal(messages(records, "SysHealth.scan"),
    {"setting scan config 8099, 0", "Collecting scan metrics"})

-- The text is cut to the 128 bytes of its buffer.
recorder.answer {get_status = -1, error = ("x"):rep(300)}
action, calls, records = cycle(1, off, scan_policy)
t.equal(lines(records)[1],
    "error: vxi_get_scan_metrics failed rc= -1, buf{" .. ("x"):rep(127) .. "}")

-- Sent anew until a fetch succeeds: another port and direction now.
local outbound_policy = '{"SYS_CONF_CONN_REFUSAL_PORT": 8101, "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1}'
recorder.answer {get_status = -1}
action, calls = cycle(1, off, outbound_policy)
local config = calls[2].bytes
t.equal({calls[2].name, #config}, {"set_scan_monitoring", 16392})
t.equal(t.nonzero(config), {0, 8200 + math.floor(8101 / 32) * 4 + math.floor(8101 % 32 / 8)},
    "version and one bit of the outbound bitmap")
t.equal({t.unsigned(config, 0, 4), t.unsigned(config, 8200 + math.floor(8101 / 32) * 4, 4)},
    {1, 2 ^ (8101 % 32)})

-- The first success. Its counters are only kept.
recorder.answer {values = {1000, 0, 500, 100, 0, 0, 2 ^ 30, 2 ^ 31}}
action, calls, records = cycle(1, off, scan_policy)
t.equal(action, 0)
t.equal(names(calls), {"open", "set_scan_monitoring", "get_scan_metrics", "close"})
config = calls[2].bytes
t.equal(t.nonzero(config), {0, 8 + math.floor(8099 / 32) * 4 + math.floor(8099 % 32 / 8)},
    "version and one bit of the inbound bitmap")
t.equal(t.unsigned(config, 8 + math.floor(8099 / 32) * 4, 4), 2 ^ (8099 % 32))
local request = calls[3].bytes
t.equal({calls[3].number, #request}, {192, 192})
t.equal({t.unsigned(request, 0, 4), t.unsigned(request, 4, 4), t.unsigned(request, 8, 2),
    t.unsigned(request, 12, 4), t.unsigned(request, 20, 4)}, {1, 1, 8099, 10, 1})
t.equal(t.nonzero(request), {0, 4, 8, 9, 12, 20}, "all else is zero")
t.equal({filter.GetScanMetricPort()}, {true, 8099})
t.equal({metric(2), metric(3), metric(4)}, {0, 0, 0}, "no rates yet")

-- From now on the configuration is never sent again; the fetch names the port that was sent.
-- 10 s: 500 new (50/s), 160 established (16/s on 4 processors), 125 refused (25 %), 2^30 bytes
-- each way (51.2 MiB/s on each processor). All six metrics are beyond their thresholds.
recorder.answer {values = {1500, 0, 660, 225, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}
machine("0.52", 4, 1000000, 240000)
action, calls, records = cycle(10, off, [[{"SYS_CONF_CONN_REFUSAL_PORT": 8101,
  "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1, "SYS_THR_CONN_REFUSAL_PCT": {"value": 24},
  "SYS_THR_CONN_EST_PER_CPU": {"value": 3}, "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 51},
  "SYS_THR_RUNQ": {"value": 0.25}, "SYS_THR_FREE_MEM": {"value": 25},
  "SYS_THR_MAX_ITERATION_INVL": {"value": 9}}]])
t.equal(names(calls), {"open", "get_scan_metrics", "close"})
t.equal({t.unsigned(calls[2].bytes, 4, 4), t.unsigned(calls[2].bytes, 8, 2)}, {2, 8099})
t.equal(action, 1)
equal_metrics({0, 25, 4, 51, 24, 10}, {0, 24, 3, 51, 25, 9}, 4)
t.equal(messages(records, "calculateHealthMetrics"), {
    "rqlen=0.500000 numCpus=4 rqlen_pct=0.500000",
    "conn_halfopen2close=12.500000 conn_new=50.000000 conn_ref_pct=25.000000",
    "conn_established=16.000000 numCpus=4.000000 conn_est_per_cpu=4.000000",
    "scanbytes_fwd=107374182.400000 scanbytes_bwd=107374182.400000 numCpus=4.000000 "
        .. "scan_mbytes_per_cpu=51.200000",
    -- The figures stand in the opposite order to their labels.
    "fremem pages=1000000 phsymem MB=240000 fremem_pct=24.000000"})
local function above(name, value, threshold)
    return ("%s value of %f exceeds threshold of %f (1.000000 x %f)"):format(name, value, threshold,
        threshold)
end
t.equal(messages(records, "check_health_metric_thresholds"), {
    above("runnable_processes_per_cpu_pct", 0.5, 0.25),
    above("connections_refused_per_new_conn_pct", 25, 24),
    above("connections_established_per_cpu", 4, 3),
    above("total_scan_mbytes_per_cpu", 51.2, 51),
    "free_memory_pct value of 24.000000 less than threshold of 25.000000 (25.000000 / 1.000000)",
    above("iteration interval", 10, 9)})
t.equal(messages(records, "SysHealth.eng")[#messages(records, "SysHealth.eng") - 1],
    "SysHealth transitioning to Fail-Open, metrics over threshold = 6")
t.equal({filter.GetScanMetricPort()}, {true, 8101}, "the configured one, not the one asked for")
machine("0.52", 4, 1000000, 250000)

-- Counters that ran backwards have no rate; the others have theirs.
recorder.answer {values = {1600, 0, 1, 2, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}
cycle(10, off, scan_policy)
t.equal({metric(2), metric(3), metric(4)}, {0, 0, 0})
recorder.answer {values = {1700, 0, 81, 12}}
cycle(10, off, scan_policy)
t.equal({metric(2), metric(3)}, {10, 2}, "against the restarted counters")

-- Fewer counters than asked for: the rest keep their rates. No entry: all do.
recorder.answer {counters = 1, values = {1900, 0, 9999, 9999}}
cycle(10, off, scan_policy)
t.equal({metric(2), metric(3)}, {5, 2})
recorder.answer {entries = 0, values = {99999, 0, 99999, 99999}}
cycle(10, off, scan_policy)
t.equal({metric(2), metric(3)}, {5, 2})

-- Counts that the request cannot hold are taken for what it does hold.
recorder.answer {counters = 4000000000, entries = 7, values = {2000, 0, 161, 32}}
action = cycle(10, off, scan_policy)
t.equal(action, 0)
t.equal({metric(2), metric(3)}, {20, 2})

-- A driver that stops delivering takes its thresholds out of this cycle only.
recorder.answer {get_status = -19, error = "gone"}
action, calls = cycle(10, off, scan_policy)
t.equal(names(calls), {"open", "get_scan_metrics", "get_error", "get_error", "close"})
t.equal({metric(2), metric(3), metric(1)}, {0, 0, 0})
t.equal({action, metrics()[3].threshold}, {0, 0})
recorder.answer {values = {2200, 0, 321, 32}}
cycle(10, off, scan_policy)
t.equal({metric(3), metrics()[3].threshold}, {4, 1000})

-- Five new connections a second are too few for a percentage.
recorder.answer {values = {2250, 0, 321, 82}}
cycle(10, off, scan_policy)
t.equal(metric(2), 0)
recorder.answer {values = {2310, 0, 321, 142}}
cycle(10, off, scan_policy)
t.equal(metric(2), 100)

-- Without an interval a rate has no bounds, or is no number: neither is an integer.
recorder.answer {values = {2400, 0, 400, 142}}
cycle(0, off, scan_policy)
t.equal({metric(2), metric(3), metric(4)}, {-2 ^ 63, -2 ^ 63, -2 ^ 63})

-- ---- fail-open -----------------------------------------------------------------------

machine("99.00", 4, 1000000, 250000)
local one_minute = [[{"SYS_CONF_CONN_REFUSAL_PORT": 8099, "SYS_CONF_MIN_ACT_DURATION": 1,
  "SYS_THR_CONN_EST_PER_CPU": {"value": 1}, "SYS_THR_RUNQ": {"value": 50}}]]
action, calls, records = cycle(10, off, one_minute)
t.equal(action, 1, "entered")
t.equal((cycle(30, on, one_minute)), 1)
action, calls = cycle(29.999999, "Activated by overload", one_minute)
t.equal(action, 1, "a microsecond too early")
t.equal(names(calls), {"open", "get_scan_metrics", "close"}, "rates are kept current")
t.equal(metrics()[3].threshold, 0, "not judged in fail-open")
-- A cycle that decides nothing leaves the moment of activation alone.
t.equal((cycle(0, "neither", one_minute)), 6)
t.equal((cycle(0, on, "{")), 2)
t.equal((cycle(0.000001, on, one_minute)), 0, "60 s later, whatever the metrics say")
t.equal((cycle(1, "Deactivated again", one_minute)), 1, "entered again")
t.equal((cycle(-0.000001, on, one_minute)), 0, "a clock set back ends it")
-- In fail-open the thresholds that need a port do not ask for one.
t.equal((cycle(0, on, '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 5}}')), 0)
t.equal((cycle(1, off, runq)), 1)
t.equal((cycle(0, on, '{"SYS_CONF_MIN_ACT_DURATION": 0}')), 0, "no minimum")
-- 30 minutes where nothing is configured.
t.equal((cycle(1, off, runq)), 1)
t.equal({filter.GetScanMetricPort()}, {false, 0}, "enabled without a port")
t.equal((cycle(1799.999999, on, runq)), 1)
t.equal((cycle(0.000001, on, runq)), 0)

-- A threshold may be reached. The last digit of the load is dropped.
local bounds = '{"SYS_THR_RUNQ": {"value": 50}, "SYS_THR_FREE_MEM": {"value": 25}}'
for _, case in ipairs {{"50.09", 1000000, 250000, 1, 0}, {"50.10", 1000000, 250000, 1, 1},
        {"0.10", 1000000, 249999, 1, 1}, {"0.10", 0, 0, 1, 0}, {"0.10", 0, 5, 1, 0},
        {"0.10", 1000000, 250000, 45, 0}, {"0.10", 1000000, 250000, 45.5, 1}} do
    machine(case[1], 4, case[2], case[3])
    t.equal((cycle(case[4], off, bounds)), case[5], table.concat(case, " "))
end
machine("0.52", 4, 1000000, 250000)

-- ---- status line ---------------------------------------------------------------------

vxa.trace("*", false)
local _, _, quiet = cycle(1, off, runq)
t.equal({quiet.log, quiet.trace}, {{}, {}}, "nothing is said without being asked")

vxa.verbose(true)
now_us = 1700009000250000
cycle(10, off, runq)
local function status(records)
    local all = lines(records)
    return all[#all]
end
cycle(2.5, off, runq)
machine("60.14", 4, 1000000, 250000)
local full = [[{"SYS_CONF_MIN_ACT_DURATION": 2, "SYS_THR_RUNQ": {"value": 50},
  "SYS_THR_FREE_MEM": {"value": 20}}]]
local told
action, _, told = cycle(2.5, off, full)
t.equal(status(told), "info: SysHealth: rc=1 tval=1700009015.250000 delta_t=2.500 startSt=Deact "
    .. "endSt=Act min_dur=120 act_dur=0 port=8099 rqpct=60.100(50.000) refusalpct=0.000(0.000) "
    .. "estab=0.000(0.000) scanmb=0.000(0.000) frepct=25.000(20.000) delta_t=2.500(45.000)")
action, _, told = cycle(119.5, on, full)
t.equal(status(told), "info: SysHealth: rc=1 tval=1700009134.750000 delta_t=119.500 startSt=Act "
    .. "endSt=Act min_dur=120 act_dur=119 port=8099 rqpct=60.100(50.000) refusalpct=0.000(0.000) "
    .. "estab=0.000(0.000) scanmb=0.000(0.000) frepct=25.000(20.000) delta_t=119.500(45.000)")
action, _, told = cycle(0.75, on, full)
local leaving = "info: SysHealth: rc=0 tval=1700009135.500000 delta_t=0.750 startSt=Act endSt=Act "
    .. "min_dur=120 act_dur=120 port=8099 "
t.equal(status(told):sub(1, #leaving), leaving)
_, _, told = cycle(1, off, "{")
t.equal(lines(told), {}, "only of a cycle that decided")
vxa.verbose(false)
machine("0.52", 4, 1000000, 250000)

-- ---- traces: place, order ------------------------------------------------------------

vxa.trace("SysHealth.*", true)
_, _, records = cycle(1, off, scan_policy)
local order = {}
for _, trace in ipairs(records.trace) do
    t.equal(trace.file, "plugins/filter/SystemHealth")
    order[#order + 1] = trace.category .. " " .. trace["function"]
end
t.equal(order, {
    "SysHealth.eng CheckSystemHealthMetrics",
    "SysHealth.conf readSystemHealthPolicy", "SysHealth.conf readSystemHealthPolicy",
    "SysHealth.conf readSystemHealthPolicy", "SysHealth.conf readSystemHealthPolicy",
    "SysHealth.conf readSystemHealthPolicy", "SysHealth.conf readSystemHealthPolicy",
    "SysHealth.scan get_scan_metrics",
    "SysHealth.eng calculateHealthMetrics", "SysHealth.eng calculateHealthMetrics",
    "SysHealth.eng calculateHealthMetrics", "SysHealth.eng calculateHealthMetrics",
    "SysHealth.eng CheckSystemHealthMetrics"})

-- ---- collectors --------------------------------------------------------------------

-- Action and run-queue length or complaint.
local load = "load average: 1.75, 1.20, 0.90\n"
for output, expected in pairs {
    [" 05:54:01 up 1 day, 2 users,  " .. load] = "0 1.7",
    ["load average: 123.99, 1.00, 1.00\nload average: 7.77, 1, 1\n"] = "1 123.9",
    ["load average:3.14, 2, 1"] = "0 3.1",
    ["load average: 3, 2, 1\n"] = "5 failed to convert runqueue length string  ",
    ["load average: 1.2x5, 2, 1\n"] = "5 failed to convert runqueue length string  1.2x",
    ["load average:1, 2\n"] = "5 failed to convert runqueue length string ",
    -- No text is left of this comma: the length becomes the largest, the rest is taken.
    ["load average:, 2\n"] = "5 failed to convert runqueue length string , 2\n",
    ["load average: 1.09 1.38 1.41\n"] = "5 no match on comma",
    ["up 3 days, load: 1.75, 1.20\n"] = "5 no match on average:",
    -- Lines are read up to 255 bytes.
    [(" "):rep(236) .. load] = "0 1.7",
    [(" "):rep(237) .. load] = "5 no match on comma",
    [(" "):rep(250) .. load] = "5 no match on average:",
    [""] = "5 could not retrieve command output, failing",
} do
    t.write(machine_path .. "/uptime.out", output)
    local action, _, records = cycle(1, off, runq)
    local complaint = messages(records, "queryRunQueueLength")[1]
    local rqlen = table.concat(messages(records, "calculateHealthMetrics")):match "rqlen=(%d+%.%d)"
    t.equal(action .. " " .. (complaint or rqlen), expected, output)
end
machine("0.52", 4, 1000000, 250000)

for output, count in pairs {["8\n"] = 8, [" \n 12 processors\n"] = 12, ["eight\n"] = 0, [""] = 0,
        ["18446744073709551615"] = 2 ^ 64} do
    t.write(machine_path .. "/nproc.out", output)
    t.records(logs)
    t.equal(metrics()[7].cpu_count, count, output)
    t.equal(messages(t.records(logs), "queryCpuCount"),
        {count == 0 and "failed to parse cpu count" or nil}, output)
end
machine("0.52", 4, 1000000, 250000)

-- Physical and free memory, and complaints.
for text, expected in pairs {
    ["MemTotal:  16000 kB\nMemFree:  4000 kB\nMemAvailable: 1 kB\n"] = "16000 4000",
    ["MemFree: 0 kB\nBuffers: 5 kB\nMemTotal: 18446744073709551615 kB"] =
        "18446744073709551615 0",
    ["MemTotal: 16000 kB\n"] = "failing",
    ["MemFree: 4000 kB\nSwapTotal: 5 kB\n"] = "failing",
    -- Contained, but not at the line's start, where the figure is looked for.
    ["NotMemTotal: 1 kB\nMemTotal: 16000 kB\nMemFree: 4000 kB\n"] =
        "16000 4000 failed to parse MemTotal value",
    ["MemTotal: 16000 kB\nMemFree: kB\n"] = "failing failed to parse MemFree value",
} do
    t.write(machine_path .. "/proc/meminfo", text)
    local action, _, records = cycle(1, off, bounds)
    local complaints = messages(records, "getMemoryMetrics")
    local outcome = "failing"
    if action == 7 then
        t.equal(table.remove(complaints), "could not retrieve command output, failing", text)
    else
        outcome = ("%s %s"):format(messages(records, "calculateHealthMetrics")[2]:match
            "pages=(%d+) phsymem MB=(%d+)")
    end
    t.equal(table.concat({outcome, table.unpack(complaints)}, " "), expected, text)
end
machine("0.52", 4, 1000000, 250000)

-- ---- settings ------------------------------------------------------------------------

local unload_key = "vxp.filter.FailOpenUnloadDriver"

-- After a cycle: settings accepted and in force, what the document was given about the driver;
-- then lines of the log and complaints.
local function outcome(state, policy)
    local document = vxa.Dom()
    local action, _, records = cycle(1, state, policy, document)
    local counts = messages(records, "SysHealth.conf")
    local count = (counts[#counts] or ""):match "^readSystemHealthConfig returning (%d+)$" or "0"
    t.equal(action == 2, count == "0", policy)
    local in_force = t.read(config_log):gsub("%s", ""):gsub('{"value":([^}]*)}', "%1")
        :gsub('"SYS_([%u_]+)"', "%1")
    local told = {count, in_force, tostring(document:get(unload_key)), table.unpack(lines(records))}
    for _, trace in ipairs(records.trace) do
        if trace.category == "SysHealth.eng" and trace["function"] == "readSystemHealthPolicy" then
            told[#told + 1] = trace.message
        end
    end
    return table.concat(told, " ")
end

local function rejected(stored, key, maximum)
    return (" error: value %f for  %s= is out of range, max= %f"):format(stored, key, maximum)
end
local runq_key = "SYSTEM_RUNQ_PCT_THRESHOLD"
local line = runq_key .. "="
for text, expected in pairs {
    [""] = "0 {} false",
    [line .. "50\n" .. line .. "250\n"] = "1 {THR_RUNQ:50} false" .. rejected(50, runq_key, 200),
    [line .. "50\n" .. line .. "60\n"] = "2 {THR_RUNQ:60} false",
    [" " .. line .. "50\n" .. line:lower() .. "50\n# comment\n"] = "0 {} false",
    [line .. " 50 percent\nSYSTEM_MIN_ACT_DURATION=0x10"] =
        "2 {CONF_MIN_ACT_DURATION:16,THR_RUNQ:50} false",
    [line .. "0.1\n"] = "1 {THR_RUNQ:0.10000000149011612} false",  -- single precision
    -- A long line is read in pieces.
    [("x"):rep(1023) .. line .. "7\n" .. ("x"):rep(1022) .. line .. "8\n"] =
        "1 {THR_RUNQ:7} false",
    ["SYSTEM_UNLOAD_DRIVER=0.5\n"] = "1 {CONF_UNLOAD_DRIVER:0.5} false",
} do
    t.write(config_file, text)
    t.equal(outcome(off, ""), expected, text)
end
for _, value in ipairs {"0", "-1\n", "much\n", "nan\n", "inf\n", "\n"} do
    t.write(config_file, line .. value)
    t.equal(outcome(off, ""), "0 {} false" .. rejected(0, runq_key, 200), value)
end
os.remove(config_file)
t.equal(outcome(off, ""), "0 {} nil", "no file")
for _, put in ipairs {"mkfifo ", "ln -s /dev/zero "} do
    os.execute(put .. config_file)
    t.equal(outcome(off, ""), "0 {} false", put)
    os.remove(config_file)
end
t.write(config_file, line .. "77\n")  -- never merged into a policy

local function beyond(key) return "  value out of boundary [SYS_" .. key .. "]" end
for policy, expected in pairs {
    ["{}"] = "0 {} false",
    ["[1, 2]"] = "0 {} false",
    ['{"SYS_CONF_CONN_REFUSAL_PORT": 8080.9, "SYS_THR_RUNQ": {"value": 0.6}} tail'] =
        "2 {CONF_CONN_REFUSAL_PORT:8080.9,THR_RUNQ:0.6} false",
    -- A plain number may be 0, a threshold not.
    ['{"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_THR_RUNQ": {"value": 0}}'] =
        "1 {CONF_MIN_ACT_DURATION:0} false" .. beyond "THR_RUNQ",
    [ [[{"SYS_CONF_RECOVER_FACTOR": -1, "SYS_THR_RUNQ": {"value": -1},
        "SYS_THR_CONN_EST_PER_CPU": {"value": 1e999}}]] ] =
        "0 {} false" .. beyond "CONF_RECOVER_FACTOR" .. beyond "THR_RUNQ"
            .. beyond "THR_CONN_EST_PER_CPU",
    [ [[{"SYS_THR_RUNQ": 50, "SYS_THR_FREE_MEM": {"value": "10"},
        "SYS_THR_CONN_REFUSAL_PCT": {"limit": 1}, "SYS_THR_CONN_EST_PER_CPU": null}]] ] =
        "0 {} false",
    -- A plain setting that is no number counts as 0.
    ['{"SYS_CONF_CONN_REFUSAL_PORT": "8080", "SYS_CONF_UNLOAD_DRIVER": {"value": 1}}'] =
        "2 {CONF_CONN_REFUSAL_PORT:0,CONF_UNLOAD_DRIVER:0} false",
    ['{"sys_thr_runq": {"VALUE": 5}, "SYS_THR_RUNQ": {"value": 6}}'] = "1 {THR_RUNQ:5} false",
    ["{"] = "0 {} nil json parsing error []",
    ["%s"] = "0 {} nil json parsing error [%s]",
    ['{"SYS_THR_RUNQ": }'] = "0 {} nil json parsing error [}]",
    ['{"a": 1, "b" 2}'] = "0 {} nil json parsing error [2}]",
} do
    t.equal(outcome(off, policy), expected, policy)
end
t.equal(outcome(off, '{"SYS_CONF_CONN_REFUSAL_PORT": 8080.9}'):sub(1, 1), "1")
t.equal({filter.GetScanMetricPort()}, {true, 8080})

-- Every setting is taken up to its maximum.
local file, policy = {[0] = {}, {}}, {[0] = {}, {}}  -- at the maximum; beyond it
local accepted, stored, refused_of_file, refused_of_policy = {}, {}, "", ""
for row, setting in ipairs {
    {"CONNECTION_REFUSAL_PORT", "CONF_CONN_REFUSAL_PORT", 65535},
    {"CONNECTION_REFUSAL_OUTBOUND", "CONF_CONN_REFUSAL_OUTBOUND", 1},
    {"RECOVERY_FACTOR", "CONF_RECOVER_FACTOR", 100},
    {"MIN_ACT_DURATION", "CONF_MIN_ACT_DURATION", 60},
    {"CONNECTION_REFUSAL_PCT_THRESHOLD", "THR_CONN_REFUSAL_PCT", 100},
    {"RUNQ_PCT_THRESHOLD", "THR_RUNQ", 200},
    {"CONNECTION_ESTABLISHED_PER_CPU", "THR_CONN_EST_PER_CPU", 10000000},
    {"TOTAL_SCAN_MBYTES_PER_CPU", "THR_TOTAL_SCAN_MBYTES_PER_CPU", 100000},
    {"MIN_FREE_MEM_PCT", "THR_FREE_MEM", 25},
    {"MAX_ITERATION_INTERVAL", "THR_MAX_ITERATION_INVL", 60},
    {"UNLOAD_DRIVER", "CONF_UNLOAD_DRIVER", 1},
} do
    local file_key, policy_key, maximum = table.unpack(setting)
    local shape = policy_key:find "^CONF" and '"SYS_%s": %d' or '"SYS_%s": {"value": %d}'
    for excess = 0, 1 do
        file[excess][row] = ("SYSTEM_%s=%d\n"):format(file_key, maximum + excess)
        policy[excess][row] = shape:format(policy_key, maximum + excess)
    end
    accepted[row] = policy_key .. ":" .. maximum
    refused_of_file = refused_of_file .. rejected(0, "SYSTEM_" .. file_key, maximum)
    refused_of_policy = refused_of_policy .. beyond(policy_key)
    stored[row] = ("stored SYS_%s  %f"):format(policy_key, maximum)
end
local all = table.concat(accepted, ",")
-- In fail-open the thresholds on the port's connections are counted, but off.
local in_fail_open = all:gsub("THR_CONN[%u_]+:%d+,", ""):gsub("THR_TOTAL[%u_]+:%d+,", "")
local function from_file(state, excess)
    t.write(config_file, table.concat(file[excess]))
    return outcome(state, "")
end
local function from_policy(state, excess)
    return outcome(state, "{" .. table.concat(policy[excess], ",") .. "}")
end
for read, refused in pairs {[from_file] = refused_of_file, [from_policy] = refused_of_policy} do
    t.equal(read(off, 0), "11 {" .. all .. "} true")
    t.equal(read(on, 0), "11 {" .. in_fail_open .. "} true")
    t.equal(read(off, 1), "0 {} false" .. refused)
end
_, _, records = cycle(1, off, "{" .. table.concat(policy[0], ",") .. "}")
stored[#stored + 1] = "readSystemHealthConfig returning 11"
t.equal(messages(records, "SysHealth.conf"), stored)

-- ---- the JSON log --------------------------------------------------------------------

-- Neither a shorter nor a longer text leaves anything of what was there.
for _, size in ipairs {5, 5000, 100000} do
    t.write(config_log, ("x"):rep(size))
    cycle(1, off, '{"SYS_CONF_CONN_REFUSAL_PORT": 8080, "SYS_THR_RUNQ": {"value": 0.5}}')
    t.equal(t.read(config_log), '{\n\t"SYS_CONF_CONN_REFUSAL_PORT":\t8080,\n\t"SYS_THR_RUNQ":\t{\n'
        .. '\t\t"value":\t0.5\n\t}\n}\n', size)
end

-- It is written only into a file of its own.
local victim = config_log .. ".victim"
t.write(victim, "kept")
for _, put in ipairs {"ln -s $2 $1", "ln -s /dev/null $1", "ln $2 $1", "mkfifo $1", "mkdir $1",
        "rm -r ${1%/*}"} do
    t.equal(os.execute(("set -- %s %s; rm -rf $1; %s"):format(config_log, victim, put)), true, put)
    action, _, records = cycle(1, off, runq)
    t.equal({action, lines(records)}, {0, {"error: Failed to output cloud config"}}, put)
    t.equal(messages(records, "outputCloudConfig"),
        {"Failed to open file of json config for writing."}, put)
    t.equal(t.read(victim) or "gone", put:find "^rm" and "gone" or "kept", put)
end

t.finish()
