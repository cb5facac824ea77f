-- vxa check: what it finds in policies and configuration files, and that it reads them exactly as
-- the module does.

local effects = require "vxa.check.effects"
local health_policy = require "health_policy"
local inspection = require "vxa.check.inspection"
local json = require "dkjson"
local testing = require "testing"
local host = require "vxa"
require "fc"

local equal, matches = testing.equal, testing.matches
local ROOT, MACHINE = os.getenv "VXA_ROOT", os.getenv "FAKE_MACHINE"
local CONF, SCRATCH = MACHINE .. "/etc/vx_filter.conf", MACHINE .. "/"
local LOG = MACHINE .. "/var/opt/vx_agent/diag/vx_filter_json.log"
local DISABLED = 2

host.capture(true)
host.setenv("FAKE_OUTPUTS", MACHINE)  -- uptime and nproc without processes
local dom = host.Dom()

-- Returns the settings that the module has in force, and whether it monitors.
local function read_by_module(format, text)
    if format == "conf" then testing.write(CONF, text) end
    local result = SLB.filter.CheckSystemHealthMetrics(dom, "Deactivated",
        format == "conf" and "" or text)
    os.remove(CONF)
    local settings = {}
    for key, value in pairs(json.decode(testing.read(LOG))) do
        local number = type(value) == "table" and value.value or value
        settings[key] = health_policy.find(key).threshold and number or math.floor(number)
    end
    return settings, result.action ~= DISABLED
end

local function rounded(settings)  -- the module writes 15 digits
    for key, value in pairs(settings) do settings[key] = ("%.14g"):format(value) end
    return settings
end

-- The findings in one string, and the inspection.
local function found_in(format, text, ...)
    local subject = inspection.of_text(host, text, format, "f")
    if subject.readable then effects.judge(subject, ...) end
    local lines = {}
    for i, finding in ipairs(subject.findings) do
        lines[i] = ("%s:%s %s %s | %s%s%s %s"):format(finding.line or "-", finding.column or "-",
            finding.severity, finding.key or "-", finding.message, finding.effect, finding.hint,
            finding.suggestion or "")
    end
    return table.concat(lines, "\n"), subject
end

-- ---- every text is read as the module reads it --------------------------------------------

local RUNQ, PCT = "SYSTEM_RUNQ_PCT_THRESHOLD", "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD"
local T = '"SYS_THR_RUNQ"'

-- What is written for a value in a configuration file, pattern of what is found.
local VALUES = {
    { "8", "^$" }, { " +8e0\t\r", "^$" }, { ".5", "^$" }, { "8.", "^$" },
    { "200.000001", "1:27 warning SYS.* '200.000001' is read as 200the module.* single" },
    { "200.1", "| 200.1 is out of bounds %(above 0 to 200%); the line is ignored" },
    { "0", "0 is out .*to switch a setting off" }, { "-1", "a value is not negative" },
    { "inf", "inf is out.*infinite" }, { "nan", "'nan' is not a value" },
    { "1e39", "too large: " }, { "1e-60", "too small: " }, { "0x", "digits after 0x" },
    { "0x10", "warning .* '0x10' is hexadecimal, 16" },
    { "5.5.5", "error .* '5.5.5' is read as 5.5the rest of the line" },
    { "5,5", "'5,5' is read as 5the decimal mark is" }, { "0,5", "0 is out.*the decimal mark is" },
    { "1,000", "read as 1numbers have no sep" }, { "10 000", "no separators" },
    { "8 # text", "warning .*comments on lines of" }, { "50%", "warning .*units are not" },
    { "5min", "warning .*units are not" }, { "8;" .. PCT .. "=5", "each setting has its own" },
    { "", "1:27 error .* has no number; the line is ignoredthe val" }, { "=8", "one '='" },
    { '"8"', "without quotes" }, { "yes", "write 1" },
    { "high", "'high' is not a number; allowed: above 0 to 200" },
    { "off", "leave the line out" }, { "\194\1608", "outside ASCII in front of the number" },
    { '{"value": 8}', "JSON is for policies" }, { "$N", "no variables" }, { ">8", "number alone" },
    { "8\0009", "NUL byte; the module does not" }, { (" "):rep(1000) .. "8", "value is missing" },
}

