-- What a script finds after requiring the module, and the driver library's messages on their
-- way into the trace log.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"

local logs = os.getenv "FAKE_MACHINE" .. "/records.jsonl"
vxa.log_to(logs)
t.equal(require "fc", true)
t.equal(package.loaded.fc, true)
t.equal(t.records(logs).log, {}, "it finds itself without complaint")

-- Plain closures have no upvalues; raw functions have the pointer and its type's record.
local upvalues = {
    EnableNativeFirewall = 2, DisableNativeFirewall = 2, AddDriverDiagnostics = 0,
    setup_tbtrace = 0, AddToConnMetrics = 0, UpdateConnMetrics = 0, GetConnMetrics = 0,
    CheckSystemHealthMetrics = 0, GetSysHealthMetrics = 0, GetSysHealthEnabled = 0,
    GetScanMetricPort = 0,
}
for name in pairs(SLB.filter) do t.equal(type(upvalues[name]), "number", name) end
for name, count in pairs(upvalues) do
    local f = SLB.filter[name]
    t.equal(type(f), "function", name)
    t.equal(debug.getinfo(f, "uS").what, "C", name)
    t.equal(debug.getinfo(f, "u").nups, count, name)
    for i = 1, count do
        t.equal(type(select(2, debug.getupvalue(f, i))), "userdata", name .. " upvalue " .. i)
    end
end

-- A second run of the entry makes the table anew in the same place.
local before = SLB.filter
SLB.filter.GetSysHealthEnabled = nil
SLB.filter.of_the_host = 1
package.loaded.fc = nil
t.equal(require "fc", true)
t.equal(SLB.filter, before)
t.equal(type(SLB.filter.GetSysHealthEnabled), "function")
t.equal(SLB.filter.of_the_host, 1, "what others put there stays")

for _, name in ipairs {"EnableNativeFirewall", "DisableNativeFirewall"} do
    t.equal({SLB.filter[name]()}, {0}, name)
    t.equal({SLB.filter[name](nil, {}, "text", 1)}, {0}, name .. " with arguments")
end
t.equal(recorder.calls(), {}, "the firewall functions ask the driver for nothing")

-- Before any cycle.
t.equal({SLB.filter.GetSysHealthEnabled()}, {false})
t.equal({SLB.filter.GetScanMetricPort()}, {false, 0})

-- ---- the driver library's messages -----------------------------------------------------

local setup = SLB.filter.setup_tbtrace
local handle = assert(vxa.open())
local closed = assert(vxa.open())
closed:close()

local function calls_of(f, ...)
    recorder.calls()
    t.equal(select("#", f(...)), 0, "no results")
    local made = {}
    for _, call in ipairs(recorder.calls()) do
        made[#made + 1] = {call.name, call.number, call.null_handle}
    end
    return made
end

t.raises("(vxi handle expected)", setup, vxa.Dom())
t.raises("(vxi handle expected)", setup, nil, handle)

-- Off: level 0, and no handler is installed.
t.equal(calls_of(setup, handle), {{"set_trace_level", 0, false}})

vxa.trace("VXI", true)
local both = {{"set_trace_level", 3, false}, {"set_trace_handler", 0, false}}
t.equal(calls_of(setup, handle), both)
t.equal(calls_of(setup, handle, "ignored", 3), both)
-- A closed handle is passed on as null.
t.equal(calls_of(setup, closed), {{"set_trace_level", 3, true}, {"set_trace_handler", 0, true}})

local function written(...)
    t.records(logs)
    local message = select(5, ...)
    t.equal({recorder.emit(...)}, {0, message}, "status, and the message is left as it was")
    local lines = {}
    for _, r in ipairs(t.records(logs).trace) do
        lines[#lines + 1] = {r.category, r.file, r.line, r["function"], r.message}
    end
    return lines
end

local function line(message)
    return {{"VXI", "plugins/filter/fc", 109, "tb_trace_handler", message}}
end
t.equal(written(2, "A", "B", 10, "M"), line "A/2  | M | B:10\n")
t.equal(written(-1, "", "", -2147483648, ""), line "/-1  |  | :-2147483648\n")
t.equal(written(0, "%s%n", "%d", 0, "100% \"of\"\n\ttwo lines"),
    line "%s%n/0  | 100% \"of\"\n\ttwo lines | %d:0\n")

-- Switched off since: nothing is written, and the handler stays installed.
vxa.trace("VXI", false)
t.equal(written(2, "A", "B", 10, "M"), {})
t.equal(calls_of(setup, closed), {{"set_trace_level", 0, true}})

t.finish()
