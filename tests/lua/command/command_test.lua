-- The command from outside: options, exit statuses, what it prints where. The machine's
-- figures come from faked nproc and uptime, the traffic from the simulated engine.
--
-- Runs in the sandbox: it writes /etc/vx_filter.conf and what the module reads as memory.

local cases = require "cases"
local json = require "dkjson"
local outside = require "outside"
local testing = require "testing"

local CONF = "/etc/vx_filter.conf"
local STATE_LOG = "/var/opt/vx_agent/diag/vx_filter_json.log"

local ROOT, SCRATCH, shell, vxa = outside.ROOT, outside.SCRATCH, outside.shell, outside.vxa
local write_file, match_in_order = outside.write, outside.match_in_order

-- The fakes show the traps: nproc obeys OMP_NUM_THREADS, uptime the locale. Each call of
-- uptime takes the next line of the file "loads", then 0.50 for good.
local function fake_commands()
    shell("mkdir " .. SCRATCH .. "/bin")
    write_file("bin/nproc", "#!/bin/sh\necho ${OMP_NUM_THREADS:-${FAKE_CPUS-4}}\n")
    write_file("bin/uptime", ([[#!/bin/sh
n=$(($(cat %s/calls 2>/dev/null || echo 0) + 1))
echo $n >%s/calls
load=$(sed -n "${n}p" %s/loads 2>/dev/null)
load=${load:-0.50}
[ "${LC_ALL:-$LC_NUMERIC}" = C.UTF-8 ] || load=$(echo $load | tr . ,)
echo " 12:00:00 up 1 day,  1:00,  1 user,  load average: $load, 0.40, 0.30"
]]):gsub("%%s", SCRATCH))
    shell("chmod +x " .. SCRATCH .. "/bin/*")
end

local function set_loads(...)
    os.remove(SCRATCH .. "/calls")
    write_file("loads", table.concat({ ... }, "\n") .. "\n")
end

local function lines(text)
    return select(2, text:gsub("\n", "\n"))
end

fake_commands()
-- What a standard path finds first; the real uptime does not run under sanitizers.
assert(select(2, shell("mount --bind " .. SCRATCH .. "/bin /usr/local/bin")) == 0)
write_file("/var/opt/sandbox/meminfo", "MemTotal: 1000 kB\nMemFree: 375 kB\nMemAvailable: 1 kB\n")

-- ---- calls that are refused ---------------------------------------------------------

write_file("broken.json", '{\n  "SYS_THR_RUNQ": }')
write_file("list.json", "[]")
write_file("empty.json", "")

-- Arguments, exit status, pattern of the one line on standard error.
local refused = {
    { "", 2, "no command given" },
    { "frob", 2, "unknown command 'frob'" },
    { "run --frob", 2, "unknown option '%-%-frob'" },
    { "run extra", 2, "too many arguments" },
    { "status --cycles 2", 2, "unknown option '%-%-cycles'" },
    { "run --port 0", 2, "%-%-port must be a whole number from 1 to 65535, not '0'" },
    { "run --port 70000", 2, "not '70000'" },
    { "run --port 0x1BB", 2, "not '0x1BB'" },
    { "run --port 443.0", 2, "not '443.0'" },
    { "run --outbound", 2, "%-%-outbound needs %-%-port" },
    { "run --interval 0", 2, "%-%-interval must be seconds above 0" },
    { "run --interval -1", 2, "not '%-1'" },
    { "run --interval nan", 2, "not 'nan'" },
    { "run --interval 1e9", 2, "not '1e9'" },
    { "run --cycles 0", 2, "%-%-cycles must be a whole number" },
    { "run --cycles", 2, "'%-%-cycles' requires an argument" },
    { "run --engine none", 2, "unknown engine 'none'; known are: .*linux.*sim" },
    { "run --trace SysHealth", 2, "unknown trace category 'SysHealth'; .*SysHealth.eng" },
    { "run --policy broken.json", 2, "policy broken.json: line 2, column %d+: %w" },
    { "run --policy empty.json", 2, "policy empty.json: line 1, column %d+: %w" },
    { "run --policy list.json", 2, "a policy is a JSON object" },
    { "run --policy missing.json", 2, "policy missing.json: No such file" },
    { "status --policy /tmp", 2, "policy /tmp: Is a directory" },
    { "run --state /proc/none --cycles 1", 1, "/proc/none" },
    { "--help >/dev/full", 1, "cannot write to standard output: No space" },
    { "run --help >/dev/full", 1, "cannot write to standard output: No space" },
    { "run --cycles 1 >/dev/full", 1, "cannot write to standard output: No space" },
}

