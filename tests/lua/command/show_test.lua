-- What is made of bytes that come from anywhere: texts for a terminal, rule profiles.

local cases = require "cases"
local printable = require "command.printable"
local rule_profile = require "command.rule_profile"
local rule_text = require "command.rule_text"
local json = require "dkjson"
local vxa = require "vxa"

-- Bytes, and what a terminal gets.
local texts = {
    { "plain ~ text", "plain ~ text" },
    { "a\27[31mb\r\n\t\0\127", "a\\x1b[31mb\\x0d\\x0a\\x09\\x00\\x7f" },
    { "für 中 \240\159\153\130", "für 中 \240\159\153\130" },
    { "\194\155c1", "\\xc2\\x9bc1" },  -- C1 control sequence introducer
    { "\226\128\174rtl", "\\xe2\\x80\\xaertl" },
    { "\216\156 \226\129\170 \226\129\175", "\\xd8\\x9c \\xe2\\x81\\xaa \\xe2\\x81\\xaf" },
    { "\193\129 \224\128\129", "\\xc1\\x81 \\xe0\\x80\\x81" },  -- too long for what they mean
    { "\237\160\128", "\\xed\\xa0\\x80" },  -- surrogate
    { "\244\144\128\128", "\\xf4\\x90\\x80\\x80" },
    { "\195", "\\xc3" }, { "\128\195\188\188", "\\x80ü\\xbc" }, { "\255\195\188", "\\xffü" },
}

for _, row in ipairs(texts) do
    cases.case(row[2], function() cases.equal(printable(row[1]), row[2], "shown") end)
end

cases.case("lines", function()
    cases.equal(printable("a\n\tb\r\n", true), "a\n\tb\\x0d\n", "shown")
end)

-- Expressions of a rule as JSON, and its line.
local rules = {
    { [==[{"accept": null}]==], "accept" },
    { [==[{"match": {"op": "==", "left": {"payload": {"protocol": "tcp", "field": "dport"}},
        "right": {"set": [22, {"range": [80, 90]}]}}}, {"counter": {"packets": 1, "bytes": 2}},
        {"drop": null}]==], "tcp dport { 22, 80-90 } drop" },
    { [==[{"match": {"op": "!=", "left": {"ct": {"key": "state"}},
        "right": ["new", "invalid"]}}]==], "ct state != new,invalid" },
    { [==[{"match": {"op": "==", "left": {"&": [{"payload": {"protocol": "tcp", "field": "flags"}},
        ["syn", "ack"]]}, "right": "syn"}}]==], "tcp flags & (syn | ack) == syn" },
    { [==[{"match": {"op": "in", "left": {"payload": {"base": "th", "offset": 104, "len": 8}},
        "right": {"prefix": {"addr": "10.0.0.0", "len": 8}}}}]==], "@th,104,8 10.0.0.0/8" },
    { [==[{"vmap": {"key": {"meta": {"key": "iifname"}}, "data": {"set": [["lo", {"accept": null}],
        ["eth0", {"jump": {"target": "x"}}]]}}}]==],
      "meta iifname vmap { lo : accept, eth0 : jump x }" },
    { [==[{"counter": "named"}, {"goto": {"target": "y"}}]==], "counter name named goto y" },
    { [==[{"snat": {"addr": "10.1.1.1", "port": 80}}, {"masquerade": null}]==],
      "snat to 10.1.1.1:80 masquerade" },
    { [==[{"reject": {"type": "tcp reset"}}, {"log": {"prefix": "a\u001b"}}]==],
      'reject with tcp reset log prefix "a\\x1b"' },
    { [==[{"xt": {"type": "target"}}]==], 'xt {"type":"target"}' },
    { [==[{"match": {"op": [], "left": {"meta": {"key": {}}}, "right": {"set": {}}}}]==],
      "meta {} [] { {} }" },
    { [==[{"limit": {"rate": {"range": {"a": [1]}}}}, {"log": {"prefix": []}},
        {"jump": {"target": null}}]==],
      'limit rate {"a":[1]}/? log prefix "[]" jump null' },
    { [==["text", 5, {}, [], {"match": 5}, {"counter": null}, {"vmap": {}}]==], "match 5 vmap" },
}

for _, row in ipairs(rules) do
    cases.case(row[2], function()
        local rule = json.decode('{"expr": [' .. row[1] .. "]}", 1, json.null)
        cases.equal(rule_text.render(rule), row[2], "line")
    end)
end

local function listing(objects)
    return [==[{"nftables": [{"metainfo": {}}, {"table": {"family": "ip", "name": "t"}},
        {"chain": {"family": "ip", "table": "t", "name": "c", "type": "filter", "hook": "input",
                   "prio": -5, "policy": "drop"}},
        {"rule": {"family": "ip", "table": "t", "chain": "c", "handle": 4, "comment": "x",
                  "expr": [{"counter": {"packets": 12, "bytes": 345}}, {"accept": null}]}},
        {"rule": {"family": "ip", "table": "t", "chain": "c", "handle": 5, "expr": []}}]==]
        .. objects .. "]}"
end

-- Objects that follow, and patterns of the lines.
local profiles = {
    { "", { "^1 table, 1 chain, 2 rules; profiling was off$", "^handle  packets  bytes  rule$",
            "^ip t c %(filter hook input, priority %-5, policy drop%)$",
            '^     4       12    345  accept comment "x"$', "^     5        %-      %-$" } },
    { ', {"set": {}}, {"set": {}}, {"profile": {"milliseconds": 1500, "rules": [{"family": "ip", '
      .. '"table": "t", "chain": "c", "handle": 4, "packets": 7, "bytes": 99}]}}',
      { "^1 table, 1 chain, 2 rules, 2 sets; profiled for 1.5 s", "^handle .*  %+packets  %+bytes",
        "^ip t c", "^     4       12    345         7      99  accept", "^     5 .* %- +%-$" } },
    { ', {"profile": {"ticks": 3, "rules": [{"handle": 5, "packets": 1e300, "bytes": "\\u001b"}, '
      .. '7]}}',
      { "profiled for 3 ticks", "", "", "     4       12    345 +%- +%-  accept", " 1e%+300 " } },
    { ', {"profile": {"milliseconds": 1e300, "rules": [{"handle": "milliseconds"}, {"handle": {}}, '
      .. '{"handle": "rules", "packets": []}]}}, {"rule": {"handle": "milliseconds"}}',
      { "profiled for %- ticks", "", "", "", "", "^%? %? %?$", "^ +%- +%-" } },
    { ', 5, "x", {"rule": 7}, {"counter": {"name": "n", "packets": 3}}',
      { "2 rules; ", "", "", "", "", "packets  bytes  named counter",
        "      3      %-  %? %? n" } },
}

for i, row in ipairs(profiles) do
    cases.case("profile " .. i, function()
        local shown, line = rule_profile.render(vxa, listing(row[1])), 0
        for text in (shown .. "\n"):gmatch("(.-)\n") do
            line = line + 1
            cases.matches(text, row[2][line] or "no such line", "line " .. line)
        end
        cases.equal(line, #row[2], "lines")
    end)
end

cases.case("what is no listing", function()
    for _, payload in ipairs { "[1]", '{"nftables": 7}', listing ", {]", listing("") .. "x" } do
        cases.equal(rule_profile.render(vxa, payload), nil, payload)
    end
end)

cases.finish()
