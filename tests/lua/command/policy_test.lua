-- Where a policy comes from, what is warned of, and how --port changes it.

local cases = require "cases"
local health_policy = require "health_policy"
local policy = require "command.policy"
local testing = require "testing"
local vxa = require "vxa"

-- Policy, settings in force, pattern of its warnings ("" for none).
local policies = {
    { "{}", {}, "^$" },
    { '{"SYS_THR_RUNQ": {"value": 8}}', { SYS_THR_RUNQ = 8 }, "^$" },
    { '{"sys_thr_\\u0072unq": {"VALUE": 8}, "a": [1, {}, []]}', { SYS_THR_RUNQ = 8 }, "^'a' is" },
    { '{"SYS_THR_RUNQ": {"value": 0}}', {}, "^SYS_THR_RUNQ: 0 is out of bounds %(above 0 to" },
    { '{"SYS_THR_FREE_MEM": {"value": 25.1}}', {}, "^SYS_THR_FREE_MEM: 25.1 is out of bounds" },
    { '{"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_CONF_UNLOAD_DRIVER": 0.9}',
      { SYS_CONF_MIN_ACT_DURATION = 0, SYS_CONF_UNLOAD_DRIVER = 0 }, "^SYS[^:]*: 0.9 counts as 0$" },
    { '{"SYS_CONF_MIN_ACT_DURATION": -1e0}', {}, "is out of bounds %(0 to 60%)" },
    { '\239\187\191{ "SYS_THR_RUNQ" : {"x": {}, "value": 8, "VALUE": 9} ,"sys_thr_runq":{}}',
      { SYS_THR_RUNQ = 8 }, "^SYS_THR_RUNQ has its value repeated; the first counts\n"
      .. "'sys_thr_runq' is repeated; the first counts$" },
    { '{"SYS_CONF_RECOVER_FACTOR": 300, "SYS_CONF_RECOVER_FACTOR": 3}', {},
      "out of bounds .*\n'SYS_CONF_RECOVER_FACTOR' is repeated" },
    { '{"SYS_THR_RUNQUEUE": {"value": 8}, "SYSTEM_UNLOAD_DRIVER": 1, "x": 1}', {},
      "^'SYS_THR_RUNQUEUE' is not a setting; it is ignored %(did you mean 'SYS_THR_RUNQ'%?%)\n"
      .. "'SYSTEM_UNLOAD_DRIVER' .* 'SYS_CONF_UNLOAD_DRIVER'%?%)\n'x' is not .* ignored$" },
    { "{" .. ('"x": 1, '):rep(100) .. '"x": 1}', {}, "it is ignored\nand 81 more$" },
}

-- Members of the wrong type: what must be there instead, and what the module takes.
local mistyped = {
    { '{"SYS_THR_RUNQ": 16}', '{"value": 16}, not 16' },
    { '{"SYS_THR_RUNQ": "8"}', '{"value": 8}, not "8"' },
    { '{"SYS_THR_RUNQ": {"value": "8"}}', '{"value": 8}, not {"value": "8"}' },
    { '{"SYS_THR_RUNQ": {}}', '{"value": NUMBER}, not an object without "value"' },
    { '{"SYS_THR_RUNQ": null}', '{"value": NUMBER}, not null' },
    { '{"SYS_CONF_MIN_ACT_DURATION": "30"}', '30, not "30"', 0 },
    { '{"SYS_CONF_MIN_ACT_DURATION": {"value": 30}}', '30, not {"value": 30}', 0 },
    { '{"SYS_THR_RUNQ": {"value": {"value": 8}}}', '{"value": NUMBER}, not {"value": an object}' },
    { '{"SYS_CONF_MIN_ACT_DURATION": true}', "a number, not true", 0 },
}

-- What is not JSON, and what is said of it.
local broken = {
    { "", "1, column 1: unexpected end: a value expected" },
    { "[]", "1, column 1: a policy is a JSON object" },
    { '{\n  "ä": 1,\n}', "2, column 9: a comma before '}'" },
    { '{"a": [1,]}', "1, column 9: a comma before ']'" },
    { '{"a": 1 // one\n}', "1, column 9: JSON has no comments" },
    { "# policy\n{}", "1, column 1: JSON has no comments" },
    { "# file\n\nSYSTEM_RUNQ_PCT_THRESHOLD=8\n", "3, column 1: a policy is JSON; NAME=NUMBER is" },
    { '{"a": 1 "b": 2}', "1, column 9: unexpected '\"': ',' or '}' expected" },
    { "{a: 1}", "1, column 2: unexpected 'a': a name in double quotes expected" },
    { '{"a" 1}', "1, column 6: unexpected '1': ':' expected" },
    { '{"a": 1} x', "1, column 10: unexpected 'x' after the end" },
    { '{"a": "x}', "1, column 7: the string that begins here has no end" },
    { '{"a": "\\ud800"}', "1, column 8: half of a surrogate pair" },
    { '{"a": "\\u0000"}', "1, column 8: NUL" },
    { '{"a": "\\x"}', "1, column 8: unknown escape" },
    { '{"a": "\1"}', "1, column 8: control character" },
    { "{}\0", "1, column 3: unexpected byte 0x00" },
    { '{"a": 01}', "1, column 7: unexpected '01'" },
    { '{"a": 1.}', "1, column 7: not a number" },
    { '{"a": nan}', "1, column 7: unexpected 'nan'" },
    { '{"a": ' .. ("["):rep(1000) .. ("]"):rep(1000) .. "}", "1, column 1006: nested too deeply" },
}

