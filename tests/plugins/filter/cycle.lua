-- Whole cycles of the unmodified module: what it asks of the driver, byte by byte, what it logs,
-- and what it answers, on a fake machine and the test's clock.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"
require "fc"

local equal = t.equal
local root = assert(os.getenv "FAKE_MACHINE")
local logs = root .. "/records.jsonl"
local config_file = root .. "/etc/vx_filter.conf"
local config_log = root .. "/var/opt/vx_agent/diag/vx_filter_json.log"
local filter = SLB.filter
local dom = vxa.Dom()

vxa.log_to(logs)

-- Without arguments an idle machine; nil for a command or file without its value.
local function machine(...)
    local load, cpus, total_kb, free_kb = ...
    if select("#", ...) == 0 then load, cpus, total_kb, free_kb = "0.52", 4, 1000000, 250000 end
    t.write(root .. "/uptime.out", load and
        (" 10:00:00 up 1 day,  1 user,  load average: %s, 1.00, 1.00\n"):format(load) or "")
    t.write(root .. "/nproc.out", cpus and cpus .. "\n" or "")
    t.write(root .. "/proc/meminfo", free_kb and
        ("MemTotal: %d kB\nMemFree: %d kB\nBuffers: 1 kB\n"):format(total_kb, free_kb) or "")
end
machine()