for _, row in ipairs(refused) do
    local arguments, expected, pattern = table.unpack(row)
    cases.case("vxa " .. arguments, function()
        local out, status, err = vxa(arguments)
        cases.equal(status, expected, "exit status (" .. err .. ")")
        cases.matches(err, "^vxa: [^\n]*" .. pattern, "standard error")
        cases.equal(lines(err), 1, "lines on standard error")
        cases.equal(out, "", "standard output")
    end)
end

cases.case("an unknown engine in the environment", function()
    local _, status, err = vxa("run --cycles 1", "VXI_ENGINE=none")
    cases.equal(status, 2, "exit status")
    cases.matches(err, "unknown engine 'none'", "standard error")
end)

-- Root's own folder, one that others can write, and how each is refused.
shell(("mkdir -m 755 %s/lib; mkdir -m 777 %s/shared"):format(SCRATCH, SCRATCH))
for folder, pattern in pairs {
    [SCRATCH .. "/lib"] = "cannot load the module 'vxa': no vxa.so in",
    shared = "root does not load modules from VXA_LIB=shared: others can change /.*/shared",
    ["/nonexistent"] = "VXA_LIB: there is no /nonexistent",
} do
    cases.case("modules in " .. folder, function()
        local _, status, err = vxa("run --cycles 1", "VXA_LIB=" .. folder)
        cases.equal(status, 1, "exit status")
        cases.matches(err, "^vxa: [^\n]*" .. pattern .. "[^\n]*\n$", "standard error")
    end)
end

-- ---- what a run prints --------------------------------------------------------------

write_file("runq.json", '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_MIN_ACT_DURATION": 2}')
write_file("instant.json", '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_MIN_ACT_DURATION": 0}')
write_file("portless.json", '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 10}}')
write_file("nothing.json", '{"SYS_THR_RUNQUEUE": {"value": 8}}')

