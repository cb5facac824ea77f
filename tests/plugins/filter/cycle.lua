-- Whole cycles of the unmodified module: what it asks of the driver, byte by byte, what it
-- writes to its logs, and what it answers, on faked commands, files and time.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"
require "fc"

local sandbox = assert(os.getenv "SANDBOX")
local logs = sandbox .. "/records.jsonl"
local config_file = "/etc/vx_filter.conf"
local config_log = "/var/opt/vx_agent/diag/vx_filter_json.log"
local filter = SLB.filter
local dom = vxa.Dom()

vxa.log_to(logs)

local function machine(load, cpus, total_kb, free_kb)
    t.write(sandbox .. "/uptime.out", load and
        (" 10:00:00 up 1 day,  1 user,  load average: %s, 1.00, 1.00\n"):format(load) or "")
    t.write(sandbox .. "/nproc.out", cpus and cpus .. "\n" or "")
    t.write(sandbox .. "/meminfo", free_kb and
        ("MemTotal: %d kB\nMemFree: %d kB\nBuffers: 1 kB\n"):format(total_kb, free_kb) or "")
end

local now_s = 1700000000
local function at(seconds) recorder.clock(seconds * 1000000) end

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

-- One cycle, `passed` seconds after the one before: action, driver calls, records.
local function cycle(passed, state, policy, document)
    now_s = now_s + passed
    at(now_s)
    recorder.calls()
    t.records(logs)
    if document == nil then document = dom end
    local results = table.pack(filter.CheckSystemHealthMetrics(document, state, policy))
    t.equal(results, {{action = results[1].action}, n = 1}, "one result with one field")
    return results[1].action, recorder.calls(), t.records(logs)
end

local off, on = "Deactivated", "Activated"
machine("0.52", 4, 1000000, 250000)

-- ---- wrong arguments: action 6, never an error ---------------------------------------

vxa.trace("SysHealth.*", true)

-- Held to the end: the collector would close them in the midst of what is recorded.
local zip = vxa.ZipOutputStream(sandbox .. "/a.zip")
local handle = vxa.open()
local type_codes = {["nil"] = 0, boolean = 1, number = 3, table = 5, ["function"] = 6}
for _, wrong in ipairs {false, 1, "SLB.Dom", {}, print, io.stdout, zip, handle} do
    t.equal((cycle(1, off, "", wrong)), 6, "document " .. tostring(wrong))
end
t.equal(filter.CheckSystemHealthMetrics().action, 6, "no arguments")
t.equal(filter.GetSysHealthEnabled(), true, "bad arguments leave monitoring on")

