-- The command from outside: options, exit statuses, what it prints where. The machine and
-- its traffic are those of the simulated engine, unless a case chooses the other.
--
-- The fake machine has the files at fixed paths and the commands that the module runs.

local health_policy = require "health_policy"
local json = require "dkjson"
local testing = require "testing"

local MACHINE = os.getenv "FAKE_MACHINE"
local CONF = MACHINE .. "/etc/vx_filter.conf"
local ROOT = os.getenv "VXA_ROOT"

local function shell(command)
    local pipe = io.popen(command)
    local text = pipe:read("*a")
    local _, _, status = pipe:close()
    return text, status
end

local SCRATCH = MACHINE .. "/work"
shell("mkdir " .. SCRATCH)

local function write(name, text)
    testing.write(name:find("^/") and name or SCRATCH .. "/" .. name, text)
end

-- What the command would run or load from the current folder, which is also the caller's
-- environment.
for _, name in ipairs { "vxa", "fc", "filter", "argparse", "dkjson" } do
    write(name .. ".lua", "error('code of the current folder')")
end
shell(([[cd %s && for name in uptime nproc; do
    printf '#!/bin/sh\necho run >hostile\n' >$name; chmod +x $name; done
    ln -s %s/bin/vxa '../it is']]):format(SCRATCH, ROOT))
local HOSTILE = "PATH=.:$PATH LUA_INIT='error()' LUA_PATH='./?.lua' LUA_CPATH='/nonexistent/?.so'"

-- Returns what it printed, its exit status and what it printed on standard error. `hook`: code to
-- run once the command has loaded `module`.
local function vxa(arguments, environment, module, hook)
    if hook then
        write(MACHINE .. "/hook.lua", ([[
            local load, done = require
            function require(name)
                local loaded = load(name)
                if name == %q and not done then done = true %s end
                return loaded
            end]]):format(module, hook))
    end
    local text, status = shell(
        ("cd %s && env %s VXI_ENGINE=sim %s %s '../it is' %s 2>err")
            :format(SCRATCH, HOSTILE, environment or "",
                hook and [[lua5.2 -E -e "dofile('../hook.lua')"]] or "", arguments))
    return text, status, testing.read(SCRATCH .. "/err")
end

local function files()
    return (shell("ls -AR -I '*.lua' -I nproc -I uptime " .. SCRATCH))
end

local function matches(text, pattern, what)
    testing.equal(text:find(pattern) and pattern or text, pattern, what)
end

-- Each pattern after the one before; one that begins with ^ at the very start.
local function match_in_order(text, patterns, what)
    local from = 1
    for _, pattern in ipairs(patterns) do
        local _, last = text:find(pattern, pattern:find("^%^") and 1 or from)
        if not last then matches(text:sub(from), pattern, what) end
        from = last or from
    end
end

-- For the linux engine. They show the traps: nproc obeys OMP_NUM_THREADS, uptime the locale.
write(MACHINE .. "/usr/local/bin/nproc", "#!/bin/sh\necho ${OMP_NUM_THREADS:-${FAKE_CPUS-4}}\n")
write(MACHINE .. "/usr/local/bin/uptime", [[#!/bin/sh
load=0.50
[ "${LC_ALL:-$LC_NUMERIC}" = C.UTF-8 ] || load=0,50
echo " 12:00:00 up 1 day,  1:00,  1 user,  load average: $load, 0.40, 0.30"
]])
write(MACHINE .. "/proc/meminfo", "MemTotal: 1000 kB\nMemFree: 375 kB\nMemAvailable: 1 kB\n")

write("broken.json", '{\n  "SYS_THR_RUNQ": }')
write("mistyped.json", '{"SYS_CONF_MIN_ACT_DURATION": "30"}')
write("large.json", (" "):rep(1048577))
local RUNQ = '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_CONN_REFUSAL_PORT": %d, '
    .. '"SYS_THR_CONN_REFUSAL_PCT": {"value": 50}, "SYS_CONF_MIN_ACT_DURATION": %d}'
write("runq.json", RUNQ:format(80, 2))
write("instant.json", RUNQ:format(81, 0))
write("outbound.json", '{"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_CONF_CONN_REFUSAL_OUTBOUND":1}')
write("portless.json", '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 10}}')
write("other.zip", "kept as it is")
testing.equal(select(2, shell(([[cd %s && mkdir folder; mkdir -m 755 lib; mkdir -m 777 shared; mkfifo fifo; ln -s other.zip link]]):format(SCRATCH))), 0, "set-up")
vxa "diag p.zip"

