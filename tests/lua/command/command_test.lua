-- The command from outside: options, exit statuses, what it prints where. The machine and
-- its traffic are those of the simulated engine, unless a case chooses the other.
--
-- Runs in the sandbox: it writes /etc/vx_filter.conf.

local cases = require "cases"
local health_policy = require "health_policy"
local json = require "dkjson"
local outside = require "outside"
local testing = require "testing"

local CONF = "/etc/vx_filter.conf"
local STATE_LOG = "/var/opt/vx_agent/diag/vx_filter_json.log"

local ROOT, SCRATCH, shell, vxa = outside.ROOT, outside.SCRATCH, outside.shell, outside.vxa
local write_file, match_in_order = outside.write, outside.match_in_order

-- For the linux engine. They show the traps: nproc obeys OMP_NUM_THREADS, uptime the locale.
local function fake_commands()
    write_file("/var/opt/sandbox/bin/nproc", "#!/bin/sh\necho ${OMP_NUM_THREADS:-${FAKE_CPUS-4}}\n")
    write_file("/var/opt/sandbox/bin/uptime", [[#!/bin/sh
load=0.50
[ "${LC_ALL:-$LC_NUMERIC}" = C.UTF-8 ] || load=0,50
echo " 12:00:00 up 1 day,  1:00,  1 user,  load average: $load, 0.40, 0.30"
]])
    assert(select(2, shell("mount --bind /var/opt/sandbox/bin /usr/local/bin")) == 0)
end

local function lines(text)
    return select(2, text:gsub("\n", "\n"))
end

fake_commands()
write_file("/var/opt/sandbox/meminfo", "MemTotal: 1000 kB\nMemFree: 375 kB\nMemAvailable: 1 kB\n")

-- ---- calls that are refused ---------------------------------------------------------

write_file("broken.json", '{\n  "SYS_THR_RUNQ": }')
write_file("mistyped.json", '{"SYS_CONF_MIN_ACT_DURATION": "30"}')
write_file("large.json", (" "):rep(1048577))
shell(("cd %s; mkfifo fifo; mkdir -m 755 lib; mkdir -m 777 shared"):format(SCRATCH))

-- Arguments, exit status, pattern of the one line on standard error, environment.
local refused = {
    { "", 2, "no command given" },
    { "frob", 2, "unknown command 'frob'" },
    { "run --frob", 2, "unknown option '%-%-frob'" },
    { "run extra", 2, "too many arguments" },
    { "status --cycles 2", 2, "unknown option '%-%-cycles'" },
    { "run --port 0", 2, "%-%-port must be a whole number from 1 to 65535, not '0'" },
    { "run --port 70000", 2, "not '70000'" },
    { "run --port 0x1BB", 2, "not '0x1BB'" },
    { "run --outbound", 2, "%-%-outbound needs %-%-port" },
    { "run --lenient", 2, "%-%-lenient needs %-%-policy" },
    { "run --interval 0", 2, "%-%-interval must be seconds above 0" },
    { "run --interval -1", 2, "not '%-1'" },
    { "run --interval 1e9", 2, "not '1e9'" },
    { "run --cycles 0", 2, "%-%-cycles must be a whole number" },
    { "run --cycles", 2, "'%-%-cycles' requires an argument" },
    { "run --engine none", 2, "unknown engine 'none'; known are: .*linux.*sim" },
    { "run --cycles 1", 2, "unknown engine 'none'", "VXI_ENGINE=none" },
    { "run", 2, "VXI_SIM cannot be read at character 6: expected a number", "VXI_SIM=cpus=x" },
    { "diag none.zip", 2, "VXI_FAULT cannot be read at character 1", "VXI_FAULT=x=-1" },
    { "run --trace SysHealth", 2, "unknown trace category 'SysHealth'; .*SysHealth.eng" },
    { "run --policy broken.json", 2, "policy broken.json: line 2, column 19: unexpected '}'" },
    { "run --policy mistyped.json", 2, 'mistyped.json: .* must be 30, not "30" %(%-%-lenient' },
    { "run --policy= --cycles 1", 2, "the file of %-%-policy has an empty name" },
    { "run --policy missing.json", 2, "policy missing.json: No such file" },
    { "status --policy fifo", 2, "policy fifo: not a regular file" },
    { "status --policy /dev/zero", 2, "policy /dev/zero: not a regular file" },
    { "status --policy large.json", 2, "policy large.json: has more than 1048576 bytes" },
    { "status --policy /tmp", 2, "policy /tmp: Is a directory" },
    { "run --state /proc/none --cycles 1", 1, "/proc/none" },
    { "--help >/dev/full", 1, "cannot write to standard output: No space" },
    { "run --help >/dev/full", 1, "cannot write to standard output: No space" },
    { "run --cycles 1 >/dev/full", 1, "cannot write to standard output: No space" },
    { "run", 1, "cannot load the module 'vxa': no vxa.so in", "VXA_LIB=lib" },
    { "run", 1, "root does not load modules from VXA_LIB=shared: others can change /.*/shared",
      "VXA_LIB=shared" },
    { "run", 1, "VXA_LIB: there is no /nonexistent", "VXA_LIB=/nonexistent" },
}