local function messages(records, category)
    local texts = {}
    for _, trace in ipairs(records.trace) do
        if trace.category == category then texts[#texts + 1] = trace.message end
    end
    return texts
end

for kind, code in pairs(type_codes) do
    local wrong = ({boolean = true, number = 1, table = {}, ["function"] = print})[kind]
    local expected = {("incorrect type %d for state string"):format(code), "Setting status: enabled"}
    for _, arguments in ipairs {{wrong, ""}, {off, wrong}} do
        local action, calls, records = cycle(1, arguments[1], arguments[2])
        t.equal(action, 6, kind)
        t.equal(calls, {}, kind)
        t.equal(messages(records, "SysHealth.eng"), expected, kind)
    end
end

for _, state in ipairs {"activated", "", "Active", "Deactivate", " Activated", "%s%n"} do
    local action, _, records = cycle(1, state, "")
    t.equal(action, 6, state)
    t.equal(lines(records), {"error: incorrect state value " .. state .. " for state string"}, state)
end

-- A byte that no encoding explains is shown as Latin-1, not dropped with the whole text.
do
    local _, _, records = cycle(1, "Bad\255", "")
    t.equal(lines(records), {"error: incorrect state value Bad\195\191 for state string"})
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

for name, policy in pairs {["no file"] = "", ["empty policy"] = "{}", malformed = "{"} do
    local action, calls, records = cycle(1, off, policy)
    t.equal(action, 2, name)
    t.equal(calls, {}, name)
    t.equal(lines(records), {}, name)
    t.equal(t.read(config_log), "{\n}\n", name)
end

-- The port on its own is a setting; so is a threshold that needs none.
t.write(config_file, "SYSTEM_UNLOAD_DRIVER=1\n")
t.equal((cycle(1, off, "")), 0)
t.equal(dom:get("vxp.filter.FailOpenUnloadDriver"), true, "from the file")
t.equal((cycle(1, off, '{"SYS_CONF_UNLOAD_DRIVER": 0}')), 0)
t.equal(dom:get("vxp.filter.FailOpenUnloadDriver"), false, "from the policy")

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
t.equal(lines(records)[1], "error: vxi_get_scan_metrics failed rc= -1, buf{" .. ("x"):rep(127) .. "}")

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
local function metric(index) return select(2, filter.GetSysHealthMetrics())[index].value end
t.equal({metric(2), metric(3), metric(4)}, {0, 0, 0}, "no rates yet")

-- From now on the configuration is never sent again; the fetch names the port that was sent.
-- 10 s: 500 new (50/s), 160 established (16/s on 4 processors), 125 refused (25 %), 2^30 bytes
-- each way (51.2 MiB/s on each processor).
recorder.answer {values = {1500, 0, 660, 225, 0, 0, 2 ^ 31, 2 ^ 31 + 2 ^ 30}}
action, calls, records = cycle(10, off, [[{"SYS_CONF_CONN_REFUSAL_PORT": 8101,
  "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1, "SYS_THR_CONN_REFUSAL_PCT": {"value": 24},
  "SYS_THR_CONN_EST_PER_CPU": {"value": 3}, "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 51}}]])
t.equal(names(calls), {"open", "get_scan_metrics", "close"})
t.equal({t.unsigned(calls[2].bytes, 4, 4), t.unsigned(calls[2].bytes, 8, 2)}, {2, 8099})
t.equal({metric(2), metric(3), metric(4)}, {25, 4, 51})
t.equal(action, 1)
t.equal(messages(records, "SysHealth.eng")[#messages(records, "SysHealth.eng") - 1],
    "SysHealth transitioning to Fail-Open, metrics over threshold = 3")
t.equal({filter.GetScanMetricPort()}, {true, 8101}, "the configured one, not the one asked for")

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
t.equal({action, select(2, filter.GetSysHealthMetrics())[3].threshold}, {0, 0})
recorder.answer {values = {2200, 0, 321, 32}}
cycle(10, off, scan_policy)
t.equal({metric(3), select(2, filter.GetSysHealthMetrics())[3].threshold}, {4, 1000})

-- ---- fail-open -----------------------------------------------------------------------

machine("99.00", 4, 1000000, 250000)
local one_minute = [[{"SYS_CONF_CONN_REFUSAL_PORT": 8099, "SYS_CONF_MIN_ACT_DURATION": 1,
  "SYS_THR_CONN_EST_PER_CPU": {"value": 1}, "SYS_THR_RUNQ": {"value": 50}}]]
action, calls, records = cycle(10, off, one_minute)
t.equal(action, 1, "entered")
t.equal((cycle(30, on, one_minute)), 1)
action, calls = cycle(29, "Activated by overload", one_minute)
t.equal(action, 1, "59 s later")
t.equal(names(calls), {"open", "get_scan_metrics", "close"}, "rates are kept current")
t.equal(select(2, filter.GetSysHealthMetrics())[3].threshold, 0, "not judged in fail-open")
-- A cycle that decides nothing leaves the moment of activation alone.
t.equal((cycle(0, "neither", one_minute)), 6)
t.equal((cycle(0, on, "{")), 2)
t.equal((cycle(1, on, one_minute)), 0, "60 s later, whatever the metrics say")
t.equal((cycle(1, "Deactivated again", one_minute)), 1, "entered again")
t.equal((cycle(-5, on, one_minute)), 0, "a clock set back ends it")
-- In fail-open the thresholds that need a port do not ask for one.
t.equal((cycle(1, on, '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 5}}')), 0)
-- 30 minutes where nothing is configured.
machine("99.00", 4, 1000000, 250000)
t.equal((cycle(1, off, runq)), 1)
t.equal((cycle(1799, on, runq)), 1)
t.equal((cycle(1, on, runq)), 0)
machine("0.52", 4, 1000000, 250000)
t.equal((cycle(45, off, runq)), 0, "an interval at its threshold")
t.equal((cycle(45.5, off, runq)), 1, "an interval beyond it")

-- ---- status line ---------------------------------------------------------------------

vxa.trace("*", false)
local _, _, quiet = cycle(1, off, runq)
t.equal({quiet.log, quiet.trace}, {{}, {}}, "nothing is said without being asked")

vxa.verbose(true)
now_s = 1700009000.25
cycle(10, off, runq)
local function status(records)
    local all = lines(records)
    return all[#all]
end
cycle(2.5, off, runq)
machine("60.14", 4, 1000000, 250000)
local full = '{"SYS_CONF_MIN_ACT_DURATION": 2, "SYS_THR_RUNQ": {"value": 50}, "SYS_THR_FREE_MEM": {"value": 20}}'
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

-- ---- the JSON log --------------------------------------------------------------------

t.equal((t.read(config_log):gsub("%s", "")), '{"SYS_CONF_CONN_REFUSAL_PORT":8099,'
    .. '"SYS_THR_CONN_REFUSAL_PCT":{"value":40},"SYS_THR_RUNQ":{"value":50},'
    .. '"SYS_THR_CONN_EST_PER_CPU":{"value":1000},'
    .. '"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU":{"value":1000}}')
os.remove(config_log)
os.execute("rmdir /var/opt/vx_agent/diag")
action, _, records = cycle(1, off, runq)
t.equal({action, lines(records)}, {0, {"error: Failed to output cloud config"}})

t.finish()
