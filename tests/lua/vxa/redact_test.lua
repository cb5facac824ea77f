-- vxa redact: more than a thousand secrets, planted in every entry of a package, its names, its
-- manifest and its bytes.

local json = require "dkjson"
local scratch = require "scratch"
local testing = require "testing"
local vxa = require "vxa"

local equal, matches = testing.equal, testing.matches
local SCRATCH = scratch.path

-- As the real user, whose files maps must be.
local function command(arguments)
    return scratch.shell("env -u FAKE_MACHINE $VXA_ROOT/bin/vxa " .. arguments)
end

local function read_all(name)
    local texts = {}
    for _, entry in ipairs(assert(vxa.zip_entries(SCRATCH .. name))) do
        texts[entry.name] = assert(vxa.zip_read(SCRATCH .. name, entry.name))
    end
    return texts
end

-- ---- planting -----------------------------------------------------------------------------

math.randomseed(8)
local words, addresses, count = {}, {}, 0

local function below(n) return math.random(0, n - 1) end

local function word()
    count = count + 1
    words[#words + 1] = ("%s%04xq"):format(({ "Bob", "acme", "db-", "z\195\164",
                                              "x_" })[below(5) + 1], count * 31)
    return words[#words]
end

local function add_address(text)
    count = count + 1
    addresses[text] = true
    return text
end

-- Addresses of every class, in every spelling; none is one of the few that are kept.
local function ipv4()
    local first = ({ "10", "172.20", "192.168", "203.0", "8.8", "100.70" })[below(6) + 1]
    while select(2, first:gsub("%.", "")) < 3 do first = first .. "." .. below(200) + 3 end
    return add_address(first)
end

local function ipv6()
    local bytes = {}
    for i = 1, 6 do bytes[i] = ("%x"):format(below(60000) + 4096) end
    local tail = table.concat(bytes, ":")
    return add_address(({ "2001:db8:" .. tail, "fd00:0:" .. tail,
                          ("2A00:%s::%s"):format(bytes[1], bytes[2]):upper(),
                          "fe80::" .. table.concat(bytes, ":", 1, 4) })[below(4) + 1])
end

local function mapped()
    local a, b, c, d = below(200) + 11, below(250) + 3, below(250) + 3, below(250) + 3
    local hex = ("%02x%02x:%02x%02x"):format(a, b, c, d)
    return ({ ("::ffff:%d.%d.%d.%d"):format(a, b, c, d), "::ffff:" .. add_address(hex),
              "0:0:0:0:0:ffff:" .. hex, ("0000:"):rep(5) .. "ffff:" .. hex })[below(4) + 1]
end

local function mac()
    local hex = ("02%010x"):format(below(2 ^ 31) * 64 + 2 ^ 38)
    local form = ({ "%1:%2:%3:%4:%5:%6", "%1-%2-%3-%4-%5-%6", "%1%2.%3%4.%5%6" })[below(3) + 1]
    count = count + 1
    words[#words + 1] = hex:gsub(("(%x%x)"):rep(6), form)
    return words[#words]
end

local makers = { W = word, A = ipv4, S = ipv6, M = mapped, H = mac }

-- Replaces each "$X" with a secret.
local function plant(text)
    return (text:gsub("%$(%u)", function(kind) return makers[kind]() end))
end

local function repeated(times, line)
    local lines = {}
    for i = 1, times do lines[i] = plant(line) end
    return table.concat(lines)
end

local function escaped(text)
    return (text:gsub("%a", function(letter) return ("\\u%04X"):format(letter:byte()) end))
end

local host = plant "$W.$W.example.com"
local manifest = plant [[{"manifest": 1, "host": {"name": "HOST", "kernel": "Linux 6.1.0-$W",
 "$W": "$A $S $M $H"}, "policy": {"source": "/home/$W/p.json", "settings": {"$W": 1},
 "warnings": ["$W"]}, "state": {"directory": "/srv/$W/$W", "fail_open": "$W"},
 "events": [{"id": 1, "text": "$W on $A"}], "failed_calls": [{"call": "vxi_$W", "message": "$W"}],
 "capabilities": [{"name": "$W", "available": true, "detail": "$W $S"}], "user": {"uid": 0,
 "capabilities": ["$W"]}, "unknown": [{"member": "$W", "reason": "$W"}], "entries": [
 {"name": "vxa.tpf", "state": "ok", "reason": "$W", "bytes": 1, "sha256": "00"},
 {"name": "vxa_stats.txt", "state": "incomplete", "reason": "$W at $A"},
 {"name": "$W.txt", "state": "ok"}]}]]
local rules = repeated(40, '{"table": {"family": "inet", "name": "$W"}}, {"set": {"name": "$W",'
    .. ' "elem": ["$A", {"prefix": {"addr": "$S", "len": 127}}, {"range": ["$A", "$A"]}]}},'
    .. ' {"rule": {"table": "$W", "chain": "$W", "comment": "for $W at $A, [$S]:22 $H",'
    .. ' "expr": [{"match": {"left": {"meta": {"key": "iifname"}}, "right": "$W"}},'
    .. ' {"jump": {"target": "$W"}}, {"log": {"prefix": "$W: "}}, {"match": {"right": "@$W"}}]}}, ')
local entries = {
    { "vxa_stats.txt", plant "# statistics: $W (engine sim)\n"
        .. repeated(40, "$W.rx_bytes 5\n$W 1\n") },
    { "vxa_variables.txt", repeated(20, "16 net.$W 1\n$A $W 2\n") },
    { "vxa_conn_track.txt", repeated(80, "tcp $A:47886 > $A:443 ESTABLISHED 60s 1/2 3/4 assured\n"
        .. "udp [$S]:1 > [$M]:2 - 5s - - snat=$A:99\n") },
    { "vxa_blacklist.txt", plant "# set 0: inet $W blacklist$W\n# skipped ip $W $W: $W\n"
        .. repeated(40, "$A-$A set 0\n$S set 1\n$A/32 set 1\n") },
    { "vxa.tpf", '{"nftables": [' .. rules .. '{"metainfo": {}}]}' },
    { "vxa_conn_states.txt", plant "# sockets: $W, $A\ntcp4 ESTABLISHED 84\n" },
    { "state/transitions.jsonl", repeated(20, '{"time":"2026-11-22T05:06:37Z","host":"$W",'
        .. '"text":"') .. escaped(plant "$W $A") .. '"}\n' },
    { "state/events.jsonl", repeated(20, '{"id":1001,"text":"$W\\\\$W\\t$A"}\n') },
    { "diag.log", repeated(20, "2026-11-22T05:06:37.123+01:00  $W    $W: $H /home/$W/$A %$W\n") },
    { plant "$W-notes.txt", plant "$W" }, { "state/" .. plant "$W", plant "$A" },
    { "manifest.json", (manifest:gsub("HOST", host)) },
}
local archive = vxa.ZipOutputStream(SCRATCH .. "in.zip")
for _, entry in ipairs(entries) do equal(archive:add(entry[1], entry[2]), true, entry[1]) end
archive:close()
-- The archive's comment: its length is the last field.
local comment = plant "$W $A"
testing.write(SCRATCH .. "in.zip", testing.read(SCRATCH .. "in.zip"):sub(1, -3)
    .. string.char(#comment, 0) .. comment)
equal({ count >= 1000, #words > 500 }, { true, true }, count .. " secrets")

-- ---- what is left -------------------------------------------------------------------------

local function find_secrets(what, text)
    local lower = text:lower()
    for _, secret in ipairs(words) do
        equal(lower:find(secret:lower(), 1, true), nil, what .. " has " .. secret)
    end
    for run in text:gmatch("[%x:.]+") do
        for _, part in ipairs { run, run:match("^(.-)[:.]*$"), run:match("%x+:%x+$") or "",
                                run:match("^([%d.]+):%d+$") or "" } do
            equal(addresses[part], nil, what .. " has " .. part)
        end
    end
end

-- The key is fixed: with a random one, the pseudonym of one address can be another original.
testing.write(SCRATCH .. "kept.map", "# vxa redaction map 1\nkey " .. ("5"):rep(32) .. "\n")
os.execute("chmod 600 " .. SCRATCH .. "kept.map")
local out, status = command "redact in.zip out.zip --map kept.map"
equal(status, 1, out)
matches(out, { "notes.txt is left out: what it contains is not known",
               "in.zip is not what its manifest describes: vxa.tpf: it has %d+ bytes, but 1 in",
               "kept.map undoes" })
local masked = read_all "out.zip"
for name, text in pairs(masked) do find_secrets(name, name .. "\n" .. text) end
find_secrets("the archive", testing.read(SCRATCH .. "out.zip"))

-- The copy is whole, and has the form of the original.
local shown = json.decode((command "show --json out.zip"))
equal({ shown.verified.problems, shown.manifest.redacted, #shown.manifest.original_problems },
    { {}, vxa.version, #entries - 1 }, "the copy")
matches(shown.manifest.host.name, "^host1%.host2%.host3%.com$")
matches(shown.manifest.state.directory, "^/srv/name%d+/name%d+$")
local function form(text) return (text:gsub("[^%s{}%[%]\",>]+", "x"):gsub("  +", "  ")) end
for _, entry in ipairs(entries) do
    if masked[entry[1]] and entry[1] ~= "manifest.json" then
        equal(form(masked[entry[1]]), form(entry[2]), entry[1])
    end
end
equal(#json.decode(masked["vxa.tpf"]).nftables, 121, "objects")

-- The map translates back, and masks the same way again; without it, other addresses result.
for _, secret in ipairs(words) do
    if secret:find "^Bob" and not secret:find("\195", 1, true) then
        equal(testing.read(SCRATCH .. "kept.map"):find(secret, 1, true) ~= nil, true, secret)
        break
    end
end
equal(select(2, command "redact in.zip again.zip --map kept.map"), 1, "again")
equal(read_all "again.zip", masked, "with the same map")
equal(select(2, command "redact in.zip other.zip"), 1, "without a map")
equal(read_all("other.zip")["vxa_conn_track.txt"] ~= masked["vxa_conn_track.txt"], true, "key")

-- A package without a manifest gets one; packages of packages are masked alike.
archive = vxa.ZipOutputStream(SCRATCH .. "bare.zip")
archive:add("vxa_conn_track.txt", "tcp 10.0.0.1:1\n")
archive:close()
equal(select(2, command "redact bare.zip bare.out --map new.map"), 0, "without a manifest")
local pipe = io.popen("stat -c %a " .. SCRATCH .. "new.map")
equal(pipe:read("*l"), "600", "mode of a new map")
pipe:close()
equal(json.decode((command "show --json bare.out")).verified.problems, {}, "its manifest")

-- ---- wrong calls --------------------------------------------------------------------------

archive = vxa.ZipOutputStream(SCRATCH .. "torn.zip")
archive:add("diag.log", "x\n")
archive:add("manifest.json", "{")
archive:close()
matches(command "redact torn.zip torn-masked.zip", "torn.zip: manifest.json: cannot be used: ")
matches(command "show torn-masked.zip", "original +manifest.json: .*sums +1 entry matches")

archive = vxa.ZipOutputStream(SCRATCH .. "foreign.zip")
archive:add("a", "b")
archive:close()
testing.write(SCRATCH .. "cut.zip", testing.read(SCRATCH .. "in.zip"):sub(1, 3000))
testing.write(SCRATCH .. "bad.zip", (testing.read(SCRATCH .. "bare.zip")
    :gsub("^(" .. ("."):rep(60) .. ").", "%1\255")))
os.execute(("cd %s; ln -s kept.map link.map; cp kept.map open.map; chmod 644 open.map;"
    .. " mkfifo fifo; echo x >bad.map; chmod 600 bad.map"):format(SCRATCH))
for _, row in ipairs {
    { "none.zip n.zip", "none.zip: No such file" }, { ". n.zip", ".: Is a directory" },
    { "/dev/zero n.zip", "/dev/zero: not a regular" }, { "fifo n.zip", "fifo: not a regular" },
    { "cut.zip n.zip", "not a zip archive, or only part" }, { "bad.zip n.zip", "is damaged" },
    { "foreign.zip n.zip", "has no entry of a diagnostic package" },
    { "in.zip out.zip", "out.zip already exists" }, { "in.zip ./in.zip --force", "is read" },
    { "in.zip n.zip --map ./n.zip", "also the name" },
    { "in.zip n.zip --map fifo", "not a regular" },
    { "in.zip n.zip --map link.map", "link.map is a symbolic link" },
    { "in.zip n.zip --map open.map", "open.map can be accessed by other users" },
    { "in.zip n.zip --map bad.map", "bad.map: not a redaction map" },
    { "in.zip no/n.zip", "cannot write no/n.zip" },
} do
    out, status = command("redact " .. row[1])
    equal({ status > 0 and status < 3, select(2, out:gsub("\n", "")) }, { true, 1 }, out)
    matches(out, row[2], row[1])
    equal(vxa.file_kind(SCRATCH .. "n.zip"), "none", row[1])
end

local redaction = vxa.redaction()
equal(redaction:survey(SCRATCH .. "no.zip", "a", "text"), nil, "survey of nothing")
equal(redaction:mask("secret", "text"), "name1", "masking after a failed survey")

testing.finish()
