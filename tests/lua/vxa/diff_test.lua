-- vxa diff: finds what was planted between two packages of the simulated machine, and nothing else.

local json = require "dkjson"
local scratch = require "scratch"
local testing = require "testing"
local vxa = require "vxa"

local equal, matches = testing.equal, testing.matches
local run, SCRATCH = scratch.vxa, scratch.path

-- ---- packages -----------------------------------------------------------------------------

run "diag plain.zip"
local ENTRIES = { "vxa_stats.txt", "vxa_variables.txt", "vxa_conn_track.txt", "vxa_blacklist.txt",
                  "vxa.tpf" }
local plain = {}
for _, name in ipairs(ENTRIES) do
    plain[name] = assert(vxa.zip_read(SCRATCH .. "plain.zip", name))
end
plain["vxa_conn_states.txt"] = "# sockets: simulated machine at tick 5 (engine sim), 2 in all\n"
    .. "tcp4 ESTABLISHED 1\ntcp4 LISTEN 1\nudp6 0\n"
plain["vxa.tpf"] = plain["vxa.tpf"]:gsub('"handle": 2}', '"handle": 2, "policy": "accept"}')
    :gsub(', {"rule"', ', {"set": {"family": "inet", "table": "filter", "name": "s", "type": '
        .. '"ipv4_addr", "handle": 99, "elem": ["192.0.2.1", {"elem": {"val": "192.0.2.2", '
        .. '"expires": 9}}]}}%0', 1)
plain["state/transitions.jsonl"] = ('{"causes":"%s"}\n'):format(("x"):rep(2000))
plain["manifest.json"] = [[{"manifest": 1, "version": "1.0.0", "engine": "sim", "unknown": [],
    "start": "2026-11-22T05:06:00.000+01:00", "end": "2026-11-22T05:06:37.500+01:00",
    "host": {"name": "web1"}, "policy": {"source": "p.json", "settings": {"SYS_THR_RUNQ": 8}},
    "capabilities": [{"name": "conntrack", "available": true, "detail": "5 flows"}],
    "entries": [{"name": "vxa_stats.txt", "state": "ok", "reason": null}]}]]

