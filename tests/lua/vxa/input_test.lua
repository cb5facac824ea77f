-- Input from anywhere: policies, strings for a terminal, rule profiles.

local health_policy = require "health_policy"
local printable = require "vxa.output.printable"
local rule_profile = require "vxa.rules.profile"
local testing = require "testing"
local vxa = require "vxa"

local equal, matches = testing.equal, testing.matches

-- ---- policies -----------------------------------------------------------------------------

-- Policy, settings in force (false: refused), pattern of warnings or of the error, lenient reading.
for _, row in ipairs {
    { '{"sys_thr_\\u0072unq": {"VALUE": 8}, "a": [1, {}, []]}', { SYS_THR_RUNQ = 8 }, "^'a' is" },
    { '{"SYS_THR_RUNQ": {"value": 0}}', {}, "^SYS_THR_RUNQ: 0 is out of bounds %(above 0 to" },
    { '{"SYS_CONF_MIN_ACT_DURATION": 0, "SYS_CONF_UNLOAD_DRIVER": 0.9}',
      { SYS_CONF_MIN_ACT_DURATION = 0, SYS_CONF_UNLOAD_DRIVER = 0 }, ": 0.9 counts as 0$" },
    { '\239\187\191{ "SYS_THR_RUNQ" : {"x": {}, "value": 8, "VALUE": 9} ,"sys_thr_runq":{}}',
      { SYS_THR_RUNQ = 8 }, "value repeated; the first counts\n'sys_thr_runq' is repeated; .*$" },
    { '{"SYS_THR_RUNQUEUE": {"value": 8}, "SYSTEM_UNLOAD_DRIVER": 1, "x": 1}', {},
      "^'SYS_THR_RUNQUEUE' is not a setting; it is ignored %(did you mean 'SYS_THR_RUNQ'%?%)\n"
      .. "'SYSTEM_UNLOAD_DRIVER' .* 'SYS_CONF_UNLOAD_DRIVER'%?%)\n'x' is not .* ignored$" },
    { "{" .. ('"x": 1, '):rep(100) .. '"x": 1}', {}, "it is ignored\nand 81 more$" },
    -- Members of the wrong type.
    { '{"SYS_THR_RUNQ": {"value": "8"}}', false, 'must be {"value": 8}, not {"value": "8"}$' },
    { '{"SYS_THR_RUNQ": {}}', false, 'must be {"value": NUMBER}, not an object without "value"$' },
    { '{"SYS_THR_RUNQ": {"value": {}}}', {}, ', not {"value": an object}; it is ignored$', true },
    { '{"SYS_CONF_MIN_ACT_DURATION": "30"}', { SYS_CONF_MIN_ACT_DURATION = 0 },
      'must be 30, not "30"; it counts as 0$', true },
    { '{"SYS_CONF_MIN_ACT_DURATION": {"value": 30}}', false, 'must be 30, not {"value": 30}$' },
    { '{"SYS_CONF_UNLOAD_DRIVER": true, "SYS_THR_RUNQ": 1}', false, ", not true %(and 1 more%)$" },
    -- Not JSON.
    { "[]", false, "^line 1, column 1: a policy is a JSON object" },
    { '{\n  "ä": 1,\n}', false, "^line 2, column 9: a comma before '}'" },
    { '{"a": 1 // one\n}', false, "^line 1, column 9: JSON has no comments" },
    { "# file\n\nSYSTEM_RUNQ_PCT_THRESHOLD=8\n", false, "^line 3, column 1: a policy is JSON" },
    { '{"a": 1 "b": 2}', false, "column 9: unexpected '\"': ',' or '}' expected" },
    { '{"a": 1} x', false, "column 10: unexpected 'x' after the end" },
    { '{"a": "x}', false, "column 7: the string that begins here has no end" },
    { '{"a": "\\ud800"}', false, "column 8: half of a surrogate pair" },
    { '{"a": "\\u0000"}', false, "column 8: NUL" },
    { '{"a": "\1"}', false, "column 8: control character" },
    { "{}\0", false, "column 3: unexpected byte 0x00" },
    { '{"a": 01}', false, "column 7: '01' is not a number in JSON" },
    { '{"a": 1.}', false, "column 7: '1.' is not a number in JSON" },
    { '{"a": ' .. ("1"):rep(64) .. "}", false, "column 7: a number of more than 63" },
    { '{"a": ' .. ("["):rep(1000) .. ("]"):rep(1000) .. "}", false, "column 1006: nested" },
} do
    local settings, report = health_policy.check(row[1], row[4])
    equal(settings or false, row[2], row[1])
    matches(type(report) == "table" and table.concat(report, "\n") or report, row[3], row[1])
end

-- ---- strings for a terminal ---------------------------------------------------------------