-- ---- calls that are refused ---------------------------------------------------------

-- Arguments, exit status, pattern of the one line on standard error, environment.
local refused = {
    { "", 2, "no command given" },
    { "run --port 0", 2, "%-%-port must be a whole number from 1 to 65535, not '0'" },
    { "run --port 0x1BB", 2, "not '0x1BB'" },
    { "run --outbound", 2, "%-%-outbound needs %-%-port" },
    { "run --lenient", 2, "%-%-lenient needs %-%-policy" },
    { "run --interval -1", 2, "%-%-interval must be a number of seconds above 0.*not '%-1'" },
    { "run --interval 1e9", 2, "not '1e9'" },
    { "run", 2, "unknown engine 'none'; known are: .*linux.*sim", "VXI_ENGINE=none" },
    { "run", 2, "VXI_SIM cannot be read at character 6: expected a number", "VXI_SIM=cpus=x" },
    { "diag none.zip", 2, "VXI_FAULT cannot be read at character 1", "VXI_FAULT=x=-1" },
    { "run --trace SysHealth", 2, "unknown trace category 'SysHealth'; known categories: .*SysHealth.eng" },
    { "run --policy broken.json", 2, "policy broken.json: line 2, column 19: unexpected '}'" },
    { "run --policy mistyped.json", 2, 'mistyped.json: .* must be 30, not "30" %(%-%-lenient' },
    { "run --policy= --cycles 1", 2, "%-%-policy: the file name is empty" },
    { "status --policy fifo", 2, "policy fifo: not a regular file" },
    { "status --policy large.json", 2, "policy large.json: has more than 1048576 bytes" },
    { "run --state /proc/none --cycles 1", 1, "/proc/none" },
    { "run --cycles 1 >/dev/full", 1, "cannot write to standard output: No space" },
    { "run", 1, "cannot load module 'vxa': no vxa.so in", "VXA_LIB=lib" },
    { "run", 1, "root does not load modules from VXA_LIB=shared: other users can change /.*/shared",
      "VXA_LIB=shared" },
    { "diag a.zip", 1, "cannot open the driver: ", "VXI_FAULT=vxi_open=-13" },
    { "diag a.zip --profile 1", 1, "cannot profile the rules: ", "VXI_FAULT=vxi_set_var=-1" },
    { "diag other.zip", 2, "other.zip already exists; use %-%-force to replace it" },
    { "diag folder --force", 2, "folder is a directory and is not replaced" },
    { "diag fifo --force", 2, "fifo is not a regular file and is not replaced" },
    { "diag a.zip", 1, "cannot write a.zip: File too large",
      "VXI_SIM=flows=3000 env --ignore-signal=XFSZ prlimit --fsize=8192" },
    { "show --raw p.zip", 2, "%-%-raw needs an entry" },
    { "show other.zip", 1, "other.zip: no zip archive, or a part of one" },
    { "show p.zip vxa_none.txt", 1, "p.zip: has no entry vxa_none.txt" },
    { "show p.zip >/dev/full", 1, "cannot write to standard output: No space" },
}

local before = files()
for _, row in ipairs(refused) do
    local out, status, err = vxa(row[1], row[4])
    testing.equal({ status, out, files() }, { row[2], "", before }, "vxa " .. row[1] .. ": " .. err)
    matches(err, "^vxa: [^\n]*" .. row[3] .. "[^\n]*\n$", "vxa " .. row[1])
end