for _, row in ipairs(refused) do
    local arguments, expected, pattern, environment = table.unpack(row, 1, 4)
    cases.case(("%s vxa %s"):format(environment or "", arguments), function()
        local out, status, err = vxa(arguments, environment)
        cases.equal(status, expected, "exit status (" .. err .. ")")
        cases.matches(err, "^vxa: [^\n]*" .. pattern, "standard error")
        cases.equal(lines(err), 1, "lines on standard error")
        cases.equal(out, "", "standard output")
    end)
end

cases.case("Lua modules that are missing", function()
    for _, name in ipairs { "argparse", "dkjson" } do
        local err = shell(("unshare -m sh -c 'mount --bind %s/lib /usr/share/lua/5.2; %s/bin/vxa "
            .. "status' 2>&1"):format(SCRATCH, ROOT))
        cases.matches(err, ("^vxa: the Lua module '%s' is missing: Debian's package lua%%-%s has")
            :format(name, name), "standard error")
        shell(("cp -L /usr/share/lua/5.2/%s.lua %s/lib"):format(name, SCRATCH))
    end
end)

-- ---- what a run prints --------------------------------------------------------------

write_file("runq.json", '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_MIN_ACT_DURATION": 2}')
write_file("instant.json", '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_MIN_ACT_DURATION": 0}')
write_file("portless.json", '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 10}}')
write_file("nothing.json", '{"SYS_THR_RUNQUEUE": {"value": 8}}')

local PEAK = "VXI_SIM=scenario=idle:1/overloaded:1/idle"
local OVERLOADED = "VXI_SIM=scenario=overloaded"