-- Also a C1 control, a change of direction, overlong forms, a surrogate, and half characters.
equal(printable("ü\240\159\153\130\27\127\194\155\226\128\174\193\129\224\128\129\237\160\128\244"
    .. "\144\128\128\128\195\188\255\195"), "ü\240\159\153\130\\x1b\\x7f\\xc2\\x9b\\xe2\\x80\\xae"
    .. "\\xc1\\x81\\xe0\\x80\\x81\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80\\x80ü\\xff\\xc3", "printable")
equal(printable("a\n\tb\r\n", true), "a\n\tb\\x0d\n", "lines")

-- ---- rule profiles ------------------------------------------------------------------------

-- A listing of a table, a chain and a rule of these expressions, and further objects.
local function listing(expressions, objects)
    return [==[{"nftables": [{"metainfo": {}}, {"table": {"family": "ip", "name": "t"}}, {"chain":
        {"family": "ip", "table": "t", "name": "c", "type": "filter", "hook": "input", "prio": -5}},
        {"rule": {"family": "ip", "table": "t", "chain": "c", "handle": 4, "comment": "x",
                  "expr": []==] .. expressions .. "]}}" .. (objects or "") .. "]}"
end

local COUNTED = '{"counter": {"packets": 12, "bytes": 345}}, {"accept": null}'

-- Expressions, further objects, pattern of what is shown.
for _, row in ipairs {
    { [==[{"match": {"op": "==", "left": {"payload": {"protocol": "tcp", "field": "dport"}},
        "right": {"set": [22, {"range": [80, 90]}]}}}, {"counter": {"packets": 1, "bytes": 2}},
        {"match": {"op": "!=", "left": {"ct": {"key": "state"}}, "right": ["new", "invalid"]}},
        {"match": {"op": "==", "left": {"&": [{"payload": {"base": "th", "offset": 104, "len": 8}},
        ["syn", "ack"]]}, "right": {"prefix": {"addr": "::", "len": 8}}}}, {"counter": "named"},
        {"vmap": {"key": {"meta": {"key": "iifname"}}, "data": {"set": [["lo", {"accept": null}],
        ["eth0", {"jump": {"target": "x"}}]]}}}, {"xt": {"type": "a"}},
        {"snat": {"addr": "10.1.1.1", "port": 80}}, {"log": {"prefix": "a\u001b"}}]==], "",
      "        1      2  tcp dport { 22, 80%-90 } ct state != new,invalid @th,104,8 & %(syn | ack%)"
      .. " == ::/8 counter name named meta iifname vmap { lo : accept, eth0 : jump x } "
      .. 'xt {"type":"a"} snat to 10.1.1.1:80 log prefix "a\\x1b" comment "x"$' },
    { [==[{"match": {"op": [], "left": {"meta": {"key": {}}}, "right": {"set": {}}}}, "text", 5, {},
        {"limit": {"rate": {"range": {"a": [1]}}}}, {"log": {"prefix": []}}, [], {"match": 5},
        {"jump": {"target": null}}, {"counter": null}, {"vmap": {}}]==], "",
      '  meta {} %[%] { {} } limit rate {"a":%[1%]}/%? log prefix "%[%]" match 5 jump null vmap ' },
    { COUNTED, ', {"rule": {"family": "ip", "table": "t", "chain": "c", "handle": 5}}, {"set": {}}',
      "^1 table, 1 chain, 2 rules, 1 set; profiling was off\nhandle  packets  bytes  rule\n"
      .. "ip t c %(filter hook input, priority %-5, policy accept%)\n"
      .. '     4       12    345  accept comment "x"\n     5        %-      %-$' },
    { COUNTED, ', {"profile": {"milliseconds": 1500, "rules": [{"family": "ip", '
      .. '"table": "t", "chain": "c", "handle": 4, "packets": 7, "bytes": 99}]}}',
      "profiled for 1.5 s [^\n]*\nhandle  packets  bytes  %+packets  %+bytes  rule\nip [^\n]*"
      .. "\n     4       12    345         7      99  accept" },
    { COUNTED, ', {"profile": {"ticks": 3, "rules": [{"handle": 4, "packets": 1e300, "bytes": "x"},'
      .. ' 7]}}', "for 3 ticks.*\n     4       12    345 +1e%+300 +%-  accept" },
    { COUNTED, ', {"profile": {"milliseconds": 1e300, "rules": [{"handle": "milliseconds"}, '
      .. '{"handle": {}}, {"handle": "rules", "packets": []}]}}, {"rule": {"handle": "x"}}',
      "profiled for %- ticks.*\n%? %? %?\n +%- [^\n]*%-$" },
    { COUNTED, ', 5, "x", {"rule": 7}, {"counter": {"name": "n", "packets": 3}}',
      "1 rule; .*\npackets  bytes  named counter\n      3      %-  %? %? n$" },
} do
    matches(rule_profile.render(vxa, listing(row[1], row[2])), row[3], row[1])
end
for _, text in ipairs { "[1]", '{"nftables": 7}', listing("", ", {]"), listing "" .. "x" } do
    equal(rule_profile.render(vxa, text), nil, text)
end

testing.finish()