-- Format, text, pattern of what is found.
local TEXTS = {
    { "conf", "# only\n; comments\n//\n\n", "^%-:%- warning %- | there are no settings[^\n]*$" },
    { "conf", RUNQ .. "=8\n" .. RUNQ .. "=9\n", "^2:1 error .* is set again; 8 of line 1 no" },
    { "conf", RUNQ .. "=8\n" .. RUNQ .. "=900", "^2:27 error .* 900 is out" },
    { "conf", " " .. RUNQ .. "=8\n", "^1:2 .*must start .*there are blanks in front of it" },
    { "conf", RUNQ .. " = 8\n", "there are blanks in front of '='" },
    { "conf", RUNQ:lower() .. "=8\n", "it has small letters" },
    { "conf", "SYS_THR_RUNQ=8", "it is ignoredthat is its name in a policy " },
    { "conf", "SYSTEM_RUNQ_PCT_TRESHOLD=8", "| is not a setting; [^\n]* " .. RUNQ .. "\n" },
    { "conf", "export " .. RUNQ .. "=8", "leave out 'export'" },
    { "conf", "set " .. RUNQ .. "=8", "leave out 'set'" },
    { "conf", RUNQ .. ": 8", "error " .. RUNQ .. " | write '=', not ':'" },
    { "conf", RUNQ .. " 8", "there is no '=' after it" },
    { "conf", "[filter]\n<x>\nhello", "sections.*XML.*warning %- | the line is neither" },
    { "conf", "SYSTEM\226\128\145X=8", "outside ASCII in front of '='" },
    { "conf", "\239\187\191" .. RUNQ .. "=8", "byte order mark is in front" },
    { "conf", ("x\n"):rep(300) .. "X=8", "\n301:1 error X |" },
    { "conf", "\239\187\191# x\n" .. RUNQ .. "=8", "^$" },
    { "conf", "\0" .. RUNQ .. "=8", "a NUL byte begins the line" },
    { "conf", RUNQ .. "=8\r" .. PCT .. "=5\r", "carriage returns alone" },
    { "conf", ("S\0=\0\n\0"):rep(9), "^1:1 error %- | the text is UTF%-16[^\n]*\n%-[^\n]*$" },
    { "conf", ("x"):rep(1023) .. RUNQ .. "=8", "more than 1023.*1:1024 .*pieces of 1023" },
    { "conf", T .. ": 8", "JSON is for %-%-policy" },
    { "conf", PCT .. "=5\n" .. RUNQ .. "=8", "^1:1 error .* needs a port %(SYSTEM_CONNECTION_" },
    { "conf", "SYSTEM_MIN_ACT_DURATION=1.5", "1.5 counts as 1\n?" },
    { "policy", "{}", "^[^\n]* there are no settings[^\n]*$" },
    { "policy", "[]", "^1:1 error %- | a policy is a JSON object: {...}; the module ignores" },
    { "policy", "{" .. T .. ":{\"value\":8}} # x", "1:30 error .* '#' after the end; the module" },
    { "policy", "{" .. T .. ":{\"value\":8}}\0", "1:29 error .* NUL byte: the text ends here" },
    { "policy", "{" .. T .. ":{\"value\":08}}", "'08' is not a number in JSON; the module acc" },
    { "policy", "{" .. T .. ":{\"value\":8.}}", "'8.' is not a number in" },
    { "policy", "{" .. T .. ":{\"value\":-.5}}", "'%-.5' is not a .*a value is not negative" },
    { "policy", "{" .. T .. ":{\"value\":8" .. ("0"):rep(64) .. "}}", "more than 63 characters" },
    { "policy", "{\12" .. T .. ":{\"value\":8}}", "1:2 .*control character between values" },
    { "policy", "{" .. T .. ":{\"val\tue\":8}}", "control character in a string" },
    { "policy", "{" .. T .. ":{\"x\ny\":1,\"value\":8}}", "line break in a string" },
    { "policy", "{" .. T .. ":{\"value\\u0000\":8}}", "NUL characters are not" },
    { "policy", "{" .. T .. ":{\"value\\u00zz\":8}}", "unknown escape; the module accepts" },
    { "policy", "{\"\\u123\\\\\":1," .. T .. ":{\"value\":8}}", "unknown escape; the module" },
    { "policy", "{" .. T .. ":{\"value\":8},}", "1:28 error .* a comma before '}'; the modu" },
    { "policy", "{'a':1}", "double quotes, not single" }, { "policy", "{a:1}", "1:2 .*a name in" },
    { "policy", "{\"a\":1 /* */}", "no comments" }, { "policy", "{\226\128\156a:1}", "straight" },
    { "policy", "{\"a\":+5}", "has no '%+'" }, { "policy", "{\"a\":.5}", "digit before the poi" },
    { "policy", "{\"a\":NaN}", "no NaN" }, { "policy", "{\"a\":-Infinity}", "no infinity" },
    { "policy", "{\"a\":True}", "writes true" }, { "policy", "{\"a\":FALSE}", "writes false" },
    { "policy", "{\"a\":None}", "writes null" }, { "policy", "{\"a\":0x10}", "hexadecimal" },
    { "policy", "{\"a\":5.5.5}", "'5.5.5' is not a number;" }, { "policy", "{", "unexpected end" },
    { "policy", "{\"a\":\"\\x\"}", "1:7 .*unknown escape; the module ignores" },
    { "policy", "{\"a\" 1}", "':' expected" }, { "policy", "\255\254{\0}\0", "not UTF%-16" },
    { "policy", "{\"a\":" .. ("["):rep(1000), "nested too deeply" },
    { "policy", RUNQ .. "=8", "NAME=NUMBER is the syntax of" },
    { "policy", "{" .. T .. ":8}", "must be {\"value\": 8}, not 8; it is ignored" },
    { "policy", "{" .. T .. ":{\"valeu\":8}}", "1:18 .*RUNQ.valeu | is not read.* value\n" },
    { "policy", "{" .. T .. ":{\"value\":8,\"value\":9}}", "1:28 .*value repeated; the first" },
    { "policy", "{" .. T .. ":{\"value\":8},\"sys_thr_runq\":{}}", "1:29 .* is repeated; the" },
    { "policy", "{" .. T .. ":{\"value\":1e999}}", "inf is out of bounds.*infinite" },
    { "policy", "{\"SYS_CONF_CONN_REFUSAL_PORT\":\"443\"}", "must be 443, not \"443\"; it count" },
    { "policy", "{\"SYS_CONF_UNLOAD_DRIVER\":0.9}", "0.9 counts as 0\n?" },
    { "policy", "{\" SYS_THR_RUNQ\":{\"value\":8}}", "blanks belong to the name.* SYS_THR_RUNQ" },
    { "policy", "{\"p\":{" .. T .. ":{\"value\":8}}}", "'SYS_THR_RUNQ' in it belongs to the top" },
    { "policy", "{\"SYS_CONF_CONN_REFUSAL_OUTBOUND\":1}", "has no effect without a port" },
    { "policy", "{\"SYS_CONF_RECOVER_FACTOR\":5}", "is accepted and has no effect.* no thr" },
    { "policy", "{\"SYS_CONF_MIN_ACT_DURATION\":0}", "fail%-open ends at the next cycle" },
    { "policy", "{\"SYS_THR_MAX_ITERATION_INVL\":{\"value\":9}}", "warning .*cycles are 10 s " },
}
for _, row in ipairs(VALUES) do
    table.insert(TEXTS, { "conf", RUNQ .. "=" .. row[1] .. "\n" .. "SYSTEM_MIN_FREE_MEM_PCT=3",
                          row[2] })