-- Writes a package with these entries and, where it has none of that name, the plain ones; false
-- leaves an entry out.
local function write_package(file, entries)
    local archive, names = assert(vxa.ZipOutputStream(SCRATCH .. file)), {}
    for name, text in pairs(plain) do
        if entries[name] == nil then entries[name] = text end
    end
    for name in pairs(entries) do names[#names + 1] = name end
    table.sort(names)
    for _, name in ipairs(names) do
        if entries[name] then assert(archive:add(name, entries[name])) end
    end
    assert(archive:close())
end

-- Returns the entries after replacements, rows of {entry, plain string, replacement}.
local function edit(rows)
    local edited = {}
    for _, row in ipairs(rows) do
        local text = edited[row[1]] or plain[row[1]]
        local from, to = text:find(row[2], 1, true)
        assert(from, row[2])
        edited[row[1]] = text:sub(1, from - 1) .. row[3] .. text:sub(to + 1)
    end
    return edited
end

-- ---- what is planted is found --------------------------------------------------------------

local function line(name, number)
    local at = 0
    for each in plain[name]:gmatch("[^\n]+\n") do
        at = at + 1
        if at == number then return each end
    end
end

-- A rule as in the listing. Its port is its handle - 2.
local function rule(handle)
    return plain["vxa.tpf"]:match((', {"rule": {[^{]*"handle": %d, .-null}%%]}}'):format(handle))
end

local function replaced_rule(handle, from, to)
    return (rule(handle):gsub(from, to))
end

local connections = {}
for number = 45, 47 do connections[number] = line("vxa_conn_track.txt", number) end

local function endpoints(number)
    return connections[number]:match("^tcp %S+ > %S+")
end

local address = line("vxa_blacklist.txt", 5):match("^(%S+) set 0\n$")
local FLOW = "tcp 198.51.100.7:5000 > 10.0.0.1:22"

-- Rows of {entry, in the plain package, in the newer one, what is found, in the older one}.
local planted = {
    { "vxa_stats.txt", "Ip.InReceives 0", "Ip.InReceives 1500",
      "changed counter Ip.InReceives 500 1500 1000 1.67", "Ip.InReceives 500" },
    { "vxa_stats.txt", "Ip.OutRequests 0", "Ip.OutRequests 20",
      "restarted counter Ip.OutRequests 500 20", "Ip.OutRequests 500" },
    { "vxa_stats.txt", "Tcp.EstabResets 0", "Tcp.EstabResets 9007199254740995",
      "changed counter Tcp.EstabResets 9007199254740994 9007199254740995 1 0.00",
      "Tcp.EstabResets 9007199254740994" },
    { "vxa_stats.txt", "UDP.inuse 40", "UDP.inuse 30", "changed gauge UDP.inuse 40 30 -10" },
    { "vxa_stats.txt", "eth0.tx_packets 0\n", "", "vanished counter eth0.tx_packets 0" },
    { "vxa_stats.txt", "softnet.p", "eth1.ifindex 3\nsoftnet.p", "appeared gauge eth1.ifindex 3" },
    { "vxa_variables.txt", "nf_conntrack_acct 1", "nf_conntrack_acct 0",
      "changed variable net.netfilter.nf_conntrack_acct 1 0" },
    { "vxa_variables.txt", "net.core.somaxconn 4096", "net.core.somaxconn absent",
      "vanished variable net.core.somaxconn 4096" },
    { "vxa_conn_track.txt", connections[45], "", "removed connection " .. endpoints(45) },
    { "vxa_conn_track.txt", connections[46], FLOW .. " SYN_RECV 60s 1/60 0/0\n" .. connections[46],
      "added connection " .. FLOW },
    { "vxa_conn_track.txt", connections[47], connections[47]:gsub(" %u[%u_]+ ", " CLOSE "),
      "changed connection " .. endpoints(47) },
    { "vxa_blacklist.txt", line("vxa_blacklist.txt", 5), "",
      "removed address " .. address .. " in set 0" },
    { "vxa_blacklist.txt", "2001:db8::500 set 1", "2001:db8::501 set 1 expires 3s of 60s\n"
      .. "2001:db8::500 set 1", "added address 2001:db8::501 in set 1" },
    { "vxa_conn_states.txt", "tcp4 LISTEN 1", "tcp4 LISTEN 2",
      "changed sockets tcp4 LISTEN 1 2 1" },
    { "vxa.tpf", rule(3) .. rule(4), rule(4) .. rule(3), "reordered chain inet filter input" },
    { "vxa.tpf", rule(6), "", "removed rule inet filter input handle 6: tcp dport 4 accept" },
    { "vxa.tpf", rule(8), rule(8) .. replaced_rule(8, "8,", "800,"),
      "added rule inet filter input handle 800: tcp dport 6 accept" },
    { "vxa.tpf", rule(9), replaced_rule(9, "7}", "8080}"),
      "changed rule inet filter input handle 9 tcp dport 7 accept tcp dport 8080 accept" },
    { "vxa.tpf", rule(10), replaced_rule(10, '"packets": 0', '"packets": 7'),
      "counted rule inet filter input handle 10: tcp dport 8 accept" },
    { "vxa.tpf", '"policy": "accept"', '"policy": "drop"', "changed object chain inet filter input"
      .. " policy=accept policy=drop" },
    { "vxa.tpf", '"192.0.2.1"', '"192.0.2.3"', "added element set inet filter s: 192.0.2.3" },
    { "manifest.json", '"SYS_THR_RUNQ": 8', '"SYS_THR_RUNQ": 9',
      "changed manifest policy.settings.SYS_THR_RUNQ 8 9" },
    { "manifest.json", '"available": true', '"available": false',
      "changed manifest capabilities.conntrack available not available" },
    { "manifest.json", "06:37.500", "16:37.500" },
    { "state/transitions.jsonl", '"}\n', '"}\n{"a":2}\n', 'appeared record {"a":2}' },
}
local expected = { ["removed element set inet filter s: 192.0.2.1"] = true }
local older = {}
for _, row in ipairs(planted) do
    if row[4] then expected[row[4]] = true end
    if row[5] then older[#older + 1] = { row[1], row[2], row[5] } end
end
write_package("older.zip", edit(older))
write_package("newer.zip", edit(planted))

local function describe(change)
    local words = { change.change, change.kind, change.name }
    local is_short = change.kind ~= "connection" and change.kind ~= "address"
        and change.change ~= "counted"
    for _, name in ipairs(is_short and { "older", "newer", "difference" } or {}) do
        local value = change[name]
        if type(value) == "number" then value = ("%.0f"):format(value) end
        words[#words + 1] = value
    end
    if is_short and change.per_second then
        words[#words + 1] = ("%.2f"):format(change.per_second)
    end
    return table.concat(words, " ")
end

local found, records = {}, {}
for each in run("diff --json older.zip newer.zip"):gmatch("[^\n]+") do
    local record = assert(json.decode(each, 1, nil), each)
    if record.record == "change" then found[describe(record)] = true end
    records[#records + 1] = record
end
equal(found, expected, "planted changes")
local first, last = records[1], records[#records]
equal({ first.record, first.seconds, first.newer.host }, { "diff", 600, "web1" }, "first record")
equal({ last.record, last.unchanged }, { "end", {} }, "the last record")

-- A connection's counts are summed; entries of one package only are lost, not removed.
write_package("traffic.zip", edit {
    { "vxa_conn_track.txt", connections[45],
      (connections[45]:gsub("(%d+)/(%d+)", "%1/9%2", 1)) } })
write_package("lost.zip", { ["vxa_blacklist.txt"] = false, ["vxa.tpf"] = "", ["extra"] = "x",
    ["manifest.json"] = plain["manifest.json"]:gsub('"name": "vxa_stats.txt", "state": "ok", '
        .. '"reason": null', '"name": "vxa.tpf", "state": "empty", "reason": "no CAP_NET_ADMIN"'),
    ["vxa_stats.txt"] = plain["vxa_stats.txt"]:gsub("Tcp.CurrEstab", "Tcp\27[2J %0")
        :gsub("\nUDP.inuse 40", "\nUDP.inuse " .. ("4"):rep(21)) .. "cut 1" })
write_package("same.zip", {})
write_package("foreign.zip", { ["manifest.json"] = plain["manifest.json"]:gsub("web1", "web2")
    :gsub("06:37", "06:07") })
local bytes = testing.read(SCRATCH .. "same.zip")
local data = select(2, bytes:find("vxa.tpf", 1, true)) + 100
testing.write(SCRATCH .. "damaged.zip", bytes:sub(1, data - 1)
    .. string.char(255 - bytes:byte(data)) .. bytes:sub(data + 1))
write_package("bare.zip", { ["manifest.json"] = "{}", ["vxa_stats.txt"] = "a 1\n" })
write_package("large.zip", { ["vxa_stats.txt"] = ("x"):rep(2 ^ 26 + 1) })
write_package("many.zip", { ["vxa_variables.txt"] = ("1 a 1\n"):rep(300001) })
-- Time has passed, but the machine stands still.
write_package("later.zip", {
    ["vxa_conn_track.txt"] = plain["vxa_conn_track.txt"]:gsub(" %d+s ", " 7s ")
        :gsub("tick 0", "tick 9"),
    ["vxa_blacklist.txt"] = plain["vxa_blacklist.txt"]:gsub(" %d+s of", " 3s of"),
    ["vxa_stats.txt"] = plain["vxa_stats.txt"]:gsub("sim.tick 0", "sim.tick 9"),
    ["vxa_variables.txt"] = plain["vxa_variables.txt"]:gsub("process_id %d+", "process_id 1"),
    ["vxa.tpf"] = plain["vxa.tpf"]:gsub('"expires": 9', '"expires": 3'):gsub('"handle": (%d+)',
        '"handle": 1%1'), ["diag.log"] = "made later",
    ["manifest.json"] = plain["manifest.json"]:gsub("06:37", "16:37"):gsub("5 flows", "6 flows") })
os.execute(("cd %s; head -c 3000 plain.zip >cut.zip; mkdir folder; mkfifo fifo; echo >file; "
    .. "(cd folder; echo >a; zip -q ../other.zip a)"):format(SCRATCH))
for _, row in ipairs {
    { "same.zip same.zip", 0, "\nno differences\n$" },
    { "same.zip later.zip", 0, "\n +10 min later\n.* unchanged rules have other handles.*"
      .. "\nno differences\n$" },
    { "same.zip damaged.zip", 1, { "\nvxa.tpf [^\n]*: differs; [^\n]*vxa.tpf is damaged\n",
      "\nunchanged: [^\n]*", "vxa: an entry could not be read" } },
    { "bare.zip same.zip", 0, { "bare.zip: its manifest cannot be used: ",
      "time between [^\n]* is unknown" } },
    { "same.zip traffic.zip", 0, "%(connections%): 1 with traffic\n  1 connection transferred %d" },
    { "same.zip lost.zip", 0, {
      "\nvxa.tpf [^\n]*: lost from sight in the newer package: empty: no CAP_NET_ADMIN\n",
      "\nvxa_blacklist.txt [^\n]*: lost from sight in the newer package: missing",
      "\n  note: the newer package: line 7 is damaged: Tcp\\x1b%[2J", "line 11 is damaged: UDP",
      "line 30 is damaged: cut 1", "\n  appeared  extra +1\n" } },
    { "same.zip foreign.zip", 0, { "different hosts: web1 and web2", "order is reversed" } },
    { "same.zip large.zip", 0, "vxa_stats.txt %(counters%): differs; too large to compare" },
    { "same.zip many.zip", 0, "differs; has more than 300000 items [^\n]* in the newer package\n" },
    { "older.zip newer.zip --limit 0", 0, "\n  and 3 more changed\n" },
    { "same.zip cut.zip", 2, "^vxa: [^\n]*zip archive[^\n]*\n$" },
    { "same.zip other.zip", 2, "^vxa: other.zip is not a diagnostic package[^\n]*\n$" },
    { "file same.zip", 2, "^vxa: file: not a zip archive[^\n]*\n$" },
    { "same.zip folder", 2, "^vxa: [^\n]*folder[^\n]*\n$" },
    { "fifo same.zip", 2, "^vxa: fifo: not a regular file\n$" },
    { "same.zip /dev/zero", 2, "^vxa: /dev/zero: not a regular file\n$" },
    { "same.zip", 2, "missing argument 'B.zip'" },
} do
    local text, status = run("diff " .. row[1])
    equal({ status, (text:find("\27", 1, true)) }, { row[2] }, row[1] .. text)
    matches(text, row[3], row[1])
end

-- Two packages of a standing machine.
for _, file in ipairs { "a.zip", "b.zip --profile 0.01 --trace VXI" } do
    run("diag " .. file, "VXI_SIM=seed=7,flows=500")
end
matches(run "diff a.zip b.zip", "\nno differences\n$")

testing.finish()