-- The messages that a function traced, or those of a category.
local function traced(records, of)
    local found = {}
    for _, trace in ipairs(records.trace) do
        if trace.category == of or trace["function"] == of then
            found[#found + 1] = trace.message
        end
    end
    return found
end

local off, on = "Deactivated", "Activated"
local now_us = 1700000000000000

-- One cycle, `passed` seconds after the one before. Returns the action and what it recorded: the
-- driver's calls and their names, the lines of the log, the traces.
local function cycle(passed, state, policy, document)
    now_us = now_us + math.floor(passed * 1000000 + 0.5)
    recorder.clock(now_us)
    recorder.calls()
    t.records(logs)
    if document == nil then document = dom end
    local results = table.pack(filter.CheckSystemHealthMetrics(document, state, policy))
    local action = results[1].action
    equal(results, {{action = action}, n = 1}, "one result with one field")
    local seen, names = t.records(logs), {}
    seen.calls, seen.lines = recorder.calls(), {}
    for i, call in ipairs(seen.calls) do names[i] = call.name end
    for i, record in ipairs(seen.log) do seen.lines[i] = record.level .. ": " .. record.message end
    seen.asked = table.concat(names, " ")
    return action, seen
end

local function metrics()
    local ok, rows, more = filter.GetSysHealthMetrics("ignored", {})
    equal({ok, more}, {true})
    return rows
end

-- The values of metrics after a cycle, by their position.
local function values(...)
    local found, rows = {}, metrics()
    for i, position in ipairs {...} do found[i] = rows[position].value end
    return found
end

-- Values and thresholds of all metrics, and the number of processors.
local function equal_metrics(found, thresholds, cpus)
    local expected = {}
    for i, name in ipairs {"rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t"} do
        expected[i] = {name = name, value = found[i], threshold = thresholds[i]}
    end
    expected[#expected + 1] = {cpu_count = cpus}
    equal(metrics(), expected, "metrics", 1)
end
equal_metrics({0, 0, 0, 0, 0, 0}, {50, 10, 50, 100, 100, 100}, 4)

-- ---- wrong arguments: action 6, never an error ---------------------------------------

vxa.trace("SysHealth.*", true)

-- Held to the end: the collector would close them while calls are recorded.
local zip = vxa.ZipOutputStream(root .. "/a.zip")
local handle = vxa.open()
for _, wrong in ipairs {false, 1, "SLB.Dom", {}, print, io.stdout, zip, handle} do
    equal((cycle(1, off, "", wrong)), 6, "document " .. tostring(wrong))
end
equal(filter.CheckSystemHealthMetrics().action, 6, "no arguments")
equal(filter.GetSysHealthEnabled(), true, "bad arguments leave monitoring on")

for code, wrong in pairs {[0] = {}, [1] = {true}, [3] = {1}, [5] = {{}}, [6] = {print}} do
    for position = 1, 2 do
        local arguments = {off, ""}
        arguments[position] = wrong[1]
        local action, seen = cycle(1, arguments[1], arguments[2])
        equal({action, seen.asked, traced(seen, "SysHealth.eng")}, {6, "",
            {"incorrect type " .. code .. " for state string", "Setting status: enabled"}}, code)
    end
end

-- A byte that no encoding explains is shown as Latin-1; the rest of the string stays.
for state, shown in pairs {activated = "activated", [""] = "", Deactivate = "Deactivate",
        [" Activated"] = " Activated", ["%s%n"] = "%s%n", ["Bad\255"] = "Bad\195\191"} do
    local action, seen = cycle(1, state, "")
    equal({action, seen.lines}, {6,
        {"error: incorrect state value " .. shown .. " for state string"}}, state)
end

-- ---- monitoring disabled: action 2 ---------------------------------------------------

for member, name in pairs {SYS_THR_CONN_REFUSAL_PCT = "Conn Refusal",
        SYS_THR_CONN_EST_PER_CPU = "Conn Established",
        SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU = "Scan Mbytes"} do
    local policy = ('{"%s": {"value": 5}, "SYS_THR_RUNQ": {"value": 50}}'):format(member)
    local action, seen = cycle(1, off, policy)
    equal({action, seen.asked, seen.lines, filter.GetSysHealthEnabled()}, {2, "",
        {"error: SysHealth - " .. name .. " enabled but monitoring port not configured"}, false})
    equal(traced(seen, "SysHealth.eng"),
        {("cloud_config size[%d]:%s "):format(#policy, policy), "Setting status: disabled"}, member)
end

-- Queries may be traced; the two lines on the port go to different categories.
t.records(logs)
equal({filter.GetSysHealthEnabled("ignored", {})}, {false})
equal({filter.GetScanMetricPort("ignored", {})}, {false, 0})
metrics()
local queries = t.records(logs)
equal(traced(queries, "SysHealth.eng"), {"GetSysHealthEnabled() called",
    "GetSysHealthEnabled() returning 0", "GetScanMetricPort() returning"})
equal(traced(queries, "SysHealth.metr"), {"GetScanMetricPort() called",
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
    local action, seen = cycle(1, off, runq)
    local traces = traced(seen, "SysHealth.eng")
    equal({action, seen.asked, traces[#traces - 1], traces[#traces], filter.GetSysHealthEnabled()},
        {case[2], "", case[3], "Setting status: enabled", true}, case[3])
end
machine()

-- ---- the driver: exact calls and records ---------------------------------------------

local scan_policy = [[{"SYS_CONF_CONN_REFUSAL_PORT": 8099,
  "SYS_THR_CONN_REFUSAL_PCT": {"value": 40}, "SYS_THR_CONN_EST_PER_CPU": {"value": 1000},
  "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 1000}, "SYS_THR_RUNQ": {"value": 50}}]]

-- A record of `size` bytes that is zero but for these little-endian words at offsets.
local function record(size, words)
    local parts = {}
    for at = 0, size - 4, 4 do
        local word = words[at] or 0
        parts[#parts + 1] = string.char(bit32.extract(word, 0, 8), bit32.extract(word, 8, 8),
            bit32.extract(word, 16, 8), bit32.extract(word, 24, 8))
    end
    return table.concat(parts)
end

-- The configuration that has one port's bit in the bitmap at an offset.
local function scan_config(bitmap, port)
    return record(16392, {[0] = 1, [bitmap + math.floor(port / 32) * 4] = 2 ^ (port % 32)})
end

-- No handle: nothing else is asked, the other thresholds are judged.
recorder.answer {open = 0}
local action, seen = cycle(1, off, scan_policy)
equal({action, seen.asked, seen.lines, metrics()[3].threshold}, {0, "open", {}, 0})

-- Neither call succeeds: logged with the driver's message, and with the statuses.
recorder.answer {set_scan_monitoring = -5, get_scan_metrics = -95, error = "no such thing"}
action, seen = cycle(1, off, scan_policy)
equal({action, seen.asked}, {0,
    "open set_scan_monitoring get_error get_scan_metrics get_error get_error close"})
for _, call in ipairs(seen.calls) do
    equal(call.null_handle, false, call.name)
    if call.name == "get_error" then equal(call.number, 128, "error buffer") end
end
equal(seen.lines, {
    "error: vxi_set_scan_monitoring failed rc= -5 buf{no such thing}",
    "error: vxi_get_scan_metrics failed rc= -95, buf{no such thing}",
    "error: get_scan_metrics() failed rc=-95, exiting, buf{no such thing}"})
equal(traced(seen, "SysHealth.scan"), {"setting scan config 8099, 0", "Collecting scan metrics"})

-- The message is cut to its buffer of 128 bytes.
recorder.answer {get_scan_metrics = -1, error = ("x"):rep(300)}
seen = select(2, cycle(1, off, scan_policy))
equal(seen.lines[1], "error: vxi_get_scan_metrics failed rc= -1, buf{" .. ("x"):rep(127) .. "}")

-- Sent again until a fetch succeeds: another port and direction now.
recorder.answer {get_scan_metrics = -1}
seen = select(2, cycle(1, off,
    '{"SYS_CONF_CONN_REFUSAL_PORT": 8101, "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1}'))
equal({seen.calls[2].name, seen.calls[2].bytes}, {"set_scan_monitoring", scan_config(8200, 8101)})

-- The first success. Its counters are only kept.
recorder.answer {values = {1000, 0, 500, 100, 0, 0, 2 ^ 30, 2 ^ 31}}
action, seen = cycle(1, off, scan_policy)
equal({action, seen.asked}, {0, "open set_scan_monitoring get_scan_metrics close"})
equal(seen.calls[2].bytes, scan_config(8, 8099))
equal({seen.calls[3].number, seen.calls[3].bytes},
    {192, record(192, {[0] = 1, [4] = 1, [8] = 8099, [12] = 10, [20] = 1})})
equal({filter.GetScanMetricPort()}, {true, 8099})
equal(values(2, 3, 4), {0, 0, 0}, "no rates yet")

-- From now on the configuration is never sent again; the fetch names the port that was sent.
-- 10 s: 500 new (50/s), 160 established (16/s on 4 processors), 125 refused (25 %), 2^30 bytes
-- each way (51.2 MiB/s on each processor). All six metrics are beyond their thresholds.
recorder.answer {values = {1500, 0, 660, 225, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}
machine("0.52", 4, 1000000, 240000)
action, seen = cycle(10, off, [[{"SYS_CONF_CONN_REFUSAL_PORT": 8101,
  "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1, "SYS_THR_CONN_REFUSAL_PCT": {"value": 24},
  "SYS_THR_CONN_EST_PER_CPU": {"value": 3}, "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 51},
  "SYS_THR_RUNQ": {"value": 0.25}, "SYS_THR_FREE_MEM": {"value": 25},
  "SYS_THR_MAX_ITERATION_INVL": {"value": 9}}]])
equal({action, seen.asked, seen.calls[2].bytes}, {1, "open get_scan_metrics close",
    record(192, {[0] = 1, [4] = 2, [8] = 8099, [12] = 10, [20] = 1})})
equal_metrics({0, 25, 4, 51, 24, 10}, {0, 24, 3, 51, 25, 9}, 4)
equal(traced(seen, "calculateHealthMetrics"), {
    "rqlen=0.500000 numCpus=4 rqlen_pct=0.500000",
    "conn_halfopen2close=12.500000 conn_new=50.000000 conn_ref_pct=25.000000",
    "conn_established=16.000000 numCpus=4.000000 conn_est_per_cpu=4.000000",
    "scanbytes_fwd=107374182.400000 scanbytes_bwd=107374182.400000 numCpus=4.000000 "
        .. "scan_mbytes_per_cpu=51.200000",
    -- The numbers are in the opposite order of their labels.
    "fremem pages=1000000 phsymem MB=240000 fremem_pct=24.000000"})
local function above(name, value, threshold)
    return ("%s value of %f exceeds threshold of %f (1.000000 x %f)"):format(name, value, threshold,
        threshold)
end
equal(traced(seen, "check_health_metric_thresholds"), {
    above("runnable_processes_per_cpu_pct", 0.5, 0.25),
    above("connections_refused_per_new_conn_pct", 25, 24),
    above("connections_established_per_cpu", 4, 3),
    above("total_scan_mbytes_per_cpu", 51.2, 51),
    "free_memory_pct value of 24.000000 less than threshold of 25.000000 (25.000000 / 1.000000)",
    above("iteration interval", 10, 9)})
local engine = traced(seen, "SysHealth.eng")
equal(engine[#engine - 1],
    "SysHealth transitioning to Fail-Open, metrics over threshold = 6")
equal({filter.GetScanMetricPort()}, {true, 8101}, "the configured one, not the one asked for")
machine()

-- What the driver answers in later cycles of 10 s, and the refused, established and scanned rates.
for _, case in ipairs {
    -- Counters that ran backwards have no rate; the others have theirs.
    {{values = {1600, 0, 1, 2, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}, {0, 0, 0}},
    {{values = {1700, 0, 81, 12, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}, {10, 2, 0}},
    -- Fewer counters than asked for: the rest keep their rates. No entry: all do.
    {{counters = 1, values = {1900, 0, 9999, 9999}}, {5, 2, 0}},
    {{entries = 0, values = {99999, 0, 99999, 99999}}, {5, 2, 0}},
    -- Counts beyond the request's room count as its room.
    {{counters = 4000000000, entries = 7, values = {2000, 0, 161, 32}}, {20, 2, 0}},
    -- A driver that fails takes its thresholds out of this cycle only.
    {{get_scan_metrics = -19, error = "gone"}, {0, 0, 0}, 0,
        "open get_scan_metrics get_error get_error close"},
    {{values = {2200, 0, 321, 32}}, {0, 4, 0}},
    -- Five new connections a second are too few for a percentage.
    {{values = {2250, 0, 321, 82}}, {0, 0, 0}},
    {{values = {2310, 0, 321, 142}}, {100, 0, 0}},
} do
    recorder.answer(case[1])
    action, seen = cycle(10, off, scan_policy)
    equal({action, values(2, 3, 4), metrics()[3].threshold, seen.asked},
        {case[2][1] > 40 and 1 or 0, case[2], case[3] or 1000,
        case[4] or "open get_scan_metrics close"}, table.concat(case[1].values or {}, " "))
end

-- Without an interval a rate has no bounds, or is not a number: neither is an integer.
recorder.answer {values = {2400, 0, 400, 142}}
cycle(0, off, scan_policy)
equal(values(2, 3, 4), {-2 ^ 63, -2 ^ 63, -2 ^ 63})

-- ---- fail-open -----------------------------------------------------------------------

machine("99.00", 4, 1000000, 250000)
local one_minute = [[{"SYS_CONF_CONN_REFUSAL_PORT": 8099, "SYS_CONF_MIN_ACT_DURATION": 1,
  "SYS_THR_CONN_EST_PER_CPU": {"value": 1}, "SYS_THR_RUNQ": {"value": 50}}]]
-- Seconds, state, policy, action.
for _, case in ipairs {
    {10, off, one_minute, 1, "entered"},
    {30, on, one_minute, 1},
    {29.999999, "Activated by overload", one_minute, 1, "a microsecond too early"},
    -- A cycle that decides nothing leaves the moment of activation alone.
    {0, "neither", one_minute, 6},
    {0, on, "{", 2},
    {0.000001, on, one_minute, 0, "60 s later, whatever the metrics say"},
    {1, "Deactivated again", one_minute, 1, "entered again"},
    {-0.000001, on, one_minute, 0, "a clock set back ends it"},
    -- In fail-open the thresholds that need a port do not ask for one.
    {0, on, '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 5}}', 0},
    {1, off, runq, 1},
    {0, on, '{"SYS_CONF_MIN_ACT_DURATION": 0}', 0, "no minimum"},
    -- 30 minutes where nothing is configured.
    {1, off, runq, 1},
    {1799.999999, on, runq, 1},
    {0.000001, on, runq, 0},
} do
    action, seen = cycle(case[1], case[2], case[3])
    equal(action, case[4], case[5] or table.concat(case, " "))
    if case[2] ~= off and case[3] == one_minute and action == 1 then
        equal({seen.asked, metrics()[3].threshold}, {"open get_scan_metrics close",
            case[2]:find "^Act" and 0 or 1}, "rates are kept current, not judged in fail-open")
    end
end
equal({filter.GetScanMetricPort()}, {false, 0}, "enabled without a port")

-- A threshold may be reached. The last digit of the load is dropped.
local bounds = '{"SYS_THR_RUNQ": {"value": 50}, "SYS_THR_FREE_MEM": {"value": 25}}'
for _, case in ipairs {{"50.09", 1000000, 250000, 1, 0}, {"50.10", 1000000, 250000, 1, 1},
        {"0.10", 1000000, 249999, 1, 1}, {"0.10", 0, 0, 1, 0}, {"0.10", 0, 5, 1, 0},
        {"0.10", 1000000, 250000, 45, 0}, {"0.10", 1000000, 250000, 45.5, 1}} do
    machine(case[1], 4, case[2], case[3])
    equal((cycle(case[4], off, bounds)), case[5], table.concat(case, " "))
end
machine()

-- ---- status line ---------------------------------------------------------------------

vxa.trace("*", false)
seen = select(2, cycle(1, off, runq))
equal({seen.log, seen.trace}, {{}, {}}, "nothing is logged unless asked for")

vxa.verbose(true)
now_us = 1700009000250000
cycle(10, off, runq)
seen = select(2, cycle(2.5, off, runq))
t.matches(seen.lines[1], "rc=0 .* startSt=Deact endSt=Deact ")
machine("60.14", 4, 1000000, 250000)
local full = [[{"SYS_CONF_MIN_ACT_DURATION": 2, "SYS_THR_RUNQ": {"value": 50},
  "SYS_THR_FREE_MEM": {"value": 20}}]]
local unscanned = "refusalpct=0.000(0.000) estab=0.000(0.000) scanmb=0.000(0.000) "
for _, case in ipairs {
    {2.5, off, "rc=1 tval=1700009015.250000 delta_t=2.500 startSt=Deact endSt=Act min_dur=120 "
        .. "act_dur=0 port=8099 rqpct=60.100(50.000) " .. unscanned
        .. "frepct=25.000(20.000) delta_t=2.500(45.000)"},
    {119.5, on, "rc=1 tval=1700009134.750000 delta_t=119.500 startSt=Act endSt=Act min_dur=120 "
        .. "act_dur=119 port=8099 rqpct=60.100(50.000) " .. unscanned
        .. "frepct=25.000(20.000) delta_t=119.500(45.000)"},
    {0.75, on, "rc=0 tval=1700009135.500000 delta_t=0.750 startSt=Act endSt=Act min_dur=120 "
        .. "act_dur=120 port=8099 "},
} do
    seen = select(2, cycle(case[1], case[2], full))
    local expected = "info: SysHealth: " .. case[3]
    local line = seen.lines[#seen.lines]
    equal(case[1] == 0.75 and line:sub(1, #expected) or line, expected)
end
seen = select(2, cycle(1, off, "{"))
equal(seen.lines, {}, "only of a cycle that decided")
vxa.verbose(false)
machine()

-- ---- traces: place, order ------------------------------------------------------------

vxa.trace("SysHealth.*", true)
local long = runq:gsub("}$", (', "pad": "%s"}'):format(("p"):rep(600)))
seen = select(2, cycle(1, off, long))
equal(traced(seen, "SysHealth.eng")[1], ("cloud_config size[%d]:%s "):format(#long, long))
action, seen = cycle(1, off, scan_policy)
local order = {}
for _, trace in ipairs(seen.trace) do
    equal(trace.file, "plugins/filter/SystemHealth")
    order[#order + 1] = trace.category:match "%w+$" .. " " .. trace["function"]
end
equal(table.concat(order, ", "), "eng CheckSystemHealthMetrics"
    .. (", conf readSystemHealthPolicy"):rep(6) .. ", scan get_scan_metrics"
    .. (", eng calculateHealthMetrics"):rep(4) .. ", eng CheckSystemHealthMetrics")

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
    -- Nothing is left in front of this comma: the length becomes the largest, the rest is taken.
    ["load average:, 2\n"] = "5 failed to convert runqueue length string , 2\n",
    ["load average: 1.09 1.38 1.41\n"] = "5 no match on comma",
    ["up 3 days, load: 1.75, 1.20\n"] = "5 no match on average:",
    -- Lines are read up to 255 bytes.
    [(" "):rep(236) .. load] = "0 1.7",
    [(" "):rep(237) .. load] = "5 no match on comma",
    [(" "):rep(250) .. load] = "5 no match on average:",
    [""] = "5 could not retrieve command output, failing",
} do
    t.write(root .. "/uptime.out", output)
    action, seen = cycle(1, off, runq)
    local complaint = traced(seen, "queryRunQueueLength")[1]
    local rqlen = table.concat(traced(seen, "calculateHealthMetrics")):match "rqlen=(%d+%.%d)"
    equal(action .. " " .. (complaint or rqlen), expected, output)
end
machine()

for output, count in pairs {["8\n"] = 8, [" \n 12 processors\n"] = 12, ["eight\n"] = 0, [""] = 0,
        ["18446744073709551615"] = 2 ^ 64} do
    t.write(root .. "/nproc.out", output)
    t.records(logs)
    local rows = metrics()
    equal({rows[#rows].cpu_count, traced(t.records(logs), "queryCpuCount")},
        {count, {count == 0 and "failed to parse cpu count" or nil}}, output)
end
machine()

-- Physical and free memory, and complaints.
for text, expected in pairs {
    ["MemTotal:  16000 kB\nMemFree:  4000 kB\nMemAvailable: 1 kB\n"] = "16000 4000",
    ["MemFree: 0 kB\nBuffers: 5 kB\nMemTotal: 18446744073709551615 kB"] =
        "18446744073709551615 0",
    ["MemTotal: 16000 kB\n"] = "failing",
    ["MemFree: 4000 kB\nSwapTotal: 5 kB\n"] = "failing",
    -- Contained, but not at the line's start, where the number is looked for.
    ["NotMemTotal: 1 kB\nMemTotal: 16000 kB\nMemFree: 4000 kB\n"] =
        "16000 4000 failed to parse MemTotal value",
    ["MemTotal: 16000 kB\nMemFree: kB\n"] = "failing failed to parse MemFree value",
} do
    t.write(root .. "/proc/meminfo", text)
    action, seen = cycle(1, off, bounds)
    local complaints = traced(seen, "getMemoryMetrics")
    local outcome = "failing"
    if action == 7 then
        equal(table.remove(complaints), "could not retrieve command output, failing", text)
    else
        outcome = ("%s %s"):format(traced(seen, "calculateHealthMetrics")[2]:match
            "pages=(%d+) phsymem MB=(%d+)")
    end
    equal(table.concat({outcome, table.unpack(complaints)}, " "), expected, text)
end
machine()

-- ---- settings ------------------------------------------------------------------------

-- After a cycle: the number of accepted settings, those in force, and what the document was given
-- about the driver; then lines of the log and complaints.
local function outcome(state, policy)
    local document = vxa.Dom()
    action, seen = cycle(1, state, policy, document)
    local counts = traced(seen, "SysHealth.conf")
    local count = (counts[#counts] or ""):match "^readSystemHealthConfig returning (%d+)$" or "0"
    equal(action == 2, count == "0", policy)
    local in_force = t.read(config_log):gsub("%s", ""):gsub('{"value":([^}]*)}', "%1")
        :gsub('"SYS_([%u_]+)"', "%1")
    local told = {count, in_force, tostring(document:get "vxp.filter.FailOpenUnloadDriver"),
        table.unpack(seen.lines)}
    for _, trace in ipairs(seen.trace) do
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
    equal(outcome(off, ""), expected, text)
end
for _, value in ipairs {"0", "-1\n", "much\n", "nan\n", "inf\n", "\n"} do
    t.write(config_file, line .. value)
    equal(outcome(off, ""), "0 {} false" .. rejected(0, runq_key, 200), value)
end
os.remove(config_file)
equal(outcome(off, ""), "0 {} nil", "no file")
for _, put in ipairs {"mkfifo ", "ln -s /dev/zero "} do
    os.execute(put .. config_file)
    equal(outcome(off, ""), "0 {} false", put)
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
    -- A plain setting that is not a number counts as 0.
    ['{"SYS_CONF_CONN_REFUSAL_PORT": "8080", "SYS_CONF_UNLOAD_DRIVER": {"value": 1}}'] =
        "2 {CONF_CONN_REFUSAL_PORT:0,CONF_UNLOAD_DRIVER:0} false",
    ['{"sys_thr_runq": {"VALUE": 5}, "SYS_THR_RUNQ": {"value": 6}}'] = "1 {THR_RUNQ:5} false",
    ["{"] = "0 {} nil json parsing error []",
    ["%s"] = "0 {} nil json parsing error [%s]",
    ['{"SYS_THR_RUNQ": }'] = "0 {} nil json parsing error [}]",
    ['{"a": 1, "b" 2}'] = "0 {} nil json parsing error [2}]",
} do
    equal(outcome(off, policy), expected, policy)
end
outcome(off, '{"SYS_CONF_CONN_REFUSAL_PORT": 8080.9}')
equal({filter.GetScanMetricPort()}, {true, 8080})

-- Every setting is taken up to its maximum: in the file, in a policy.
local file, policy = {[0] = "", ""}, {[0] = "", ""}  -- at the maximum; beyond it
local all, stored, refused_of_file, refused_of_policy = "", {}, "", ""
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
    local shape = policy_key:find "^CONF" and ',"SYS_%s": %d' or ',"SYS_%s": {"value": %d}'
    for excess = 0, 1 do
        file[excess] = file[excess] .. ("SYSTEM_%s=%d\n"):format(file_key, maximum + excess)
        policy[excess] = policy[excess] .. shape:format(policy_key, maximum + excess)
    end
    all = all .. "," .. policy_key .. ":" .. maximum
    refused_of_file = refused_of_file .. rejected(0, "SYSTEM_" .. file_key, maximum)
    refused_of_policy = refused_of_policy .. beyond(policy_key)
    stored[row] = ("stored SYS_%s  %f"):format(policy_key, maximum)
end
all = #stored .. " {" .. all:sub(2) .. "} true"
stored[#stored + 1] = "readSystemHealthConfig returning " .. #stored
-- In fail-open the thresholds on the port's connections are counted, but off.
local in_fail_open = all:gsub("THR_CONN[%u_]+:%d+,", ""):gsub("THR_TOTAL[%u_]+:%d+,", "")
for _, case in ipairs {{off, 0, all, all}, {on, 0, in_fail_open, in_fail_open},
        {off, 1, "0 {} false" .. refused_of_file, "0 {} false" .. refused_of_policy}} do
    local state, excess, of_file, of_policy = table.unpack(case)
    t.write(config_file, file[excess])
    equal(outcome(state, ""), of_file)
    equal(outcome(state, "{" .. policy[excess]:sub(2) .. "}"), of_policy)
    if excess == 0 then equal(traced(seen, "SysHealth.conf"), stored) end
end

-- ---- the JSON log --------------------------------------------------------------------

-- Nothing is left of what was there, be it shorter or longer.
for _, size in ipairs {5, 5000, 100000} do
    t.write(config_log, ("x"):rep(size))
    cycle(1, off, '{"SYS_CONF_CONN_REFUSAL_PORT": 8080, "SYS_THR_RUNQ": {"value": 0.5}}')
    equal(t.read(config_log), '{\n\t"SYS_CONF_CONN_REFUSAL_PORT":\t8080,\n\t"SYS_THR_RUNQ":\t{\n'
        .. '\t\t"value":\t0.5\n\t}\n}\n', size)
end

-- It is written only to a regular file with one name.
local victim = config_log .. ".victim"
t.write(victim, "kept")
for _, put in ipairs {"ln -s $2 $1", "ln -s /dev/null $1", "ln $2 $1", "mkfifo $1", "mkdir $1",
        "rm -r ${1%/*}"} do
    equal(os.execute(("set -- %s %s; rm -rf $1; %s"):format(config_log, victim, put)), true, put)
    action, seen = cycle(1, off, runq)
    equal({action, seen.lines, traced(seen, "outputCloudConfig"), t.read(victim) or "gone"},
        {0, {"error: Failed to output cloud config"},
        {"Failed to open file of json config for writing."},
        put:find "^rm" and "gone" or "kept"}, put)
end

t.finish()