end

for _, row in ipairs(TEXTS) do
    local format, text = row[1], row[2]
    local found, subject = found_in(format, text, 10)
    matches(found, row[3], text)
    local settings, monitors = read_by_module(format, text)
    equal(rounded(subject.settings), rounded(settings), text)
    equal(effects.monitors(subject.settings), monitors, text)
end

-- What is not a regular file has no settings.
for _, command in ipairs { "mkdir %s", "mkfifo %s", "ln -s /dev/zero %s" } do
    os.execute(command:format(CONF))
    equal(SLB.filter.CheckSystemHealthMetrics(dom, "Deactivated", "").action, DISABLED, command)
    local subject = inspection.of_file(host, CONF, "conf")
    equal({ subject.readable, subject.settings, subject.findings.error }, { false, {}, 1 }, command)
    os.remove(CONF)
end

-- ---- what this machine can show -----------------------------------------------------------

local POLICY = '{"SYS_THR_RUNQ":{"value":9},"SYS_THR_FREE_MEM":{"value":10},'
    .. '"SYS_CONF_CONN_REFUSAL_PORT":80,"SYS_THR_CONN_REFUSAL_PCT":{"value":%d}}'
-- Percentage of refusals, the machine, what is found.
for _, row in ipairs {
    { 50, { load = 9, cpus = 9, total_kb = 100, free_kb = 10, most_tasks = 10, kept_free_kb = 40 },
      "^$" },
    { 100, {}, "^1:93 warning SYS_THR_CONN_REFUSAL_PCT | a value above 100 %% is rare[^\n]*$" },
    { 50, { most_tasks = 9 }, "^1:2 .*cannot reach 9 runnable" },
    { 50, { load = 9.1 }, "the load is 9.1 now" }, { 50, { cpus = 10 }, "occupy the 10 proc" },
    { 50, { total_kb = 100, free_kb = 9 }, "1:29 .* 9 %% of the memory is free now" },
    { 50, { total_kb = 100, free_kb = 9, huge_pages_kb = 91 }, "always below 10 %%: huge pages" },
    { 50, { total_kb = 100, free_kb = 11, kept_free_kb = 44 }, "hardly falls below 11 %%" },
    { 50, { cannot_count = "why", engine = "e" }, "refusalpct is not judged here: engine .*why " },
} do
    matches(found_in("policy", POLICY:format(row[1]), 10, row[2]), row[3], row[3])