-- Name, arguments, environment, patterns of standard output in order, patterns of standard
-- error in order (none: it is empty), exit status (none: 0).
local runs = {
    { "version", "--version", "", { "^vxa %d+%.%d+%.%d+ .*linux.*sim" } },
    { "help of all", "help", "", { "Usage: vxa", "run", "status", "Exit status" } },
    { "help of connections", "help connections", "", { "61 seconds" } },
    { "help of run", "run --help", "",
      { "%-%-policy FILE", "%-%-lenient", "%-%-port N", "%-%-outbound", "%-%-engine NAME",
        "%-%-trace CATEGORY", "%-%-json", "%-%-interval SECONDS", "%-%-cycles N",
        "%-%-state DIR" } },
    { "the built-in default", "run --cycles 2 --interval 0.01", "",
      { "engine sim", "policy: built%-in default %(no %-%-policy, no /etc/vx_filter.conf%)",
        "\ntime +action +rqpct +frepct +delta_t\n +>16 +<0.1 +>45\n",
        "\n%d%d%d%d%-%d%d%-%d%d %d%d:%d%d:%d%d  normal +2.8 +43.81 +%-\n",
        "normal +2.9 ", "\n2 cycles in .*, 2 measured, fail%-open entered 0" } },
    { "this machine, under a hostile environment", "run --engine linux --cycles 1",
      "OMP_NUM_THREADS=50 OMP_THREAD_LIMIT=1 LC_ALL=de_DE.UTF-8", { "normal +0.5 +37.5 " } },
    { "an empty path and another locale", "run --engine linux --cycles 1",
      "LC_NUMERIC=de_DE.UTF-8 PATH=", { "normal +0.5 " } },
    { "into fail-open", "run --policy runq.json --cycles 3 --interval 0.01", PEAK,
      { "policy: runq.json", "normal", "enter fail%-open +20.8! ",
        ">> fail%-open entered: rqpct 20.8 exceeds the threshold of 8 processes\n", " 2 min, until",
        "stay fail%-open +0.2 .*  2 min to go\n", "ends in fail%-open" } },
    { "and out again", "run --policy instant.json --cycles 4 --interval 0.01", PEAK,
      { "enter fail%-open", "leave fail%-open +0.2 ", "<< fail%-open left after 0 s",
        "normal", "entered 1 time; ends enforcing" } },
    { "a monitored port", "run --port 443 --cycles 2 --interval 0.2", "",
      { "%-%-port 443\n", "rqpct +refusalpct +estab +scanmb +frepct +delta_t",
        " >50 +>5000 +>500 ", "normal +2.8 +%- +%- +%- +43.81 +%-\n", "normal +2.9 +1.36 " } },
    { "a threshold without a port", "run --policy portless.json --cycles 2 --interval 0.01", "",
      { "not monitoring +no settings to judge by; the filter enforces\n", "0 measured" },
      { "Conn Refusal enabled but monitoring port not configured\n",
        "not monitoring: portless.json has a connection threshold but no port[^\n]*\n$" } },
    { "nothing configured", "run --policy nothing.json --cycles 2 --interval 0.01", "",
      { "not monitoring" },
      { "warning: nothing.json: 'SYS_THR_RUNQUEUE' is not a setting; .*'SYS_THR_RUNQ'%?",
        "not monitoring: nothing.json holds no valid setting[^\n]*\n$" } },
    { "a member of the wrong type", "status --policy mistyped.json --lenient", "",
      { "lasts at least 0 s" }, { 'warning: mistyped.json: .* not "30"; it counts as 0\n$' } },
    { "a driver that cannot count", "run --port 443 --cycles 3 --interval 0.01",
      "VXI_FAULT=vxi_get_scan_metrics=-5", { "normal +2.8 ", "3 measured" },
      { "^vxa: vxi_get_scan_metrics failed rc= %-5[^\n]*, estab and scanmb are not judged%)\n$" } },
    { "a driver that cannot be opened", "run --port 443 --cycles 3 --interval 0.01",
      "VXI_FAULT=vxi_open=-13", { "3 measured" },
      { "^vxa: connections cannot be read: engine sim[^\n]*%(none are reported%)\n",
        "vxa: the driver cannot be opened: [^\n]*are not judged%)\n$" } },
    { "an interval beyond its threshold", "run --cycles 1 --interval 45", "", { "normal" },
      { "^vxa: warning: %-%-interval 45 is not below the threshold of delta_t[^\n]*\n$" } },
    { "traces", "run --cycles 1 --trace SysHealth.metr --trace 'SysHealth.e*'", "",
      { "normal" },
      { "^trace SysHealth.eng CheckSystemHealthMetrics: cloud_config size%[",
        "Setting status: enabled" } },
    { "status", "status --port 443 --outbound", "",
      { "monitoring  enabled", "policy      built%-in default", "port        443, outbound",
        "fail%-open   lasts at least 30 min", "rqpct +2.8  above 16", "estab +%-  above 5000",
        "engine sim delivers here", "scan%-metrics +yes" } },
    { "status above a threshold", "status --policy runq.json", OVERLOADED,
      { "would go into fail%-open: rqpct 20.6 exceeds", "OVER: runnable" } },
    { "status without monitoring", "status --policy portless.json", "",
      { "monitoring  disabled: portless.json has a connection threshold but no port",
        "engine sim" },
      { "monitoring port not configured\n$" } },
    { "values that cannot be had", "run --engine linux --cycles 2 --interval 0.01", "FAKE_CPUS=",
      { "no load figures +uptime or nproc", "2 cycles .* 0 measured" },
      { "^vxa: not one cycle could sample this machine\n$" }, 1 },
    { "status without values", "status --engine linux", "FAKE_CPUS=", { "cycle failed: no load" },
      { "^vxa: the cycle failed: no load figures\n$" }, 1 },
    { "a reader that goes away", "run --interval 0.01 --cycles 100000 | head -n 1", "",
      { "^vxa [^\n]*\n$" } },
}

