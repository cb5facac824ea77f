-- The bundle of the unmodified module on the simulated engine, into real archives, with the
-- engine's calls failing in every combination: entries, events, traces, and what other programs
-- read from the archive.

local t = require "testing"
local vxa = require "vxa"
require "fc"

-- What a sanitizer needs in this process is not for the commands that it starts.
vxa.setenv("LD_PRELOAD")

local folder = os.tmpname()
os.remove(folder)
assert(os.execute("mkdir -m 700 " .. folder))
local logs, path = folder .. "/records.jsonl", folder .. "/diag.zip"
vxa.log_to(logs)
assert(vxa.engine "sim")

local function output(command)
    local pipe = assert(io.popen(command .. " 2>&1"))
    local text = pipe:read "*a"
    return text, pipe:close() == true
end

local function entry(name) return (output(("unzip -p %s %s"):format(path, name))) end

-- "NAME KIND SIZE" of the entries in their order, as unzip lists them: kind "t" is text.
local function contents()
    local listed = {}
    for line in output("unzip -Z " .. path):gmatch "[^\n]+" do
        local size, kind, name = line:match "^%S+ +%S+ +%S+ +(%d+) (%a)%S +%S+ +%S+ +%S+ (%S+)$"
        listed[#listed + 1] = size and ("%s %s %d"):format(name, kind, size)
    end
    return listed
end

local dumps = {
    {"77 Statistics", "vxa_stats.txt t", "vxi_get_stats=-5", "GET_STATS"},
    {"80 Variables", "vxa_variables.txt t", "vxi_get_varv=-5", "GET_VARIABLE"},
    {"83 ConnTrack", "vxa_conn_track.txt t", "vxi_get_conntrack=-5", "GET_CONN_TRACK"},
    {"86 Blacklist", "vxa_blacklist.txt t", "vxi_get_blacklist=-5", "BLACKLIST_ADD"},
    -- This one always adds its entry.
    {"89 RuleStats", "vxa.tpf b", "vxi_get_profile_stats=-5:after=1", "vxi_get_profile_stats()"},
}

-- Runs the bundle with a script of faults into a finished archive: events, the dumps that failed
-- as their traces say, and the entries.
local function bundle(faults)
    os.remove(path)
    local dom, handle, zip = vxa.Dom(), assert(vxa.open()), vxa.ZipOutputStream(path)
    t.records(logs)
    assert(vxa.fault(faults))
    t.equal(table.pack(SLB.filter.AddDriverDiagnostics(dom, handle, zip)), {true, n = 1}, faults)
    assert(vxa.fault "")
    t.equal(zip:close(), true)
    handle:close()
    local events, traces, failed = {}, {}, {}
    for i, event in ipairs(dom:events()) do
        events[i] = event.id .. event.text:match "^(.-) %(engine sim: .*%)$"
    end
    for i, trace in ipairs(t.records(logs).trace) do
        traces[i] = ("%s %s:%d %s"):format(trace.category, trace.file, trace.line, trace.message)
        failed[#failed + 1] =
            traces[i]:match "^diagnostics plugins/filter/Diagnostics:(.*) diagnostics failed$"
    end
    if #traces > 0 then
        t.equal({traces[1], traces[2], traces[#traces]}, {
            "filter plugins/filter/fc:80 AddDriverDiagnostics",
            "diagnostics plugins/filter/Diagnostics:74 AddDriverContent()",
            "filter plugins/filter/fc:102 AddDriverContent returned 1"})
    end
    return events, failed, contents()
end

-- First all goes well, without traces; then every combination.
assert(vxa.simulate "flows=50,blacklist=7,rules=5")
for combination = 0, 32 do
    local faults, expected, operations, failures = {}, {}, {}, {}
    for i, dump in ipairs(dumps) do
        local name = dump[2]:match "^%S+"
        local fails = math.floor((combination - 1) / 2 ^ (i - 1)) % 2 == 1 and combination > 0
        if fails then
            faults[#faults + 1] = dump[3]
            operations[#operations + 1] = "1001" .. dump[4] .. "|fffffffb"
        end
        if fails and i < 5 then
            failures[#failures + 1] = dump[1]:gsub(" ", " AddDriver")
        else
            expected[#expected + 1] = {dump[2], name, fails}
        end
    end
    local events, failed, entries = bundle(table.concat(faults, ","))
    t.equal(events, operations, combination)
    t.equal(failed, failures, combination)
    t.equal(#entries, #expected, combination)
    for i, want in ipairs(expected) do
        local bytes = combination == 0 and entry(want[2]) or ""
        local kind, size = tostring(entries[i]):match "^(.*) (%d+)$"
        t.equal({kind, size == "0"}, {want[1], want[3]}, combination)
        if combination == 0 then t.equal(#bytes, tonumber(size), want[2]) end
    end
    if combination == 0 then
        t.equal(select(2, output("unzip -tq " .. path)), true, "unzip reads it")
        t.equal(select(2, entry "vxa_variables.txt":gsub("\n", "")), 173, "a line a variable")
        vxa.trace("diagnostics", true)
        vxa.trace("filter", true)
    end
end

local events, failed, entries = bundle "vxi_driver_available=0"
t.equal({events, #entries}, {{}, 1}, "no driver: silence, and the one entry that needs none")
t.equal(#failed, 3, "the connections are no failure then")
assert(vxa.simulate "flows=0,blacklist=0,rules=0")
events, failed, entries = bundle ""
t.equal({events, failed, #entries}, {{}, {}, 4}, "nothing to tell: no connections")

-- ---- arguments -------------------------------------------------------------------------

local dom, handle, zip = vxa.Dom(), assert(vxa.open()), vxa.ZipOutputStream(path)
local closed = assert(vxa.open())
closed:close()
local dump = SLB.filter.AddDriverDiagnostics
local imitation = setmetatable({}, debug.getmetatable(handle))
t.records(logs)
for _, case in ipairs {
    {"CDom object expected"}, {"CDom object expected", zip, handle, zip},
    {"CDom object expected", io.stdout, handle, zip}, {"CDom object expected", {}, handle, zip},
    {"vxi handle expected", dom, imitation, zip}, {"vxi handle expected", dom, io.stdout, zip},
    {"vxi handle expected", dom, dom, zip}, {"vxi handle already closed", dom, closed, zip},
    {"CZipOutputStream object expected", dom, handle, dom},
} do
    t.raises("(" .. case[1] .. ")", dump, table.unpack(case, 2, 4))
    local records = t.records(logs).trace
    t.equal({#records, records[1].line}, {1, 80}, "traced although refused")
end
t.equal(dump(dom, handle, zip, "more"), true)
t.equal(zip:close(), true)
t.equal(dump(dom, handle, zip), true, "a finished archive takes nothing, and that is no error")

assert(os.execute("rm -r " .. folder))
t.finish()