end

host.setenv("FAKE_OUTPUTS", nil)

-- ---- the command --------------------------------------------------------------------------

local function write(name, text) testing.write(SCRATCH .. name, text) end
write("good.json", '{"SYS_THR_RUNQ": {"value": 8}}')
write("warned", "# settings\n" .. RUNQ .. "=8 # text\n")
write("bad", PCT .. "=8\n" .. ("x=1\n"):rep(300))
write("hostile", "{\"\255x\": 1}")
write("archive", "PK\3\4")
write("large", ("#"):rep(1048577))
os.execute(("cd %s; mkfifo fifo; mkdir folder; ln -s none broken"):format(MACHINE))

-- Returns the output and the exit status.
local function vxa(arguments, environment)
    local pipe = io.popen(("cd %s; VXI_ENGINE=sim env %s %s/bin/vxa check %s 2>err"):format(
        MACHINE, environment, ROOT, arguments))
    local output = pipe:read("*a")
    return output, select(3, pipe:close())
end

-- Arguments, exit status, pattern of the output.
for _, row in ipairs {
    { "good.json", 0, "^good.json: policy, 1 valid setting; the module monitors\n0 errors, 0" },
    { "warned", 1, "^warned: conf[^\n]*\nwarned:2:27: warning: " .. RUNQ .. ": '8 # text' is read "
      .. "as 8 %(write [^\n]*\n0 errors, 1 warning\n$" },
    { "bad", 2, { "^bad: conf[^\n]*\nbad:1:1: error: " .. PCT .. ": needs a port", "\nbad:201:1: "
      .. "error: x: is not a setting; it is ignored\nbad: error: and 100 more\n301 errors" } },
    { "good.json --format conf", 2, "good.json:1:1: error: JSON is for %-%-policy" },
    { "warned --format policy --json", 2, '^{"record":"check","monitoring":false,"settings":{},'
      .. '"file":"warned","format":"policy"}\n{"record":"finding","file":"warned","line":2,'
      .. '"column":1,"key":null,"severity":"error","message":"a policy is JSON;'
      .. '[^\n]*","suggestion":null}\n'
      .. '{"record":"end","errors":1,"warnings":0}\n$' },
    { "hostile --json", 2, '"key":"\\\\xffx"' },
    { "fifo", 2, "^fifo: error: is a FIFO, not a file; the module finds no settings in it\n" },
    { "folder", 2, "is a directory" }, { "/dev/zero", 2, "is a device" },
    { "none", 2, "^none: error: cannot be read: No such file or directory\n" },
    { "broken", 2, "No such file" }, { "large", 2, "1048576 bytes; vxa does not read it, the" },
    { "archive", 2, "this is a zip archive, not a policy" },
    { "warned --format xml", 2, "^$" }, { "good.json --port 80", 2, "^$" },
} do
    local output, status = vxa("--elsewhere " .. row[1], "")
    equal(status, row[2], row[1])
    matches(output, row[3], row[1])
