-- What a script finds after requiring the module, and the arguments that it refuses.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"

local logs = os.getenv "SANDBOX" .. "/records.jsonl"
vxa.log_to(logs)
t.equal(require "fc", true)
t.equal(package.loaded.fc, true)
t.equal(t.records(logs).log, {}, "it finds itself without complaint")
t.equal(recorder.profiler_installations(), 1, "hooks: the library's own, once")

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
t.equal(recorder.profiler_installations(), 1, "hooks are installed once")

for _, name in ipairs {"EnableNativeFirewall", "DisableNativeFirewall"} do
    t.equal({SLB.filter[name]()}, {0}, name)
    t.equal({SLB.filter[name](nil, {}, "text", 1)}, {0}, name .. " with arguments")
end
t.equal(recorder.calls(), {}, "the firewall functions ask the driver for nothing")

-- Before any cycle.
t.equal({SLB.filter.GetSysHealthEnabled()}, {false})
t.equal({SLB.filter.GetScanMetricPort()}, {false, 0})

t.finish()
