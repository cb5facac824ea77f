-- The command from outside, by default on the simulated engine. The fake machine has the files and
-- commands that the module finds at fixed paths.

local filter = require "filter"
local health_policy = require "health_policy"
local json = require "dkjson"
local testing = require "testing"

local equal, matches = testing.equal, testing.matches
local ROOT, MACHINE = os.getenv "VXA_ROOT", os.getenv "FAKE_MACHINE"
local CONF, AGENT = MACHINE .. "/etc/vx_filter.conf", MACHINE .. "/var/opt/vx_agent"
local SCRATCH = MACHINE .. "/work/"
os.execute("mkdir " .. SCRATCH)

-- Runs a command in the scratch directory; returns its output and exit status.
local function shell(command, ...)
    local pipe = io.popen("cd " .. SCRATCH .. "; " .. command:format(...))
    local text = pipe:read("*a")
    return text, select(3, pipe:close())
end

local function write(files, folder)
    for name, text in pairs(files) do testing.write((folder or SCRATCH) .. name, text) end
end

local RUNQ = '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_CONN_REFUSAL_PORT": %d, '
    .. '"SYS_THR_CONN_REFUSAL_PCT": {"value": %s}, "SYS_CONF_MIN_ACT_DURATION": %d%s}'
write {
    ["runq.json"] = RUNQ:format(80, 50, 2, ""),
    ["instant.json"] = RUNQ:format(81, 50, 0, ""),
    ["all.json"] = RUNQ:format(443, 1e-3, 0, ', "SYS_THR_CONN_EST_PER_CPU": {"value": 1e-3}, '
        .. '"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU": {"value": 1e-3}, "SYS_THR_FREE_MEM": '
        .. '{"value": 25}, "SYS_THR_MAX_ITERATION_INVL": {"value": 0.01}'),
    ["near.json"] = RUNQ:format(80, 50, 0, ""):gsub("8", "0.11", 1),
    ["broken.json"] = '{\n  "SYS_THR_RUNQ": }',
    ["mistyped.json"] = '{"SYS_CONF_MIN_ACT_DURATION": "30"}',
    ["outbound.json"] = '{"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_CONF_CONN_REFUSAL_OUTBOUND":1}',
    ["portless.json"] = '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 10}}',
    ["large.json"] = (" "):rep(1048577), ["other.zip"] = "kept as it is",
    ["other.prom"] = "apt_upgrades_pending 1\n",
}
-- For the linux engine. As on a real machine, nproc obeys OMP_NUM_THREADS, uptime the locale.
write({
    ["usr/local/bin/nproc"] = "#!/bin/sh\necho ${OMP_NUM_THREADS:-${FAKE_CPUS-4}}\n",
    ["usr/local/bin/uptime"] = '#!/bin/sh\n[ "${LC_ALL:-$LC_NUMERIC}" = C.UTF-8 ] && mark=. || '
        .. 'mark=,\necho " 12:00:00 up 1 day, load average: 0${mark}50, 0.40, 0.30"\n',
    ["proc/meminfo"] = "MemTotal: 1000 kB\nMemFree: 375 kB\nMemAvailable: 1 kB\n",
}, MACHINE .. "/")
-- The command must not use what is in the current directory, nor heed these variables.
for _, name in ipairs { "vxa.lua", "fc.lua", "filter.lua", "argparse.lua", "uptime", "nproc" } do
    write { [name] = "#!/bin/sh\necho run >hostile\n" }
end
local HOSTILE = "PATH=.:$PATH LUA_INIT='error()' LUA_PATH='./?.lua' LUA_CPATH='/nonexistent/?.so'"
equal(select(2, shell([[mkdir folder; mkdir -m 755 lib; mkdir -m 777 shared; mkfifo fifo fifo.prom
    chmod +x uptime nproc; ln -s other.zip link; ln -s %s/bin/vxa '../it is']], ROOT)), 0, "set-up")