end

-- This machine. Arguments, environment, exit status, patterns of the output.
for _, row in ipairs {
    { "", "VXI_SIM=cpus=2", 1, { "^user +user ID 0 .*\nengine +sim: scan%-metrics, ",
      "\nprocessors +2\n", "\nbuilt%-in default: policy, 2 valid settings; the module monitors\n",
      "VXI_ENGINE: 'sim'", "VXI_SIM: 'cpus=2'", "VXA_LIB: '", "LD_PRELOAD: '",
      "\n0 errors, %d warnings\n$" } },
    { "--json", "VXI_SIM=cpus=2", 1, '^{"record":"machine","engine":"sim",.*"cpus":2,.*\n{"record":'
      .. '"check".*"file":"environment","line":null,"column":null,"key":"VXI_ENGINE"' },
    { "", "VXI_SIM=cpus=x", 2, "environment: error: VXI_SIM: VXI_SIM cannot be read at" },
    { "", "VXI_FAULT=vxi_open=-1", 2, "engine sim: error: does not answer: " },
    { "", "VXI_FAULT=vxi_capabilities=7", 1, "0 errors" },
    { "", "VXI_ENGINE=no", 2, "environment: error: VXI_ENGINE: unknown engine 'no'; known eng" },
    { "--engine linux", "PATH=.:$PATH OMP_NUM_THREADS=3", 2, { "OMP_NUM_THREADS: '3' changes",
      "'.' in it is relative", "local/bin/nproc: error: prints no number" } },
    { "--state warned --interval 60", "PATH=/none", 2, { "INVL: cycles are 60 s apart",
      "PATH: no directory in it has uptime", "warned: error: is a file, not a directory" } },
    { "--policy bad --port 80", "env --ignore-signal=HUP", 2, { "bad:1:1: error: a policy is JSON",
      "SIGHUP: is ignored" } },
    { "--policy good.json --port 80", "", 1, "good.json: policy, 6 valid settings" },
} do
    write("nproc.out", "none\n")
    local output, status = vxa(row[1], row[2])
    equal(status, row[3], row[1])
    matches(output, row[4], row[1])
end

testing.write(CONF, RUNQ .. "=x\n")
os.execute("chmod 666 " .. CONF)
matches(vxa("", ""), { "\n/etc/vx_filter.conf:1:27: error: " .. RUNQ .. ": has no number",
    "/etc/vx_filter.conf: warning: every user can change when" })

testing.finish()