-- Name, arguments, environment, loads, patterns of standard output in order, patterns of
-- standard error in order (none: it is empty).
local runs = {
    { "version", "--version", "", {}, { "^vxa %d+%.%d+%.%d+ .*linux.*sim" } },
    { "help of all", "--help", "", {}, { "Usage: vxa", "run", "status", "Exit status" } },
    { "help of connections", "connections --help", "", {}, { "61 seconds" } },
    { "help of run", "run --help", "", {},
      { "%-%-policy FILE", "%-%-port N", "%-%-outbound", "%-%-engine NAME", "%-%-trace CATEGORY",
        "%-%-json", "%-%-interval SECONDS", "%-%-cycles N", "%-%-state DIR" } },
    { "the built-in default", "run --cycles 2 --interval 0.01", "", { "0.52", "1.57" },
      { "engine sim", "policy: built%-in default %(no %-%-policy, no /etc/vx_filter.conf%)",
        "time +action +state +rqpct +frepct +delta_t +over",
        "\n%d%d:%d%d:%d%d  normal +Deactivated +0.5/16 +37.5/0.1 +0/45  %-\n",
        "normal +Deactivated +1.5/16", "\n2 cycles in .*, 2 measured, fail%-open entered 0" } },
    { "environment traps", "run --cycles 1",
      "OMP_NUM_THREADS=50 OMP_THREAD_LIMIT=1 LC_NUMERIC=de_DE.UTF-8", {}, { "0.5/16" } },
    { "a decimal comma for everything", "run --cycles 1", "LC_ALL=de_DE.UTF-8", {}, { "0.5/16" } },
    { "an empty path", "run --cycles 1", "PATH=", {}, { "0.5/16" } },
    { "into fail-open", "run --policy runq.json --cycles 3 --interval 0.01", "",
      { "0.50", "9.17", "0.50" },
      { "policy: runq.json", "normal", "enter fail%-open +Activated +9.1/8 .*  rqpct\n",
        ">> fail%-open entered: rqpct 9.1 exceeds the threshold of 8 processes; .* 2 min, until",
        "stay fail%-open +Activated +0.5/8 .*  %- %(2 min to go%)\n", "ends in fail%-open" } },
    { "and out again", "run --policy instant.json --cycles 3 --interval 0.01", "",
      { "9.17", "0.50", "0.50" },
      { "enter fail%-open", "leave fail%-open +Deactivated", "<< fail%-open left after 0 s",
        "normal", "entered 1 time; ends enforcing" } },
    { "a monitored port", "run --port 443 --cycles 2 --interval 0.01", "", {},
      { "%-%-port 443\n", "rqpct +refusalpct +estab +scanmb +frepct +delta_t",
        "/50 .*/5000 .*/500 " } },
    { "a threshold without a port", "run --policy portless.json --cycles 2 --interval 0.01", "", {},
      { "not monitoring +Deactivated", "not monitoring", "0 measured" },
      { "Conn Refusal enabled but monitoring port not configured\n",
        "not monitoring: portless.json has a connection threshold but no port[^\n]*\n$" } },
    { "nothing configured", "run --policy nothing.json --cycles 2 --interval 0.01", "", {},
      { "not monitoring" },
      { "warning: nothing.json: 'SYS_THR_RUNQUEUE' is not a setting; .*'SYS_THR_RUNQ'%?",
        "not monitoring: nothing.json holds no valid setting[^\n]*\n$" } },
    { "a driver that cannot count", "run --port 443 --cycles 3 --interval 0.01",
      "VXI_FAULT=vxi_get_scan_metrics=-5", {}, { "normal +Deactivated +0.5/16", "3 measured" },
      { "^vxa: vxi_get_scan_metrics failed rc= %-5[^\n]*, estab and scanmb are not judged%)\n$" } },
    { "a driver that cannot be opened", "run --port 443 --cycles 3 --interval 0.01",
      "VXI_FAULT=vxi_open=-13", {}, { "3 measured" },
      { "^vxa: connections cannot be read: engine sim[^\n]*%(none are reported%)\n",
        "vxa: the driver cannot be opened: [^\n]*are not judged%)\n$" } },
    { "an interval beyond its threshold", "run --cycles 1 --interval 45", "", {}, { "normal" },
      { "^vxa: warning: %-%-interval 45 is not below the threshold of delta_t[^\n]*\n$" } },
    { "traces", "run --cycles 1 --trace SysHealth.metr --trace 'SysHealth.e*'", "", {},
      { "normal" },
      { "^trace SysHealth.eng CheckSystemHealthMetrics: cloud_config size%[",
        "Setting status: enabled" } },
    { "status", "status --port 443 --outbound", "", {},
      { "monitoring  enabled", "policy      built%-in default", "port        443, outbound",
        "fail%-open   lasts at least 30 min", "rqpct +0.5  above 16", "estab +%-  above 5000",
        "engine sim delivers here", "scan%-metrics +yes" } },
    { "status above a threshold", "status --policy runq.json", "", { "9.17" },
      { "would go into fail%-open: rqpct 9.1 exceeds", "OVER: runnable" } },
    { "status without monitoring", "status --policy portless.json", "", {},
      { "monitoring  disabled: portless.json has a connection threshold but no port",
        "engine sim" },
      { "monitoring port not configured\n$" } },
}