-- Runs vxa; returns standard output, exit status and standard error. `hook`: a Lua module, and
-- code to run once the command has loaded it.
local function vxa(arguments, environment, hook)
    write { ["../hook.lua"] = ([[local load, done = require
        function require(name)
            local loaded = load(name)
            if name == %q and not done then done = true %s end
            return loaded
        end]]):format(table.unpack(hook or { "", "" })) }
    local text, status = shell("env %s VXI_ENGINE=sim %s %s '../it is' 2>err %s", HOSTILE,
        environment or "", hook and [[lua5.2 -E -e "dofile('../hook.lua')"]] or "", arguments)
    return text, status, testing.read(SCRATCH .. "err")
end

vxa "diag p.zip"

-- ---- calls that are refused ---------------------------------------------------------------

local before = shell "ls -AR"
-- Arguments, exit status, pattern of the one line on standard error, environment.
for _, row in ipairs {
    { "", 2, "no command given" },
    { "run --port 0", 2, "%-%-port must be a whole number from 1 to 65535, not '0'" },
    { "run --port 0x1BB", 2, "not '0x1BB'" },
    { "run --outbound", 2, "%-%-outbound needs %-%-port" },
    { "run --lenient", 2, "%-%-lenient needs %-%-policy" },
    { "run --interval -1", 2, "%-%-interval must be a number of seconds above 0.*not '%-1'" },
    { "run --interval 1e9", 2, "not '1e9'" },
    { "diag a.zip --profile 0", 2, "%-%-profile must be a number of seconds above 0" },
    { "run", 2, "unknown engine 'none'; known engines: .*linux.*sim", "VXI_ENGINE=none" },
    { "run", 2, "VXI_SIM cannot be read at character 6: expected a number", "VXI_SIM=cpus=x" },
    { "run --metrics a.txt", 2, "%-%-metrics must be a file name that ends in .prom, not 'a.txt'" },
    { "run --metrics-services", 2, "%-%-metrics%-services needs %-%-metrics" },
    { "run --metrics other.prom", 2, "other.prom exists and is not a metrics file of vxa; it is" },
    { "run --metrics fifo.prom", 2, "metrics file fifo.prom: not a regular file" },
    { "run --metrics none/a.prom", 1, "cannot write none/a.prom: none: No such file" },
    { "run --trace SysHealth", 2, "unknown trace category 'SysHealth'; .*SysHealth.eng" },
    { "run --policy broken.json", 2, "policy broken.json: line 2, column 19: unexpected '}'" },
    { "run --policy mistyped.json", 2, 'mistyped.json: .* must be 30, not "30" %(%-%-lenient' },
    { "run --policy= --cycles 1", 2, "%-%-policy: the file name is empty" },
    { "status --policy fifo", 2, "policy fifo: not a regular file" },
    { "status --policy large.json", 2, "policy large.json: has more than 1048576 bytes" },
    { "run --state /proc/none --cycles 1", 1, "/proc/none" },
    { "run --cycles 1 >/dev/full", 1, "cannot write to standard output: No space" },
    { "run", 1, "cannot load module 'vxa': no vxa.so in", "VXA_LIB=lib" },
    { "run", 1, "VXA_LIB=shared: other users can change /.*/shared", "VXA_LIB=shared" },
    { "diag a.zip --profile 1", 1, "cannot profile the rules: ", "VXI_FAULT=vxi_set_var=-1" },
    { "diag other.zip", 2, "other.zip already exists; use %-%-force to replace it" },
    { "diag folder --force", 2, "folder is a directory and is not replaced" },
    { "diag a.zip", 1, "cannot write a.zip: File too large",
      "VXI_SIM=flows=3000 env --ignore-signal=XFSZ prlimit --fsize=8192" },
    { "run --record other.zip", 2, "other.zip exists and is not a record of vxa" },
    { "run --record fifo", 2, "cannot write fifo: it is not a regular file" },
    { "run --record-days 1", 2, "%-%-record%-days needs %-%-record" },
    { "run --observe", 2, "%-%-observe needs %-%-record or %-%-metrics" },
    { "run --observe --record r --policy runq.json", 2, "leave out %-%-policy" },
    { "plot fifo -o a.svg", 2, "fifo: not a regular file" },
    { "plot other.zip -o a.svg", 2, "other.zip: not a record" },
    { "plot other.zip -o a.jpg", 2, "ends in .svg or .png, not 'a.jpg'" },
    { "plot other.zip -o a.svg --since 2026-02-29", 2, "%-%-since must be a date" },
    { "run --log fifo", 2, "cannot write fifo: it is not a regular file" },
    { "run --log other.zip", 2, "cannot write other.zip: it exists and does not begin with" },
    { "run --record a.csv --log ./a.csv", 2, "%-%-record and %-%-log are the same file: ./a.csv" },
    { "run --log-keep 2", 2, "%-%-log%-keep needs %-%-log" },
    { "run --log-size -1", 2, "%-%-log%-size must be a whole number from 0 to 1048576, not '%-1'" },
    { "run --hook ' '", 2, "%-%-hook: the command is empty" },
    { "history", 2, "missing option '%-%-state'" },
    { "history --state folder", 2, "folder/transitions.jsonl does not exist" },
    { "history --state folder --since 2026-02-29", 2, "%-%-since must be a date .* not '2026" },
    { "plot a.csv -o a.svg --since 2026-03-29T02:30", 2, "T02:30 does not exist: the local clock",
      "TZ=CET-1CEST,M3.5.0,M10.5.0/3" },
    { "history --state folder --since 2999-01-01", 2, "%-%-since 2999%-01%-01 00:00:00 is in" },
    { "show --raw p.zip", 2, "%-%-raw needs an entry" },
    { "show other.zip", 2, "other.zip: not? .*zip archive" },
    { "show p.zip vxa_none.txt", 2, "p.zip: has no entry vxa_none.txt" },
} do
    local out, status, err = vxa(row[1], row[4])
    equal({ status, out, (shell "ls -AR") }, { row[2], "", before }, "vxa " .. row[1] .. err)
    matches(err, "^vxa: [^\n]*" .. row[3] .. "[^\n]*\n$", "vxa " .. row[1])
