-- What a script finds after it required the module, and the driver library's messages in the
-- trace log.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"

local equal = t.equal
local logs = os.getenv "FAKE_MACHINE" .. "/records.jsonl"
vxa.log_to(logs)
equal(require "fc", true)
equal(package.loaded.fc, true)
equal(t.records(logs).log, {}, "it finds itself without an error")

-- C functions and their upvalues: plain closures have none; raw functions have the pointer and
-- its type's record.
local found = {}
for name, f in pairs(SLB.filter) do
    local info = debug.getinfo(f, "uS")
    found[name] = info.what .. info.nups
    for i = 1, info.nups do
        equal(type(select(2, debug.getupvalue(f, i))), "userdata", name .. " upvalue " .. i)
    end
end
equal(found, {EnableNativeFirewall = "C2", DisableNativeFirewall = "C2",
    AddDriverDiagnostics = "C0", setup_tbtrace = "C0", AddToConnMetrics = "C0",
    UpdateConnMetrics = "C0", GetConnMetrics = "C0", CheckSystemHealthMetrics = "C0",
    GetSysHealthMetrics = "C0", GetSysHealthEnabled = "C0", GetScanMetricPort = "C0"})

-- A second run of the entry fills the same table again.
local before = SLB.filter
SLB.filter.GetSysHealthEnabled = nil
SLB.filter.of_the_host = 1
package.loaded.fc = nil
equal(require "fc", true)
equal({SLB.filter, type(SLB.filter.GetSysHealthEnabled)}, {before, "function"})
equal(SLB.filter.of_the_host, 1, "what others put there stays")

for _, name in ipairs {"EnableNativeFirewall", "DisableNativeFirewall"} do
    equal({SLB.filter[name]()}, {0}, name)
    equal({SLB.filter[name](nil, {}, "text", 1)}, {0}, name .. " with arguments")
end
equal(recorder.calls(), {}, "the firewall functions do not call the driver")

-- Before any cycle.
equal({SLB.filter.GetSysHealthEnabled()}, {false})
equal({SLB.filter.GetScanMetricPort()}, {false, 0})

-- ---- the driver library's messages -----------------------------------------------------

local setup = SLB.filter.setup_tbtrace
local handle = assert(vxa.open())
local closed = assert(vxa.open())
closed:close()

local function calls_of(f, ...)
    recorder.calls()
    equal(select("#", f(...)), 0, "no results")
    local made = {}
    for _, call in ipairs(recorder.calls()) do
        made[#made + 1] = ("%s %d %s"):format(call.name, call.number, call.null_handle)
    end
    return made
end

t.raises("(vxi handle expected)", setup, vxa.Dom())
t.raises("(vxi handle expected)", setup, nil, handle)

-- Off: level 0, and no handler is installed.
equal(calls_of(setup, handle), {"set_trace_level 0 false"})

vxa.trace("VXI", true)
local both = {"set_trace_level 3 false", "set_trace_handler 0 false"}
equal(calls_of(setup, handle), both)
equal(calls_of(setup, handle, "ignored", 3), both)
-- A closed handle is passed on as null.
equal(calls_of(setup, closed), {"set_trace_level 3 true", "set_trace_handler 0 true"})

local function written(...)
    t.records(logs)
    local message = select(5, ...)
    equal({recorder.emit(...)}, {0, message}, "status, and the message is left as it was")
    local lines = {}
    for _, r in ipairs(t.records(logs).trace) do
        lines[#lines + 1] = {r.category, r.file, r.line, r["function"], r.message}
    end
    return lines
end

local function line(message)
    return {{"VXI", "plugins/filter/fc", 109, "tb_trace_handler", message}}
end
equal(written(2, "A", "B", 10, "M"), line "A/2  | M | B:10\n")
equal(written(-1, "", "", -2147483648, ""), line "/-1  |  | :-2147483648\n")
equal(written(0, "%s%n", "%d", 0, "100% \"of\"\n\ttwo lines"),
    line "%s%n/0  | 100% \"of\"\n\ttwo lines | %d:0\n")

-- Switched off since: nothing is written, and the handler stays installed.
vxa.trace("VXI", false)
equal(written(2, "A", "B", 10, "M"), {})
equal(calls_of(setup, closed), {"set_trace_level 0 true"})

t.finish()