-- Lua modules that are missing.
for _, name in ipairs { "argparse", "dkjson" } do
    local err = shell(([[cd %s && lua5.2 -E -e "local find = package.searchers[2]
        package.searchers[2] = function(name) return name ~= '%s' and find(name) or '' end" \
        '../it is' status 2>&1]]):format(SCRATCH, name))
    matches(err, ("^vxa: Lua module '%s' is missing; install Debian's package lua%%-%s")
        :format(name, name), "missing module")
end

-- ---- what is printed ----------------------------------------------------------------

local PEAK = "VXI_SIM=scenario=idle:1/overloaded:1/idle"

-- Arguments, environment, patterns of standard output in order, patterns of standard error in
-- order (none: it is empty), exit status (none: 0).
local runs = {
    { "help connections", "", { "Usage: vxa connections", "61 seconds" } },
    { "run --cycles 2 --interval 0.01", "",
      { "engine sim", "policy: built%-in default %(no %-%-policy, no /etc/vx_filter.conf%)",
        "\ntime +action +rqpct +frepct +delta_t\n +>16 +<0.1 +>45\n",
        "\n%d%d%d%d%-%d%d%-%d%d %d%d:%d%d:%d%d  normal +2.8 +43.81 +%-\n",
        "normal +2.9 ", "\n2 cycles in .*, 2 measured, fail%-open entered 0" } },
    { "run --engine linux --cycles 1",
      "OMP_NUM_THREADS=50 OMP_THREAD_LIMIT=1 LC_ALL=de_DE.UTF-8 PATH=", { "normal +0.5 +37.5 " } },
    { "run --policy runq.json --cycles 3 --interval 0.01", PEAK,
      { "policy: runq.json", "normal", "enter fail%-open +20.8! ",
        ">> fail%-open entered: rqpct 20.8 exceeds the threshold of 8 processes\n", " 2 min, until",
        "stay fail%-open +0.2 +off .*  2 min to go\n", "ended in fail%-open" } },
    { "run --policy instant.json --cycles 4 --interval 0.01", PEAK, { "leave fail%-open +0.2 ",
      "<< fail%-open left after 0 s", "normal", "entered 1 time; ended enforcing" } },
    { "run --port 443 --cycles 2 --interval 0.2", "",
      { "%-%-port 443\n", "rqpct +refusalpct +estab +scanmb +frepct +delta_t",
        " >50 +>5000 +>500 ", "normal +2.8 +%- +%- +%- +43.81 +%-\n", "normal +2.9 +1.36 " } },
    { "run --policy portless.json --cycles 2 --interval 0.01", "",
      { "not monitoring +no settings to judge by; the filter enforces\n", "0 measured" },
      { "Conn Refusal enabled but monitoring port not configured\n",
        "not monitoring: portless.json has a connection threshold but no port[^\n]*\n$" } },
    { "run --port 443 --cycles 3 --interval 0.01", "VXI_FAULT=vxi_get_scan_metrics=-5", {},
      { "^vxa: vxi_get_scan_metrics failed rc= %-5[^\n]*, estab and scanmb are not judged%)\n$" } },
    { "run --port 443 --cycles 3 --interval 0.01", "VXI_FAULT=vxi_open=-13", { "3 measured" },
      { "^vxa: cannot read connections: engine sim[^\n]*%(none are reported%)\n",
        "vxa: cannot open the driver: [^\n]*are not judged%)\n$" } },
    { "run --cycles 1 --interval 45 --trace SysHealth.metr --trace 'SysHealth.e*'", "", {},
      { "^trace SysHealth.eng CheckSystemHealthMetrics: cloud_config size%[",
        "Setting status: enabled", "\nvxa: warning: %-%-interval 45 is not below [^\n]*\n$" } },
    { "status --port 443 --outbound", "",
      { "monitoring  enabled", "policy      built%-in default", "port        443, outbound",
        "fail%-open   lasts at least 30 min", "rqpct +2.8   above 16", "estab +%-   above 5000",
        "engine sim on this machine:", "scan%-metrics +yes" } },
    { "status --policy mistyped.json --lenient", "VXI_FAULT=vxi_capabilities=-5:gone",
      { "lasts at least 0 s", "engine sim does not answer: [^\n]*gone\n$" },
      { 'warning: mistyped.json: .* not "30"; it counts as 0\n$' } },
    { "run --engine linux --cycles 2 --interval 0.01", "FAKE_CPUS=",
      { "no load figures +uptime or nproc", "2 cycles .* 0 measured" },
      { "^vxa: no cycle could sample this machine\n$" }, 1 },
    { "status --engine linux", "FAKE_CPUS=", { "cycle failed: no load" },
      { "^vxa: the cycle failed: no load figures\n$" }, 1 },
    { "run --interval 0.01 --cycles 100000 | head -n 1", "", { "^vxa [^\n]*\n$" } },
    { "connections --cycles 2 --interval 0.01", "VXI_SIM=flows=100",
      { "^vxa [%d.]+, engine sim, sampling flows every 0.01 s\n",
        "every 61 seconds; first report at [%d -]-%d%d:%d%d:%d%d%.\n", "  100 flows, 100 new\n",
        "  100 flows, 0 new\n", "  not published yet: 100 new connections to %d services since ",
        "\n count  protocol  direction  destination\n    %d%d  tcp       in         10.0.0.1:443\n",
        "  in         %[2001:db8::1%]:443\n",
        "\n2 samples in .*: 100 new connections, 0 of them reported\n$" } },
}

for _, row in ipairs(runs) do
    local arguments, environment, out_patterns, err_patterns, expected = table.unpack(row, 1, 5)
    local name = ("%s vxa %s: "):format(environment, arguments)
    local out, status, err = vxa(arguments, environment)
    testing.equal(status, expected or 0, name .. err)
    match_in_order(out, out_patterns, name .. "standard output")
    match_in_order(err, err_patterns or { "^$" }, name .. "standard error")
end

-- ---- JSON -------------------------------------------------------------------------------

local function records_of(out)
    local records = {}
    for line in out:gmatch("[^\n]+") do
        records[#records + 1] = assert(json.decode(line), line)
    end
    return records
end

-- The record has these members, among others.
local function holds(record, expected)
    local found = {}
    for name in pairs(expected) do found[name] = record[name] end
    testing.equal(found, expected, record.record)
end

local records = records_of(vxa(
    "run --json --policy runq.json --cycles 2 --interval 0.01 --state kept", PEAK))
holds(records[1], { record = "start", engine = "sim", policy_source = "runq.json",
                    settings = { SYS_THR_RUNQ = 8, SYS_THR_CONN_REFUSAL_PCT = 50,
                    SYS_CONF_MIN_ACT_DURATION = 2, SYS_CONF_CONN_REFUSAL_PORT = 80 } })
holds(records[2], { record = "cycle", cycle = 1, state = "Deactivated", over = {}, errors = {} })
holds(records[3], { action = 1, transition = "entered", min_fail_open_s = 120, over = { "rqpct" } })
testing.equal(records[3].metrics[1], { name = "rqpct", value = 20.8, threshold = 8, over = true,
                                       unit = "processes", enabled = true }, "metric")
testing.equal(records[3].metrics[5], { name = "frepct", over = false, unit = "%", enabled = false },
    "a metric that is off")
holds(records[4], { record = "end", cycles = 2, measured = 2, entered = 1, interrupted = false })
testing.equal(json.decode(testing.read(SCRATCH .. "/kept/document.json") or ""),
    { ["vxp.filter.FailOpenState"] = "Activated", ["vxp.filter.FailOpenUnloadDriver"] = false },
    "the document")

local line = vxa("status --json --port 443")
matches(line, '^{"record":"status","time":"[^"]+","version":"', "order of members")
local seen = records_of(line)[1]
holds(seen, { monitoring = true, port = 443, direction = "inbound", engine = "sim" })
testing.equal(type(seen.capabilities[1].detail), "string", "capabilities")

-- ---- reports that are due ---------------------------------------------------------------

-- The module publishes once in 61 seconds: what is not published yet stands in for that.
local DUE = [[
    local make = loaded.feedback
    function loaded.feedback(options)
        local feedback = make(options)
        feedback.report = feedback.rest
        return feedback
    end]]

match_in_order(vxa("connections --cycles 1", "VXI_SIM=flows=3", "filter", DUE),
    { "  report: 3 new connections to 1 service since ", "Next report at ", "3 of them reported" })
match_in_order(vxa("run --cycles 1", "VXI_SIM=flows=9", "filter", DUE),
    { "normal", "\n== connections: 9 new connections to %d services", "\n count", "1 cycle" })
local kinds = {}
for _, record in ipairs(records_of(
    vxa("connections --cycles 1 --json", "VXI_SIM=flows=3", "filter", DUE))) do
    kinds[#kinds + 1] = record.record .. (record.published and " published" or "")
end
testing.equal(table.concat(kinds, ", "),
    "start, sample, report published, connection, report, connection, end", "records")

-- ---- packages -----------------------------------------------------------------------------

-- The package's entries, as another zip reader has them: an entry's bytes, or all by name.
local function unzip(name, entry)
    if entry then return (shell(("cd %s && unzip -p %s %s"):format(SCRATCH, name, entry))) end
    testing.equal(select(2, shell(("cd %s && unzip -tq %s"):format(SCRATCH, name))), 0, "unzip -t")
    local sizes = {}
    for size, found in shell(("cd %s && unzip -lqq %s"):format(SCRATCH, name))
        :gmatch("(%d+)[^\n]* (%S+)\n") do sizes[found] = size end
    return sizes
end

-- Environment, patterns of the output in order. The entries in the table are those in the package.
local packages = {
    { "VXI_FAULT=vxi_capabilities=7",
      { "^vxa [%d.]+, engine sim\nentry +bytes +ms\n",
        "\np.zip: 5 entries, [%d.]+ kB packed into [%d.]+ kB, in " } },
    { "VXI_FAULT=vxi_get_stats=-5:disk",
      { "\nmissing  vxa_stats.txt  GET_STATS failed with %-5: engine sim: vxi_get_stats: disk\n",
        "1 event in the host document %(%-%-state DIR keeps them%)\n", "p.zip: 4 entries" } },
    { "VXI_FAULT=vxi_get_conntrack=-5:after=1",
      { "\nincomplete  vxa_conn_track.txt  GET_CONN_TRACK failed with %-5: .* %(2 times%)\n",
        "2 events" } },
    { "VXI_SIM=flows=0",
      { "\nmissing  vxa_conn_track.txt  the driver has no connections\np.zip: 4 entries" } },
    { "VXI_FAULT=vxi_get_profile_stats=-5:gone",
      { "\nempty  vxa.tpf  engine sim: vxi_get_profile_stats: gone\np.zip: 5 entries" } },
    { "VXI_FAULT=vxi_driver_available=0,vxi_get_profile_stats=-1",
      { "\nmissing  vxa_stats.txt       the driver is not available\n", "vxa_variables",
        "vxa_conn_track", "vxa_blacklist", "\nempty    vxa.tpf ", "p.zip: 1 entry, 0 bytes" } },
}

for _, row in ipairs(packages) do
    local out, status, err = vxa("diag p.zip --force", row[1])
    match_in_order(out, row[2], row[1])
    local listed = {}
    for name, bytes in out:gmatch "\n(vxa[%w_.]+) +(%d+) +%d+%.%d" do listed[name] = bytes end
    testing.equal(listed, unzip "p.zip", row[1])
    testing.equal({ status, err }, out:find("1 entry, 0 bytes")
        and { 1, "vxa: the driver returned nothing\n" } or { 0, "" }, row[1])
end

-- Events of earlier packages are not reported again.
vxa("diag p.zip --force --state kept", "VXI_FAULT=vxi_get_stats=-5")
matches(vxa("diag p.zip --force --state kept", "VXI_FAULT=vxi_get_blacklist=-5"),
    "\nmissing  vxa_blacklist[^\n]*\n1 event in the host document, kept in kept\n", "one event")

matches(select(3, vxa("diag p.zip --force --trace diagnostics")),
    "^trace diagnostics AddDriverContent: .*AddDriverRuleStats", "traces")

-- The signal comes right behind the module's call, while the package is unfinished.
before = files()
for _, signal in ipairs { "TERM", "INT" } do
    local out, status, err = vxa("diag a.zip", "", "fc", ([[
        local add = SLB.filter.AddDriverDiagnostics
        function SLB.filter.AddDriverDiagnostics(...)
            io.popen("env -u LD_PRELOAD kill -%s $PPID"):close()
            return add(...)
        end]]):format(signal))
    testing.equal({ err, status, out, files() },
        { ("vxa: interrupted by SIG%s: no package was written\n"):format(signal), 1, "", before }, signal)
end

-- A package is listed and its entries are shown.
vxa("diag p.zip --force", "VXI_SIM=rules=3")
testing.equal(shell("stat -c %a " .. SCRATCH .. "/p.zip"), "600\n", "permissions")
match_in_order(vxa("show p.zip"), { "^entry +bytes +packed +kind +content\n",
    "vxa_stats.txt +" .. unzip("p.zip")["vxa_stats.txt"] .. " +%d+  text  driver statistics\n",
    "vxa.tpf +%d+ +%d+  data  rule profile\n", "p.zip: 5 entries, " }, "list")
testing.equal(vxa("show p.zip vxa_stats.txt"), unzip("p.zip", "vxa_stats.txt"), "a text")
testing.equal(vxa("show p.zip vxa.tpf --raw | cat"), unzip("p.zip", "vxa.tpf"), "raw bytes")
match_in_order(vxa("show p.zip vxa.tpf"), { "^1 table, 1 chain, 3 rules; profiling was off\n",
    "\n     5        0      0  tcp dport 3 accept\n$" }, "the profile")
vxa("diag p.zip --force --profile 0.01", "VXI_SIM=rules=2")
match_in_order(vxa("show p.zip vxa.tpf"), { "^1 table, 1 chain, 2 rules; profiled for 0 ticks",
    "\nhandle  packets  bytes  %+packets  %+bytes  rule\n", "\ninet filter input\n",
    "\n     3        0      0         0       0  tcp dport 1 accept\n" }, "profiled rules")
vxa("diag p.zip --force", "VXI_FAULT=vxi_get_profile_stats=-1")
testing.equal(vxa("show p.zip vxa.tpf"), "(vxa.tpf is empty)\n", "an empty entry")

-- The example of docs/driver-diagnostics.md.
local document = testing.read(ROOT .. "/docs/driver-diagnostics.md")
write("example.lua", (document:match("```lua\n(package.cpath.-)```")
    :gsub("build/release/lib", os.getenv("VXA_LIB")):gsub("/tmp/driver", SCRATCH .. "/q")))
matches(shell("cd / && VXI_ENGINE=sim lua5.2 " .. SCRATCH .. "/example.lua 2>&1"),
    "^true\nvxa_stats.txt\t%d+\n.*vxa.tpf\t%d+\n$", "the example")

-- ---- files ------------------------------------------------------------------------------

-- Settings as the command reads them are those that the module logs, in a folder made for the
-- log; both with 14 digits. Arguments, configuration file (false: none), settings among others
-- (false: absent), what is warned of, in order.
local configured = {
    -- What strtof and fgets make of it.
    { "", "SYSTEM_RUNQ_PCT_THRESHOLD=0x10\nSYSTEM_MIN_FREE_MEM_PCT=5.5.5\n"
      .. "SYSTEM_MAX_ITERATION_INTERVAL=60.000001\nSYSTEM_MIN_ACT_DURATION=\t+2e0min\n"
      .. ("x"):rep(1023) .. "SYSTEM_RECOVERY_FACTOR=.3\nSYSTEM_RECOVERY_FACTOR=inf\n"
      .. "SYSTEM_UNLOAD_DRIVER=1\0009\nSYSTEM_MIN_FREE_MEM_PCT=nan",
      { SYS_THR_RUNQ = 16, SYS_THR_FREE_MEM = 5.5, SYS_THR_MAX_ITERATION_INVL = 60,
        SYS_CONF_MIN_ACT_DURATION = 2, SYS_CONF_UNLOAD_DRIVER = 1 },
      { "line 5: SYSTEM_RECOVERY_FACTOR: 0.3[^\n]* counts as 0\n", "line 6: [^\n]* inf is out",
        "line 8: SYSTEM_MIN_FREE_MEM_PCT nan is out of bounds" } },
    { "", "# remark\nSYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=9\n\n"
      .. "SYSTEM_RUNQ_PCT_THRESHOLD=250\nSYSTEM_MIN_ACT_DURATION=0\nSYSTEM_MIN_ACT_DURATION=-\n"
      .. ' system_runq_pct_threshold =8\nSYSTEM_RUNQ=8\nSYS_THR_FREE_MEM=2\n{"SYS_THR_RUNQ": 8}\n'
      .. ("x=1\n"):rep(100), { SYS_THR_RUNQ = 9, SYS_THR_FREE_MEM = false },
      { "^vxa: warning: /etc/vx_filter.conf: line 5: SYSTEM_RUNQ_PCT_THRESHOLD 250 is out",
        "line 6: SYSTEM_MIN_ACT_DURATION 0 is out", "line 7: .* has no number; the line is",
        "line 8: SYSTEM_RUNQ_PCT_THRESHOLD= must start the",
        "line 9: 'SYSTEM_RUNQ' is not .* 'SYSTEM_RUNQ_PCT_THRESHOLD'%?",
        "line 10: 'SYS_THR_FREE_MEM' is not .* 'SYSTEM_MIN_FREE_MEM_PCT'%?",
        "line 11: JSON is for %-%-policy; this file has lines NAME=", "and 87 more\n" } },
    { "--port 443", false, { SYS_CONF_CONN_REFUSAL_PORT = 443, SYS_THR_CONN_REFUSAL_PCT = 50,
      SYS_THR_CONN_EST_PER_CPU = 5000, SYS_THR_RUNQ = 200 }, {} },
    { "--port 443", "SYSTEM_MIN_FREE_MEM_PCT=0.3\nSYSTEM_UNLOAD_DRIVER=1\n",
      { SYS_THR_FREE_MEM = 0.30000001192093, SYS_THR_RUNQ = false }, {} },
    { "--port 443 --policy outbound.json", false, { SYS_CONF_CONN_REFUSAL_PORT = 443,
      SYS_CONF_CONN_REFUSAL_OUTBOUND = 0, SYS_THR_CONN_REFUSAL_PCT = 50 }, {} },
    { "--port 443 --policy portless.json --outbound", false, { SYS_CONF_CONN_REFUSAL_OUTBOUND = 1,
      SYS_THR_CONN_REFUSAL_PCT = 10, SYS_THR_CONN_EST_PER_CPU = false }, {} },
}

shell("rm -r " .. MACHINE .. "/var/opt/vx_agent")
for _, row in ipairs(configured) do
    if row[2] then write(CONF, row[2]) end
    local out, _, err = vxa("run --json --cycles 1 " .. row[1], "VXI_SIM=cpus=256")
    os.remove(CONF)
    local start = records_of(out)[1]
    local logged = health_policy.check(testing.read(MACHINE
        .. "/var/opt/vx_agent/diag/vx_filter_json.log"))
    for key, value in pairs(logged) do logged[key] = tonumber(("%.14g"):format(value)) end
    testing.equal(logged, start.settings, "settings of " .. row[1])
    for key, value in pairs(row[3]) do testing.equal(logged[key] or false, value, key) end
    match_in_order(err, #row[4] > 0 and row[4] or { "^$" }, "warnings")
end

shell("mkfifo " .. CONF)
matches(select(3, vxa("run --cycles 1")), "^vxa: configuration /etc/vx_filter.conf: not a regular")
os.remove(CONF)

-- That the settings cannot be logged is reported once.
shell(("cd %s/var/opt; rm -rf vx_agent && touch vx_agent"):format(MACHINE))
matches(select(3, vxa("run --cycles 3 --interval 0.01")),
    "^vxa: Failed to output cloud config %([^\n]*\n$", "no log")
shell(("rm -f %s/var/opt/vx_agent"):format(MACHINE))

-- ---- signals ----------------------------------------------------------------------------

-- A shell would start a job in the background with SIGINT ignored; timeout does not.
for signal, ended in pairs { INT = 130, TERM = 143 } do
    for hundredths = 1, 6 do
        local _, status = shell(("cd %s && VXI_ENGINE=sim "
            .. "timeout --preserve-status -s %s 0.0%d %s/bin/vxa status >out 2>err; exit $?")
            :format(SCRATCH, signal, hundredths, ROOT))
        testing.equal(testing.read(SCRATCH .. "/err"), "", signal .. " standard error")
        testing.equal(status == 0 and ended or status, ended, signal .. " status")
    end
end

-- Runs a command of the shell once the first cycle is out, in the middle of the wait.
local function during_a_run(command)
    return shell(([[cd %s; : >out; cp runq.json changing.json
        VXI_ENGINE=sim %s/bin/vxa run --policy changing.json --interval 40 >out 2>&1 & pid=$!
        wait_for() {
            n=0; until grep -q "$1" out || [ $n -ge 400 ]; do sleep 0.05; n=$((n + 1)); done
        }
        wait_for normal
        %s; wait $pid; echo "status $?"; cat out]]):format(SCRATCH, ROOT, command))
end

matches(during_a_run "kill -INT $pid", "^status 0\n.*\n1 cycle in [^\n]*; ended enforcing\n$")

-- SIGHUP reloads the policy, and a fault in the new one keeps the old.
match_in_order(during_a_run [[cp mistyped.json changing.json; kill -HUP $pid; wait_for stays
    cp instant.json changing.json; kill -HUP $pid; wait_for reloaded; kill -TERM $pid]],
    { "^status 0\n", "vxa: policy changing.json: .*; the current policy stays in force",
      "\nvxa: warning: port 80, inbound, stays monitored until vxa is restarted\n",
      "\npolicy reloaded: changing.json\n", "\n1 cycle in " }, "reloading")

testing.finish()