end

for _, name in ipairs { "argparse", "dkjson" } do
    matches(shell([[lua5.2 -E -e "local find = package.searchers[2]
        package.searchers[2] = function(name) return name ~= '%s' and find(name) or '' end" \
        '../it is' status 2>&1]], name), "^vxa: Lua module '" .. name .. "' is missing; .*lua%-")
end

-- Characters with a meaning in Lua's search paths.
matches(shell([[mkdir '../a;b?c'; cp -r %s/bin %s/lua '../a;b?c'; '../a;b?c/bin/vxa' help]], ROOT,
    ROOT), "^Usage: vxa ", "folder")

-- ---- what is printed ----------------------------------------------------------------------

-- The module publishes once in 61 seconds: with this hook, what is not published yet is reported.
local DUE = { "filter", [[
    local new = loaded.feedback
    function loaded.feedback(options)
        local feedback = new(options)
        feedback.report = feedback.rest
        return feedback
    end]] }

-- The six metrics as the module's traces and the command name them.
local full_names, crossings = {}, {}
for i, metric in ipairs(filter.metrics) do
    full_names[i] = "trace SysHealth.eng [^\n]*" .. metric.full_name .. " value of "
    crossings[i] = metric.name .. " [%d.]+ [^;]*threshold of [%d.]+ " .. metric.unit:gsub("%%", ".")
end

local PEAK = "VXI_SIM=scenario=idle:1/overloaded:1/idle"
local RUN = "run --interval 0.01 --cycles "

-- Arguments, environment, pattern or patterns of standard output, of standard error (default: it is
-- empty), exit status (default: 0), hook.
for _, row in ipairs {
    { "--version", "", "^vxa [%d.]+ %(Lua 5.2, .*\nlibvxi.so +[%d.]+ +%x+ +/" },
    { "help connections", "", "^Usage: vxa connections.*61 seconds" },
    { RUN .. 2, "", "engine sim.*\npolicy: built%-in default %(no %-%-policy, no /etc/vx_filter."
      .. "conf%)\ntime +action +rqpct +frepct +delta_t\n +>16 +<0.1 +>45\n%d%d%d%d%-%d%d%-%d%d "
      .. "%d%d:%d%d:%d%d  normal +2.8 +43.81 +%-\n%S+ %S+  normal +2.9 .*\n2 cycles in .*, 2 me" },
    { RUN .. "1 --engine linux", "OMP_NUM_THREADS=5 OMP_THREAD_LIMIT=1 LC_ALL=de_DE.UTF-8 PATH=",
      ">16.*normal +0.5 +37.5 " },
    { RUN .. "3 --policy runq.json", PEAK, "\npolicy: runq.json\n.* normal .* enter fail%-open "
      .. "+20.8! .*\n>> fail%-open entered: rqpct 20.8 exceeds the threshold of 8 processes since "
      .. "[%d:]+\n.* 2 min, until .* stay fail%-open +0.2 +off .*  2 min to go\n.*; ended in" },
    { RUN .. "4 --policy instant.json", PEAK, " leave fail%-open +0.2 .*\n<< fail%-open left after "
      .. "0 s.*\n   cause: rqpct 20.8 .* normal .* entered 1 time; ended enforcing" },
    { "run --interval 0.5 --cycles 2 --policy near.json", "VXI_SIM=scenario=idle,cpus=3", " normal "
      .. ".*\n%-%- near fail%-open: rqpct 0.1 is at 91 %% of the threshold of 0.11 processes\n"
      .. "[^\n]+ normal +0.1 +few [^\n]+\n== " },
    { "run --policy all.json --cycles 2 --interval 0.1 --trace SysHealth.eng", PEAK, crossings,
      full_names },
    { "run --port 443 --cycles 2 --interval 0.2", "", "%-%-port 443\n.* >50 +>5000 +>500 .* normal "
      .. "+2.8 +%- +%- +%- +43.81 +%-\n.* normal +2.9 +1.36 " },
    { RUN .. "2 --policy portless.json", "", "not monitoring +no settings to judge by; the filter "
      .. "enforces\n.* 0 measured", "port not configured\n.* portless.json has a connection thre" },
    { RUN .. "3 --port 443", "VXI_FAULT=vxi_get_scan_metrics=-5", {},
      "^vxa: vxi_get_scan_metrics failed rc= %-5[^\n]*, estab and scanmb are not judged%)\n$" },
    { RUN .. "2 --port 80 --json", "VXI_SIM=uncounted=7", '"errors":%["port 80: 7 new [^"]*"%]}\n'
      .. '.*"errors":%["port 80: 7 new', "^vxa: port 80: 7 [^\n]* %(estab is too low%)\n$" },
    { RUN .. "3 --port 443", "VXI_FAULT=vxi_open=-13", "3 measured", "^vxa: cannot read connections"
      .. ": engine sim[^\n]*%(none are reported%)\nvxa: cannot open the driver: [^\n]*judged%)\n" },
    { "run --cycles 1 --interval 45 --trace 'SysHealth.e*'", "", {}, "^trace SysHealth.eng "
      .. "CheckSystemHealthMetrics: .*\nvxa: warning: %-%-interval 45 is not below [^\n]*\n$" },
    { RUN .. "1 --port 443 --trace '*'", "", {},
      "^trace VXI .*\ntrace SysHealth.conf .*\ntrace SysHealth.scan " },
    { RUN .. "2 --engine linux", "FAKE_CPUS=", "no load figures +uptime or nproc.*\n2 cycles .* 0 "
      .. "measured", "^vxa: no cycle could sample this machine; ", 1 },
    { RUN .. "100000 --metrics a.prom | head -n 1; ls *.prom", "",
      "^vxa [^\n]*\nfifo.prom\nother.prom\n$" },
    { RUN .. 1, "VXI_SIM=flows=9", "normal .*\n== connections: 9 new connections to %d services .*"
      .. "\n count .*\n1 cycle ", nil, 0, DUE },
    { RUN .. "2 --json --policy runq.json --state kept && cat kept/document.json", PEAK,
      '^{"record":"start","time":"[^"]*Z","version":.*,"engine":"sim","policy_source":"runq.json",'
      .. '"settings":{"SYS_CONF_CONN_REFUSAL_PORT":80,.-"SYS_THR_RUNQ":8},.-\n{"record":"cycle",.-'
      .. '"cycle":1,"action":0,.-"state":"Deactivated",.-"over":%[%],.-"errors":%[%]}\n.-"rqpct",'
      .. '"value":20.8,"threshold":8,"unit":"processes","enabled":true,"over":true,'
      .. '"over_since":"2.-"frepct","value":null,"threshold":null,"unit":"%%","enabled":false,'
      .. '"over":false,.-"over":%["rqpct"%],"near":%[%],"transition":"entered","causes":%['
      .. '{"name":"rqpct",.-"min_fail_open_s":120,"in_fail_open_s":0,"fail_open_until":"2.-\n'
      .. '{"record":"end",.-"cycles":2,"measured":2,"hook":null,"entered":1,"observations":200,'
      .. '"reported":0,"pending":200,"refused":0,.-"interrupted":false}\n'
      .. '{[^}]*"vxp.filter.FailOpenState":%s*"Activated"' },
    { "status --port 443 --outbound --trace SysHealth.metr", "", "^monitoring  enabled.*\n"
      .. "policy      built%-in default.*\nport        443, outbound.*\nfail%-open   lasts at "
      .. "least 30 min.*rqpct +2.8   above 16.*estab +%-   above 5000.* scan%-metrics +yes",
      "^trace SysHealth.metr " },
    { "status --policy mistyped.json --lenient", "VXI_FAULT=vxi_capabilities=-5:gone",
      "lasts at least 0 s.*engine sim does not answer: [^\n]*gone\n$",
      'warning: mistyped.json: .* not "30"; it counts as 0\n$' },
    { "status --engine linux", "FAKE_CPUS=", "cycle failed: no load", "cycle failed: no load", 1 },
    { "status --json --port 443", "", '^{"record":"status","time":"[^"]+","version":.*"sim",'
      .. '"monitoring":true,.*"port":443,"direction":"inbound",.*"detail":"simulated"}%]}\n$' },
    { "connections --cycles 2 --interval 0.01", "VXI_SIM=flows=100",
      "every 0.01 s\n.* every 61 seconds; first report at [%d -]-%d%d:%d%d:%d%d%.\n.*  100 flows, "
      .. "100 new\n.*  100 flows, 0 new\n.*  not published yet: 100 new connections to %d services "
      .. "since .*\n count  protocol  direction  destination\n    %d%d  tcp       in         "
      .. "10.0.0.1:443\n.*  in +%[2001:db8::1%]:443\n.*\nconnections: 100 "
      .. "observed = 0 reported %+ 100 pending %+ 0 refused\n2 samples in " },
    { "connections --cycles 1", "VXI_SIM=flows=3", "  report: 3 new connections to 1 service since "
      .. ".*\nNext report at .*\n1 sample in [^\n]*\n$", nil, 0, DUE },
    { "connections --cycles 1 --json", "VXI_SIM=flows=3", '^{"record":"start",.*{"record":"sample",'
      .. '.*{"record":"report",.*"published":true.*{"record":"connection",.*{"record":"report",.*'
      .. '"published":false.*{"record":"connection",.*\n{"record":"end",', nil, 0, DUE },
    { "diag p.zip --force", "VXI_FAULT=vxi_capabilities=7", "^vxa [%d.]+, engine sim\nentry +bytes"
      .. " +ms\n.*\np.zip: 7 entries, [%d.]+ kB packed into [%d.]+ kB, in " },
    -- Events of earlier packages are not reported again.
    { "diag p.zip --force --state kept", "VXI_FAULT=vxi_get_stats=-5:disk", "\nmissing  "
      .. "vxa_stats.txt  vxi_get_stats failed with %-5: engine sim: vxi_get_stats: disk\n"
      .. "1 event in the host document, kept in kept\np.zip: 8 entries" },
    { "diag p.zip --force --state kept", "VXI_FAULT=vxi_get_conntrack=-5:after=1", "\nincomplete  "
      .. "vxa_conn_track.txt  vxi_get_conntrack failed with %-5: .* %(2 times%)\n2 events" },
    { "diag p.zip --force", "VXI_SIM=flows=0",
      "\nmissing  vxa_conn_track.txt  the driver has no connections\np.zip: 6 entries" },
    { "diag p.zip --force", "VXI_FAULT=vxi_driver_available=0,vxi_get_profile_stats=-1:gone",
      "\nmissing  vxa_stats.txt       the driver is not available\n.*  vxa_variables.*_conn_track.*"
      .. "_blacklist.*\nempty    vxa.tpf +vxi_get_profile_stats failed with %-1: .*: gone\n",
      "^vxa: the driver returned nothing: .*\n$", 1 },
    { "show p.zip vxa.tpf", "", "^%(vxa.tpf is empty%)\n$" },
    { "diag p.zip --force", "VXI_FAULT=vxi_get_varv=-10017,vxi_get_var=-5",
      "  vxa_variables.txt  the driver does not have all.*\nfailed   vxi_get_var +.* with %-5" },
    { "diag p.zip --force --profile 0.01", "VXI_SIM=rules=2", "p.zip: 7 entries" },
    { "show p.zip vxa.tpf", "", "^1 table, 1 chain, 2 rules; profiled for 0 ticks .*\nhandle  "
      .. "packets  bytes  %+packets  %+bytes  rule\ninet filter input\n"
      .. "     3        0      0         0       0  tcp dport 1 accept\n" },
    { "diag p.zip --force --trace diagnostics --trace filter", "", "7 entries",
      "^trace filter .*\ntrace diagnostics AddDriverContent: .*AddDriverRuleStats" },
    { "show p.zip && unzip -tq p.zip && stat -c %a p.zip", "", "^host .*\n\nentry +bytes .*"
      .. "vxa_stats.txt +%d%d+ +%d+  text  driver statistics\n.*  driver variables\n.*"
      .. "  connections\n.*  blacklisted addresses\nvxa.tpf +%d+ +%d+  data  rule profile\n"
      .. ".*p.zip: 7 entries, [^\n]*\nNo errors detected[^\n]*\n600\n$" },
    { "show p.zip vxa_stats.txt >a; unzip -p p.zip vxa_stats.txt | cmp - a", "", "^$" },
    { "show p.zip vxa.tpf --raw | cat >a; unzip -p p.zip vxa.tpf | cmp - a; rm a", "", "^$" },
} do
    local name = ("%s vxa %s: "):format(row[2], row[1])
    local out, status, err = vxa(row[1], row[2], row[6])
    equal(status, row[5] or 0, name .. err)
    matches(out, row[3], name .. "standard output")
    matches(err, row[4] or "^$", name .. "standard error")
end

-- The example of docs/driver-diagnostics.md: it adds the entries that the command knows.
local listed = "^true\n"
for _, entry in ipairs(require "vxa.packages.entries") do
    if entry.call then listed = listed .. entry.name:gsub("%.", "%%.") .. "\t%d+\n" end
end
local document = testing.read(ROOT .. "/docs/driver-diagnostics.md")
write { ["folder/example.lua"] = document:match("```lua\n(package.cpath.-)```")
    :gsub("build/release/lib", os.getenv("VXA_LIB")):gsub("/tmp/driver", SCRATCH .. "q") }
matches(shell "cd folder; VXI_ENGINE=sim lua5.2 example.lua 2>&1",
    listed .. "$", "the example")

-- ---- settings -----------------------------------------------------------------------------

-- Each setting at its bound and, in the file, just above it.
local conf, members, largest = "", "", {}
for _, setting in ipairs(health_policy.settings) do
    local name, max = setting.conf, setting.max
    conf = ("%s%s=%d\n%s=%d\n"):format(conf, name, max, name, max + 1)
    members = members .. (setting.threshold and ',"%s":{"value":%d}' or ',"%s":%d')
        :format(setting.key, max)
    largest[setting.key] = max
end
write { ["bounds.json"] = "{" .. members:sub(2) .. "}" }

-- The command must read the settings that the module logs, both with 14 digits; the directory of
-- the log is created. Arguments, configuration file (false: none), settings among others (false:
-- absent), warnings in order.
for _, row in ipairs {
    { "", conf, largest, "line 2: SYSTEM_CONNECTION_REFUSAL_PORT 65536 is out.*\n.* line 22: " },
    { "--policy bounds.json", false, largest },
    -- Also what strtof and fgets make of it.
    { "", "# remark\nSYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=0x10\n"
      .. "SYSTEM_MIN_FREE_MEM_PCT=5.5.5\nSYSTEM_MIN_FREE_MEM_PCT=nan\nSYSTEM_UNLOAD_DRIVER=1\0009\n"
      .. "SYSTEM_MAX_ITERATION_INTERVAL=60.000001\nSYSTEM_MIN_ACT_DURATION=\t+2e0min\n"
      .. ("x"):rep(1023) .. "SYSTEM_RECOVERY_FACTOR=.3\nSYSTEM_RECOVERY_FACTOR=inf\n"
      .. "SYSTEM_MIN_ACT_DURATION=0\nSYSTEM_MIN_ACT_DURATION=-\n system_unload_driver =8\n"
      .. 'SYSTEM_RUNQ=8\nSYS_THR_FREE_MEM=2\n{"SYS_THR_RUNQ": 8}\n' .. ("x=1\n"):rep(100),
      { SYS_THR_RUNQ = 16, SYS_THR_FREE_MEM = 5.5, SYS_THR_MAX_ITERATION_INVL = 60,
        SYS_CONF_MIN_ACT_DURATION = 2, SYS_CONF_UNLOAD_DRIVER = 1 },
      "^vxa: warning: /etc/vx_filter.conf: line 5: SYSTEM_MIN_FREE_MEM_PCT nan is out of bounds.*"
      .. "line 9: SYSTEM_RECOVERY_FACTOR: 0.3[^\n]* counts as 0\n.*line 10: [^\n]* inf is out.*"
      .. "line 11: [^\n]* 0 is out.*line 12: [^\n]* has no number; the line is.*line 13: "
      .. "SYSTEM_UNLOAD_DRIVER= must start.*line 14: 'SYSTEM_RUNQ' is not [^\n]* "
      .. "'SYSTEM_RUNQ_PCT_THRESHOLD'%?.*line 15: 'SYS_THR_FREE_MEM' is not [^\n]* "
      .. "'SYSTEM_MIN_FREE_MEM_PCT'%?.*line 16: JSON is for %-%-policy; .*and 89 more\n" },
    { "--port 443", "SYSTEM_MIN_FREE_MEM_PCT=0.3\nSYSTEM_UNLOAD_DRIVER=1\n",
      { SYS_THR_FREE_MEM = 0.30000001192093, SYS_THR_RUNQ = false } },
    { "", false, { SYS_THR_RUNQ = 200 } },
    { "--port 443 --policy outbound.json", false, { SYS_CONF_CONN_REFUSAL_PORT = 443,
      SYS_CONF_CONN_REFUSAL_OUTBOUND = 0, SYS_THR_CONN_REFUSAL_PCT = 50 } },
    { "--port 443 --policy portless.json --outbound", false, { SYS_CONF_CONN_REFUSAL_OUTBOUND = 1,
      SYS_THR_CONN_REFUSAL_PCT = 10, SYS_THR_CONN_EST_PER_CPU = false } },
} do
    shell("rm -rf %s", AGENT)
    if row[2] then testing.write(CONF, row[2]) end
    local out, _, err = vxa("run --json --cycles 1 " .. row[1], "VXI_SIM=cpus=256")
    os.remove(CONF)
    local logged = health_policy.check(testing.read(AGENT .. "/diag/vx_filter_json.log") or "{}")
    local settings = json.decode(out).settings
    for _, list in ipairs { logged, settings } do  -- the module writes 15 digits
        for key, value in pairs(list) do list[key] = tonumber(("%.14g"):format(value)) end
    end
    equal(logged, settings, "settings of " .. row[1])
    for key, value in pairs(row[3]) do equal(logged[key] or false, value, key) end
    matches(err, row[4] or "^$", "warnings")
end

-- A configuration file that is a FIFO, and a log without a directory, reported once.
shell("mkfifo %s; rm -rf %s; touch %s", CONF, AGENT, AGENT)
matches(select(3, vxa(RUN .. 1)), "^vxa: configuration /etc/vx_filter.conf: not a regular")
os.remove(CONF)
matches(select(3, vxa(RUN .. 3)), "^vxa: Failed to output cloud config %([^\n]*\n$", "no log")
os.remove(AGENT)

-- ---- signals ------------------------------------------------------------------------------

-- At different moments of the start. A shell starts background jobs with SIGINT ignored; timeout
-- does not.
for signal, ended in pairs { INT = 130, TERM = 143 } do
    for hundredths = 1, 6 do
        local out, status = shell("VXI_ENGINE=sim timeout --preserve-status -s %s 0.0%d "
            .. "%s/bin/vxa status 2>&1 >out; exit $?", signal, hundredths, ROOT)
        equal({ out, status == 0 and ended or status }, { "", ended }, signal)
    end
end

-- While a package is unfinished.
before = shell "ls -AR"
local out, status, err = vxa("diag a.zip", "", { "fc", [[
    local add = SLB.filter.AddDriverDiagnostics
    function SLB.filter.AddDriverDiagnostics(...)
        io.popen("env -u LD_PRELOAD kill -TERM $PPID"):close()
        return add(...)
    end]] })
equal({ err, status, out, (shell "ls -AR") },
    { "vxa: interrupted by SIGTERM: no package was written\n", 1, "", before }, "package")

-- A shell command once the first cycle is out, in the middle of the wait.
for _, row in ipairs {
    { "kill -9 $pid", { "^status 137\n", "\n# TYPE vxa_cycles_total counter\nvxa_cycles_total"
      .. "{result=\"normal\"} 1\nvxa_cycles_total{result=\"fail_open\"} 0\n", "vxa_monitoring_"
      .. "enabled 1\n", "causes_total{metric=\"delta_t\"} 0\n", "pressure_ratio{metric=\"rqpct\"} "
      .. "0.35\n", "_processes 2.8\n", "_threshold_processes 8\n", "call=\"vxi_open\"} 0\n",
      "observed_total 200\n", "vxa_reports_total 0\n$" } },
    { "kill -INT $pid", "^status 0\n.*\n1 cycle in [^\n]*; ended enforcing\n$" },
    -- SIGHUP reloads the policy; one that is refused leaves the old in force.
    { "cp mistyped.json changing.json; kill -HUP $pid; wait_for stays; cp instant.json "
      .. "changing.json; kill -HUP $pid; wait_for reloaded; kill -TERM $pid", "^status 0\n.*\nvxa: "
      .. "policy changing.json: .*; the current policy stays in force\nvxa: warning: port 80, "
      .. "inbound, stays monitored until vxa is restarted\npolicy reloaded: .*\n1 cycle in " },
} do
    matches(shell([[: >out; cp runq.json changing.json
        VXI_ENGINE=sim %s/bin/vxa run --policy changing.json --interval 40 --metrics a.prom \
            >out 2>&1 & pid=$!
        wait_for() {
            n=0; until grep -q "$1" out || [ $n -ge 400 ]; do sleep 0.05; n=$((n + 1)); done
        }
        wait_for normal
        %s; wait $pid; echo "status $?"; cat out a.prom 2>&-]], ROOT, row[1]), row[2], row[1])
end

testing.finish()
