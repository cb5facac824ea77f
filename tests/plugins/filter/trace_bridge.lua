-- The driver library's messages on their way into the trace log.

local t = require "testing"
local recorder = require "recorder"
local vxa = require "vxa"
require "fc"

local logs = os.getenv "SANDBOX" .. "/records.jsonl"
local setup = SLB.filter.setup_tbtrace
vxa.log_to(logs)

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

for _, wrong in ipairs {1, "vxi_handle_t*", {}, io.stdout, vxa.Dom()} do
    t.raises("(vxi handle expected)", setup, wrong)
end
t.raises("(vxi handle expected)", setup)
t.raises("(vxi handle expected)", setup, nil, handle)

-- Off: level 0, and no handler is installed.
t.equal(calls_of(setup, handle), {{"set_trace_level", 0, false}})
t.equal(recorder.has_trace_handler(), false)

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
t.equal(recorder.has_trace_handler(), true)

t.finish()
