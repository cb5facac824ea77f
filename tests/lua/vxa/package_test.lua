-- Diagnostic packages: what the manifest says about them, and what `vxa show` makes of packages
-- that are not what they should be.

local json = require "dkjson"
local package_entries = require "vxa.packages.entries"
local scratch = require "scratch"
local testing = require "testing"
local vxa = require "vxa"

local equal, matches = testing.equal, testing.matches
local command, SCRATCH = scratch.vxa, scratch.path

local function show(name)
    local text, status = command("show --json " .. name)
    return json.decode(text) or error(text), status
end

-- Writes a package of these entries; returns it.
local function write(name, entries)
    local archive = vxa.ZipOutputStream(SCRATCH .. name)
    for _, entry in ipairs(entries) do equal(archive:add(entry[1], entry[2]), true, entry[1]) end
    return archive
end

-- ---- the manifest of packages that vxa writes ---------------------------------------------

local function names(rows, present)
    local list = {}
    for _, row in ipairs(rows) do
        if row.state ~= "missing" or not present then list[#list + 1] = row.name end
    end
    return list
end

local calls_of = { vxi_open = false, vxi_driver_available = false, vxi_get_var = false,
                   vxi_set_var = false, vxi_capabilities = false }
local all_names = {}
for _, entry in ipairs(package_entries) do
    if entry.call then calls_of[entry.call], all_names[#all_names + 1] = entry.name, entry.name end
end
for _, name in ipairs { "state/transitions.jsonl", "state/events.jsonl", "diag.log" } do
    all_names[#all_names + 1] = name
end
local extra = { vxi_get_var = ",vxi_get_varv=-10017", vxi_set_var = ":after=1" }

-- Each call fails; the manifest has it, and whatever is missing has a reason.
for call, entry in pairs(calls_of) do
    local status = call == "vxi_driver_available" and -7 or -77
    local out, code = command("diag p.zip --force --profile 0.001 --state kept",
        ("VXI_FAULT='%s=%d:planted %s%s'"):format(call, status, call, extra[call] or ""))
    equal(code, call == "vxi_open" and 1 or 0, out)
    local found, shown = show "p.zip"
    local manifest = found.manifest
    equal({ shown, found.verified.problems, names(manifest.entries) }, { 0, {}, all_names }, call)
    local listed = names(manifest.entries, true)
    listed[#listed + 1] = "manifest.json"
    equal(names(found.entries), listed, call)
    local failed
    for _, row in ipairs(manifest.failed_calls) do
        if row.call == call then failed = row end
    end
    equal(failed and failed.status, call ~= "vxi_open" and status or nil, call)
    matches(failed and failed.message or "", "planted " .. call .. "$", call)
    for _, row in ipairs(manifest.entries) do
        equal(row.state ~= "ok", row.reason ~= nil, row.name)
        equal(row.state == "missing", row.sha256 == nil, row.name)
        if row.name == entry then matches(row.reason, call .. " failed with %-77: .*planted") end
    end
    equal(command("show p.zip diag.log"):match("planted ([%l_]+)"), call, "log")
end

-- What the manifest says of the machine and the state, with and without a directory in use.
command "run --policy /dev/null --cycles 1 --state kept"
testing.write(SCRATCH .. "kept/transitions.jsonl", ('{"record":"x"}\n'):rep(600000)
    .. '{"record":"started","time":"T1","policy_source":"P","settings":{"SYS_THR_RUNQ":8,"x":[]}}\n'
    .. '{"record":"entered","time":"T2","causes":[{"name":"a","value":9,"threshold":8},1,{}]}\n'
    .. '{"record":"jump"}\n{"record":"left","time":"T3')
local kept = vxa.Dom(SCRATCH .. "kept")
kept:set("vxp.filter.FailOpenState", "Activated")
matches(command "diag p.zip --force --state kept", "in use by process %d+ .* not kept there\n")
local manifest = show("p.zip").manifest
equal({ manifest.state.in_use, manifest.state.fail_open, manifest.state.last_transition.time,
        manifest.policy.source, manifest.policy.recorded, manifest.policy.settings },
    { true, "Activated", "T2", "P", "T1", { SYS_THR_RUNQ = 8 } }, "state")
matches(manifest.entries[6].state .. manifest.entries[6].reason, "^incompletethe first %d+ bytes")
equal({ manifest.host.name, manifest.user.uid, manifest.build_ids["vxa.so"], manifest.engine },
    { vxa.uname().host, vxa.euid(), vxa.build_id "vxa.so", "sim" }, "manifest")
matches(command "show p.zip", "^host .*\npolicy +P, 1 setting, in force since T1\nstate +fail%-open"
    .. "; entered at T2: a 9, threshold 8\n.*\nlacking +incomplete state/transitions.jsonl: .*\n"
    .. "sums +8 entries match the manifest\n\nentry ")
local conf = os.getenv "FAKE_MACHINE" .. "/etc/vx_filter.conf"
os.execute("mkfifo " .. conf)
equal(select(2, command "diag p.zip --force --state /proc/none"), 1, "no directory")
matches(command "show p.zip", "\npolicy +not known: configuration /etc/[^\n]* regular file\n.*"
    .. "\nnot known +state.fail_open: .*\n +state.last_transition: .*\n +state.last_cycle: ")
os.remove(conf)
command "diag p.zip --force --port 443"
equal(show("p.zip").manifest.policy.settings.SYS_CONF_CONN_REFUSAL_PORT, 443, "port")
kept:close()
os.execute("echo '" .. '\n{"record":"ended","time":"T4"}' .. "' >>" .. SCRATCH
    .. "kept/transitions.jsonl")
command "diag p.zip --force --state kept"
matches(command "show p.zip", "\npolicy +P, 1 setting, in force from T1 until the run ended\n"
    .. "state +the run ended at T4, fail%-open until then\n")

-- ---- archive:add --------------------------------------------------------------------------

local archive = write("names.zip", { { "a/ü.txt", "\0\255" }, { "..x", "" } })
for _, name in ipairs { "", "/a", "a/../b", "..", "./a", "a//b", "a/", "a\0b", "a\n", "a\\b",
                        "\255", ("a"):rep(4097), "..x" } do
    local added, message = archive:add(name, "")
    matches(tostring(added) .. message, "^nil.*names.zip: entry '.*' is not added: ", name)
end
archive:close()
local reader = vxa.zip_reader(SCRATCH .. "names.zip")
for _, entry in ipairs(archive:entries()) do
    local read = reader:next()
    equal({ read.name, read.bytes, (reader:sha256()) }, { entry.name, entry.bytes, entry.sha256 })
    matches(select(2, reader:sha256()), "no entry to read$")
end
equal(reader:next(), false, "the last entry")

-- ---- packages from anywhere ---------------------------------------------------------------

local SUM = ('"sha256":"%s"'):format(vxa.sha256 "abc")
local function listing(rest, name)
    return ('{"manifest":1,"entries":[{"name":"%s","state":"ok",%s}]}'):format(name or "a",
        rest or '"bytes":3,' .. SUM)
end

-- Manifest (false: none), exit status, the first line of standard output, or what it says of sums.
for _, row in ipairs {
    { listing(), 0, "\nsums +1 entry matches the manifest\n" },
    { listing('"bytes":3,"sha256":"x"'), 1, "; 1 does not\nWRONG +a: its SHA%-256 is not" },
    { listing('"bytes":1e999,' .. SUM), 1, "WRONG +a: it has 3 bytes, but inf in the manifest" },
    { listing('"bytes":3'), 1, "WRONG +a: the manifest has no sum" },
    { listing(nil, "b"), 1, "WRONG +a: the manifest does not list it\n +b: the package does not" },
    { listing(nil, "manifest.json"), 1, "WRONG +manifest.json: the manifest lists itself" },
    { '{"manifest":1,"version":"\\u001b[2J\\u202e","unknown":[{"member":"a","reason":"\\u009b"}]}',
      1, "\nby +vxa \\x1b%[2J\\xe2\\x80\\xae\n.*\nnot known +a: \\xc2\\x9b\n" },
    { '{"manifest":1,"state":{"last_transition":{"time":"T","record":[],"causes":[{"name":"zz"}]},'
      .. '"last_cycle":{"time":{}}}}', 1, "\nstate +last transition: at T\n.*sums" },
    { '{"manifest":1,"x":' .. ("["):rep(900) .. ("]"):rep(900) .. "}", 1, "\nsums +0 entries" },
    { false, 0, "^manifest    none: not a package of vxa diag[^\n]*\n\nentry " },
    { '{"manifest":1,"entries":[null]}', 1, "^manifest    cannot be used, .*: entries%[1%] is nu" },
    { '{"manifest":1,"host":[]}', 1, "^manifest .*: host is not an object\n" },
    { '{"manifest":2}', 1, "^manifest .*: its format is 2; this version reads 1\n" },
    { '{"manifest":1', 1, "^manifest .*: it is not JSON\n" },
    { "{} x", 1, "^manifest .*: it is not JSON\n" },
    { "[]", 1, "^manifest .*: it is not a JSON object\n" },
    { '{"manifest":1,"version":"\255"}', 1, "^manifest .*: it is not UTF%-8" },
    { (" "):rep(2 ^ 19 + 1), 1, "^manifest .* has more than 524288 bytes\n" },
} do
    write("q.zip", { { "a", "abc" }, row[1] and { "manifest.json", row[1] } or nil }):close()
    local out, status = command "show q.zip"
    equal({ status, out:find("[^\n -~]") }, { row[2] }, row[1] and row[1]:sub(1, 99) .. out)
    matches(out, row[3], "show")
    equal(show("q.zip").record, "package", out)
end

testing.finish()