for _, row in ipairs(runs) do
    local name, arguments, environment, loads, out_patterns, err_patterns = table.unpack(row, 1, 6)
    cases.case(name, function()
        set_loads(table.unpack(loads))
        local out, status, err = vxa(arguments, environment)
        cases.equal(status, 0, "exit status (" .. err .. ")")
        match_in_order(out, out_patterns, "standard output")
        if err_patterns then
            match_in_order(err, err_patterns, "standard error")
        else
            cases.equal(err, "", "standard error")
        end
    end)
end

cases.case("figures that cannot be had", function()
    local out, status, err = vxa("run --cycles 2 --interval 0.01", "FAKE_CPUS=")
    cases.equal(status, 1, "exit status")
    match_in_order(out,
        { "no load figures +Deactivated  uptime or nproc", "2 cycles .* 0 measured" },
        "standard output")
    cases.matches(err, "^vxa: not one cycle could sample this machine\n$", "standard error")
    cases.equal(select(2, vxa("status", "FAKE_CPUS=")), 1, "exit status of status")
end)

-- ---- files ------------------------------------------------------------------------------

cases.case("settings come from the configuration file, and --port goes on top", function()
    write_file(CONF, "SYSTEM_RUNQ_PCT_THRESHOLD=3\nSYSTEM_TYPO=1\n")
    set_loads()
    local out, _, err = vxa("run --cycles 1")
    local with_port = vxa("run --cycles 1 --port 80")
    os.remove(CONF)
    match_in_order(out, { "policy: /etc/vx_filter.conf\n", "0.5/3 " }, "standard output")
    cases.matches(err, "warning: /etc/vx_filter.conf: line 2: SYSTEM_TYPO is no setting", "errors")
    match_in_order(with_port, { "conf, %-%-port 80\n", "0.5/3 .*/5000 " }, "with --port")
end)

cases.case("settings in force are logged in a folder made for them", function()
    set_loads()
    shell("rm -r /var/opt/vx_agent")
    vxa("run --cycles 1 --policy runq.json")
    local logged = json.decode(testing.read(STATE_LOG) or "")
    cases.equal(logged, { SYS_CONF_MIN_ACT_DURATION = 2, SYS_THR_RUNQ = { value = 8 } }, "the log")
end)

cases.case("where that log cannot be written, it is told once", function()
    shell("rm -rf /var/opt/vx_agent && touch /var/opt/vx_agent")
    local _, status, err = vxa("run --cycles 3 --interval 0.01")
    shell("rm -f /var/opt/vx_agent")
    cases.equal(status, 0, "exit status")
    cases.equal(lines(err), 1, "lines on standard error")
    cases.matches(err, "^vxa: Failed to output cloud config %(", "standard error")
end)

cases.case("the state folder keeps the document", function()
    set_loads("9.17")
    vxa("run --cycles 1 --policy runq.json --state kept")
    local kept = json.decode(testing.read(SCRATCH .. "/kept/document.json") or "")
    cases.equal(kept and kept["vxp.filter.FailOpenState"], "Activated", "the state")
    cases.equal(kept["vxp.filter.FailOpenUnloadDriver"], false, "the wish to unload")
end)

-- ---- JSON -------------------------------------------------------------------------------

