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
    local printed = pipe:read "*a"
    return printed, pipe:close() == true
end

-- "NAME KIND", or "NAME KIND empty", of the entries in their order as unzip lists them; kind "t"
-- is text.
local function contents()
    local listed = {}
    for line in output("unzip -Z " .. path):gmatch "[^\n]+" do
        local size, kind, name = line:match "^%S+ +%S+ +%S+ +(%d+) (%a)%S +%S+ +%S+ +%S+ (%S+)$"
        if size then
            listed[#listed + 1] = name .. " " .. kind .. (size == "0" and " empty" or "")
        end
    end
    return listed
end

-- Entry, fault, operation in the event, and the trace of the bundle.
local dumps = {
    {"vxa_stats.txt t", "vxi_get_stats=-5", "GET_STATS", "77 AddDriverStatistics"},
    {"vxa_variables.txt t", "vxi_get_varv=-5", "GET_VARIABLE", "80 AddDriverVariables"},
    {"vxa_conn_track.txt t", "vxi_get_conntrack=-5", "GET_CONN_TRACK", "83 AddDriverConnTrack"},
    {"vxa_blacklist.txt t", "vxi_get_blacklist=-5", "BLACKLIST_ADD", "86 AddDriverBlacklist"},
    -- This one always adds its entry.
    {"vxa.tpf b", "vxi_get_profile_stats=-5:after=1", "vxi_get_profile_stats()"},
}

-- Runs the bundle with a script of faults into a finished archive. Returns its events, the traces
-- of failed dumps, and the entries.
local function bundle(faults, untraced)
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
    t.equal({traces[1], traces[2], traces[#traces]}, untraced and {} or {
        "filter plugins/filter/fc:80 AddDriverDiagnostics",
        "diagnostics plugins/filter/Diagnostics:74 AddDriverContent()",
        "filter plugins/filter/fc:102 AddDriverContent returned 1"})
    return events, failed, contents()
end

-- ---- entries and failures --------------------------------------------------------------

assert(vxa.simulate "flows=50,blacklist=7,rules=5")
bundle("", true)
t.equal(select(2, output("unzip -tq " .. path)), true, "unzip reads it")
t.equal(select(2, output("unzip -p " .. path .. " vxa_variables.txt"):gsub("\n", "")), 173)

vxa.trace("diagnostics", true)
vxa.trace("filter", true)
for combination = 0, 2 ^ #dumps - 1 do
    local faults, operations, failures, entries = {}, {}, {}, {}
    for i, dump in ipairs(dumps) do
        local fails = math.floor(combination / 2 ^ (i - 1)) % 2 == 1
        if fails then
            faults[#faults + 1] = dump[2]
            operations[#operations + 1] = "1001" .. dump[3] .. "|fffffffb"
            failures[#failures + 1] = dump[4]
        end
        if not (fails and dump[4]) then
            entries[#entries + 1] = dump[1] .. (fails and " empty" or "")
        end
    end
    t.equal({bundle(table.concat(faults, ","))}, {operations, failures, entries}, combination)
end

-- Without a driver the connections do not count as failed, and the rules need none.
local events, failed, entries = bundle "vxi_driver_available=0"
t.equal({events, #failed, entries}, {{}, 3, {"vxa.tpf b"}})
assert(vxa.simulate "flows=0,blacklist=0,rules=0")
events, failed, entries = bundle ""
t.equal({events, failed, #entries}, {{}, {}, 4}, "no connections, no entry")

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
t.equal(dump(dom, handle, zip), true, "a finished archive accepts nothing, which is not an error")

assert(os.execute("rm -r " .. folder))
t.finish()