for _, row in ipairs(policies) do
    local settings, warnings = health_policy.check(row[1])
    testing.equal(settings, row[2], row[1])
    cases.matches(table.concat(warnings, "\n"), row[3], row[1])
end

for _, row in ipairs(mistyped) do
    local text, wanted, number = table.unpack(row, 1, 3)
    local key = text:match("[%u_]+")
    local expected = key .. " must be " .. wanted
    testing.equal({ health_policy.check(text) }, { nil, expected }, text)
    local warning = expected .. (number and "; it counts as 0" or "; it is ignored")
    testing.equal({ health_policy.check(text, true) }, { { [key] = number }, { warning } }, text)
end

for _, row in ipairs(broken) do
    local settings, fault = health_policy.check(row[1])
    testing.equal({ settings, fault:sub(1, #row[2] + 5) }, { nil, "line " .. row[2] }, row[1])
end

-- ---- where it comes from ----------------------------------------------------------------

local function choose(options, conf)
    policy.CONF_PATH = conf and os.tmpname() or "/nonexistent/vx_filter.conf"
    if conf then testing.write(policy.CONF_PATH, conf) end
    local chosen = policy.choose(options, vxa, function() return options.cpus or 2 end)
    os.remove(policy.CONF_PATH)
    return chosen
end

-- Configuration file, settings in force, pattern of its warnings.
local files = {
    { "SYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=9\n", { SYS_THR_RUNQ = 9 }, "^$" },
    { "# remark\n\nSYSTEM_RUNQ_PCT_THRESHOLD= 1.5e1x", { SYS_THR_RUNQ = 15 }, "^$" },
    { "SYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=250\n", { SYS_THR_RUNQ = 8 },
      "^line 2: SYSTEM_RUNQ_PCT_THRESHOLD 250 is out of bounds %(above 0 to 200%)" },
    { ("x"):rep(1023) .. "SYSTEM_MIN_ACT_DURATION=0\n\nSYSTEM_MIN_ACT_DURATION=-", {},
      "^line 1: SYSTEM_MIN_ACT_DURATION 0 is out .*\nline 3: .* has no number; the line is" },
    { " system_runq_pct_threshold =8\n", {}, "^line 1: SYSTEM_RUNQ_PCT_THRESHOLD= must begin the" },
    { "SYSTEM_RUNQ=8\nSYS_THR_FREE_MEM=2", {},
      "^line 1: 'SYSTEM_RUNQ' is not .* 'SYSTEM_RUNQ_PCT_THRESHOLD'%?"
      .. ".*\nline 2: 'SYS_THR_FREE_MEM' is not .* 'SYSTEM_MIN_FREE_MEM_PCT'%?" },
    { '{"SYS_THR_RUNQ": 8}', {}, "^line 1: JSON is for %-%-policy; this file has lines NAME=" },
    { ("x=1\n"):rep(100), {}, "\nand 80 more$" },
}

for _, row in ipairs(files) do
    local chosen = choose({}, row[1])
    testing.equal({ chosen.values, chosen.text }, { row[2], "" }, row[1])
    cases.matches(table.concat(chosen.warnings, "\n"), row[3], row[1])
end

-- With --port: the policy or file that it goes on top of, direction, and settings in force
-- (false: absent). They are also what the module finds in the text.
local ports = {
    { nil, nil, false, { SYS_CONF_CONN_REFUSAL_OUTBOUND = 0, SYS_THR_CONN_REFUSAL_PCT = 50,
                         SYS_THR_RUNQ = 8 } },
    { nil, "# nothing set\n", true, { SYS_THR_CONN_EST_PER_CPU = 5000, SYS_THR_RUNQ = false } },
    { nil, "SYSTEM_MIN_FREE_MEM_PCT=0.3\nSYSTEM_UNLOAD_DRIVER=1\n", false,
      { SYS_THR_FREE_MEM = 0.30000001192092896, SYS_CONF_UNLOAD_DRIVER = 1, SYS_THR_RUNQ = false },
    },
    { "{ }", nil, true, { SYS_CONF_CONN_REFUSAL_OUTBOUND = 1, SYS_THR_CONN_EST_PER_CPU = 5000 } },
    { '\n{"SYS_CONF_CONN_REFUSAL_PORT": 80, "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1}', nil, false,
      { SYS_CONF_CONN_REFUSAL_OUTBOUND = 0, SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU = 500 } },
    { '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 7}, "SYS_THR_FREE_MEM": {"value": 2}}', nil, false,
      { SYS_THR_CONN_REFUSAL_PCT = 7, SYS_THR_FREE_MEM = 2, SYS_THR_CONN_EST_PER_CPU = false } },
}

for i, row in ipairs(ports) do
    local text, conf, outbound, expected = table.unpack(row, 1, 4)
    local path = text and os.tmpname()
    if path then testing.write(path, text) end
    local chosen = choose({ policy = path, port = 443, outbound = outbound }, conf)
    if path then os.remove(path) end
    testing.equal(health_policy.check(chosen.text), chosen.values, "settings in text " .. i)
    expected.SYS_CONF_CONN_REFUSAL_PORT = 443
    for key, value in pairs(expected) do
        testing.equal(chosen.values[key] or false, value, key .. " " .. i)
    end
end

-- Processors, and the default's run-queue threshold.
for cpus, threshold in pairs { [0] = 4, [1] = 4, [8] = 32, [256] = 200 } do
    testing.equal(health_policy.check(choose({ cpus = cpus }).text).SYS_THR_RUNQ, threshold, cpus)
end

testing.finish()