local function records_of(out)
    local records = {}
    for line in out:gmatch("[^\n]+") do
        local record, _, message = json.decode(line)
        records[#records + 1] = record or error(message .. " in " .. line)
    end
    return records
end

cases.case("run --json: one record a line", function()
    set_loads("0.50", "9.17")
    local records = records_of((vxa("run --json --policy runq.json --cycles 2 --interval 0.01")))
    cases.equal(#records, 4, "records")
    local start, first, second, last = table.unpack(records)
    cases.equal({ start.record, start.engine, start.policy_source },
        { "start", "sim", "runq.json" }, "start")
    cases.equal(start.settings, { SYS_THR_RUNQ = 8, SYS_CONF_MIN_ACT_DURATION = 2 }, "settings")
    cases.equal({ first.record, first.cycle, first.action, first.state, first.over, first.errors },
        { "cycle", 1, 0, "Deactivated", {}, {} }, "first")
    cases.equal({ second.action, second.transition, second.min_fail_open_s, second.over },
        { 1, "entered", 120, { "rqpct" } }, "second")
    cases.equal(second.metrics[1], { name = "rqpct", value = 9.1, threshold = 8, over = true,
                                     unit = "processes", enabled = true }, "metric")
    cases.equal({ last.record, last.cycles, last.measured, last.entered, last.interrupted },
        { "end", 2, 2, 1, false }, "last")
end)

-- Wherever the signal arrives, nothing is said of it. A shell would start a job in the
-- background with SIGINT ignored; timeout starts it with the signals as they are.
cases.case("a signal at any moment of a status", function()
    set_loads()
    for _, signal in ipairs { "INT", "TERM" } do
        for hundredths = 1, 6 do
            local _, status = shell(("cd %s && PATH=%s/bin:$PATH VXI_ENGINE=sim "
                .. "timeout --preserve-status -s %s 0.0%d %s/bin/vxa status >out 2>err; exit $?")
                :format(SCRATCH, SCRATCH, signal, hundredths, ROOT))
            cases.equal(testing.read(SCRATCH .. "/err"), "", signal .. " standard error")
            local known = status == 0 or status == (signal == "INT" and 130 or 143)
            cases.equal(known and "known" or status, "known", signal .. " status")
        end
    end
end)

cases.case("status --json", function()
    set_loads()
    local out = vxa("status --json --port 443")
    local status = records_of(out)[1]
    cases.matches(out, '^{"record":"status","time":"[^"]+","version":"', "order of members")
    cases.equal({ status.monitoring, status.port, status.direction, status.engine },
        { true, 443, "inbound", "sim" }, "members")
    cases.equal(#status.metrics, 6, "metrics")
    cases.equal(status.metrics[3].value, nil, "a rate after one cycle")
    cases.equal(type(status.capabilities[1].detail), "string", "capability")
end)

-- ---- how it ends ----------------------------------------------------------------------

-- The signal comes once the first line is out, in the middle of the wait.
local function end_by(signal)
    return shell(([[cd %s; rm -f out
        PATH=%s/bin:$PATH VXI_ENGINE=sim %s/bin/vxa run --interval 40 >out 2>err & pid=$!
        n=0; until grep -q Deactivated out || [ $n -ge 400 ]; do sleep 0.05; n=$((n + 1)); done
        kill -%s $pid; wait $pid; echo "status $?"; cat out err]])
        :format(SCRATCH, SCRATCH, ROOT, signal))
end

for _, signal in ipairs { "INT", "TERM" } do
    cases.case("SIG" .. signal, function()
        set_loads()
        cases.matches(end_by(signal), "^status 0\n.*\n1 cycle in [^\n]*; ends enforcing\n$",
            "output")
    end)
end

cases.case("a reader that goes away ends it without a word", function()
    set_loads()
    local out = vxa("run --interval 0.01 --cycles 100000 | head -n 1")
    cases.matches(out, "^vxa [^\n]*\n$", "output")
    cases.equal(testing.read(SCRATCH .. "/err"), "", "standard error")
end)

cases.case("found through a symbolic link", function()
    shell(("ln -sf %s/bin/vxa '%s/it is'"):format(ROOT, SCRATCH))
    cases.matches(shell(("'%s/it is' --version"):format(SCRATCH)), "^vxa ", "output")
end)

cases.finish()