for _, row in ipairs(runs) do
    local name, arguments, environment, out_patterns, err_patterns, expected =
        table.unpack(row, 1, 6)
    cases.case(name, function()
        local out, status, err = vxa(arguments, environment)
        cases.equal(status, expected or 0, "exit status (" .. err .. ")")
        match_in_order(out, out_patterns, "standard output")
        match_in_order(err, err_patterns or { "^$" }, "standard error")
    end)
end

-- ---- files ------------------------------------------------------------------------------

local function records_of(out)
    local records = {}
    for line in out:gmatch("[^\n]+") do
        local record, _, message = json.decode(line)
        records[#records + 1] = record or error(message .. " in " .. line)
    end
    return records
end

-- What strtof and fgets make of it is in force, and logged in a folder made for it. Both
-- outputs have 14 digits or more.
cases.case("the command reads the configuration file as the module does", function()
    write_file(CONF, table.concat({
        "SYSTEM_RUNQ_PCT_THRESHOLD=0x10", "SYSTEM_MIN_FREE_MEM_PCT=5.5.5",
        "SYSTEM_MAX_ITERATION_INTERVAL=60.000001", "SYSTEM_MIN_ACT_DURATION=\t+2e0min",
        ("x"):rep(1023) .. "SYSTEM_RECOVERY_FACTOR=.3", "SYSTEM_RECOVERY_FACTOR=inf",
        "SYSTEM_UNLOAD_DRIVER=1\0009", "SYSTEM_MIN_FREE_MEM_PCT=nan" }, "\n"))
    shell("rm -r /var/opt/vx_agent")
    for _, arguments in ipairs { "", " --port 80" } do
        local start = records_of(vxa("run --json --cycles 1" .. arguments))[1]
        local logged = health_policy.check(testing.read(STATE_LOG))
        for key, value in pairs(logged) do logged[key] = tonumber(("%.14g"):format(value)) end
        cases.equal(logged, start.settings, "settings" .. arguments)
        cases.equal({ logged.SYS_THR_RUNQ, logged.SYS_THR_FREE_MEM, logged.SYS_THR_CONN_EST_PER_CPU,
            logged.SYS_THR_MAX_ITERATION_INVL, logged.SYS_CONF_MIN_ACT_DURATION,
            logged.SYS_CONF_UNLOAD_DRIVER }, { 16, 5.5, arguments ~= "" and 5000 or nil, 60, 2, 1 },
            "numbers" .. arguments)
    end
    os.remove(CONF)
    shell("mkfifo " .. CONF)
    local _, status, err = vxa("run --cycles 1")
    os.remove(CONF)
    cases.matches(status .. err, "^2vxa: configuration /etc/vx_filter.conf: not a regular", "FIFO")
end)

cases.case("where that log cannot be written, it is told once", function()
    shell("rm -rf /var/opt/vx_agent && touch /var/opt/vx_agent")
    local _, status, err = vxa("run --cycles 3 --interval 0.01")
    shell("rm -f /var/opt/vx_agent")
    cases.equal(status, 0, "exit status")
    cases.equal(lines(err), 1, "lines on standard error")
    cases.matches(err, "^vxa: Failed to output cloud config %(", "standard error")
end)

-- ---- JSON -------------------------------------------------------------------------------

cases.case("run --json: one record a line", function()
    local records = records_of((vxa(
        "run --json --policy runq.json --cycles 2 --interval 0.01 --state kept", PEAK)))
    cases.equal(#records, 4, "records")
    local start, first, second, last = table.unpack(records)
    cases.equal({ start.record, start.engine, start.policy_source },
        { "start", "sim", "runq.json" }, "start")
    cases.equal(start.settings, { SYS_THR_RUNQ = 8, SYS_CONF_MIN_ACT_DURATION = 2 }, "settings")
    cases.equal({ first.record, first.cycle, first.action, first.state, first.over, first.errors },
        { "cycle", 1, 0, "Deactivated", {}, {} }, "first")
    cases.equal({ second.action, second.transition, second.min_fail_open_s, second.over },
        { 1, "entered", 120, { "rqpct" } }, "second")
    cases.equal(second.metrics[1], { name = "rqpct", value = 20.8, threshold = 8, over = true,
                                     unit = "processes", enabled = true }, "metric")
    cases.equal({ last.record, last.cycles, last.measured, last.entered, last.interrupted },
        { "end", 2, 2, 1, false }, "last")
    cases.equal(json.decode(testing.read(SCRATCH .. "/kept/document.json") or ""),
        { ["vxp.filter.FailOpenState"] = "Activated", ["vxp.filter.FailOpenUnloadDriver"] = false },
        "the document")
end)

-- Wherever the signal arrives, nothing is said of it. A shell would start a job in the
-- background with SIGINT ignored; timeout starts it with the signals as they are.
cases.case("a signal at any moment of a status", function()
    for _, signal in ipairs { "INT", "TERM" } do
        for hundredths = 1, 6 do
            local _, status = shell(("cd %s && VXI_ENGINE=sim "
                .. "timeout --preserve-status -s %s 0.0%d %s/bin/vxa status >out 2>err; exit $?")
                :format(SCRATCH, signal, hundredths, ROOT))
            cases.equal(testing.read(SCRATCH .. "/err"), "", signal .. " standard error")
            local known = status == 0 or status == (signal == "INT" and 130 or 143)
            cases.equal(known and "known" or status, "known", signal .. " status")
        end
    end
end)

cases.case("status --json", function()
    local out = vxa("status --json --port 443")
    local status = records_of(out)[1]
    cases.matches(out, '^{"record":"status","time":"[^"]+","version":"', "order of members")
    cases.equal({ status.monitoring, status.port, status.direction, status.engine },
        { true, 443, "inbound", "sim" }, "members")
    cases.equal(#status.metrics, 6, "metrics")
    cases.equal(status.metrics[3].value, nil, "a rate after one cycle")
    cases.equal(type(status.capabilities[1].detail), "string", "capability")
    cases.matches(vxa("status", "VXI_FAULT=vxi_capabilities=-5:gone"),
        "engine sim cannot be asked: [^\n]*gone\n$", "no capabilities")
end)

-- ---- how it ends ----------------------------------------------------------------------

-- Runs a command of the shell once the first cycle is out, in the middle of the wait.
local function during_a_run(command)
    return shell(([[cd %s; rm -f out; cp runq.json changing.json
        VXI_ENGINE=sim %s/bin/vxa run --policy changing.json --interval 40 >out 2>&1 & pid=$!
        wait_for() {
            n=0; until grep -q "$1" out || [ $n -ge 400 ]; do sleep 0.05; n=$((n + 1)); done
        }
        wait_for normal
        %s; wait $pid; echo "status $?"; cat out]]):format(SCRATCH, ROOT, command))
end

for _, signal in ipairs { "INT", "TERM" } do
    cases.case("SIG" .. signal, function()
        cases.matches(during_a_run("kill -" .. signal .. " $pid"),
            "^status 0\n.*\n1 cycle in [^\n]*; ends enforcing\n$", "output")
    end)
end

cases.case("SIGHUP reloads the policy, and a fault in the new one keeps the old", function()
    local out = during_a_run([[cp mistyped.json changing.json; kill -HUP $pid; wait_for stays
        cp instant.json changing.json; kill -HUP $pid; wait_for reloaded; kill -TERM $pid]])
    match_in_order(out, { "^status 0\n", "vxa: policy changing.json: .*; the policy in force",
        "\npolicy reloaded: changing.json\n", "\n1 cycle in " }, "output")
end)

cases.finish()
