-- The editor stubs have the names of the loaded modules, no others, and each function and field
-- is as annotated.

package.path = arg[0]:match "^.*/" .. "?.lua;" .. package.path
local t = require "testing"
local annotations = require "annotations"
local vxa = require "vxa"
require "fc"
local filter = require "filter"
local health_policy = require "health_policy"

local call, modules = annotations.call, annotations.modules
modules.vxa, modules.filter, modules["SLB.filter"] = vxa, filter, SLB.filter
modules.health_policy, modules.strict_json = health_policy, require "strict_json"
for _, name in ipairs { "fc", "vxa", "filter", "health_policy", "strict_json" } do
    local path = ("%s/share/stubs/%s.lua"):format(os.getenv "VXA_ROOT", name)
    assert(loadfile(path))
    annotations.read(path)
end

local machine = os.getenv "FAKE_MACHINE"
local folder = machine .. "/stubs/"
os.execute("mkdir " .. folder)

-- ---- names ------------------------------------------------------------------------------

-- The methods of each class that an object has.
local objects = {}

local function keep(class, object)
    objects[class] = object
    return object
end

local function names(...)
    local list, is_listed = {}, {}
    for _, set in ipairs { ... } do
        for name in pairs(set) do
            if not is_listed[name] and name ~= "__index" then list[#list + 1] = name end
            is_listed[name] = true
        end
    end
    table.sort(list)
    return list
end

local function check_names()
    local constants = { filter = {}, health_policy = {} }
    for name, constant in pairs(annotations.constants) do
        local module, member = name:match "^([%w_]+)%.([%w_]+)$"
        if member then
            constants[module][member] = true
            local value = modules[module][member]
            if constant.node then annotations.check(value, constant.node, name) end
            t.equal(constant.node and "{}" or load("return " .. constant.source)(),
                constant.node and constant.source or value, name)
        end
    end
    for name, class in pairs(annotations.classes) do
        local module = modules[name]
        if module then
            t.equal(names(class.methods, class.fields, constants[name] or {}), names(module), name)
        elseif next(class.methods) then
            local found = objects[name] and getmetatable(objects[name]).__index or {}
            t.equal(names(class.methods), names(found), name)
        end
    end
    local declared = {}
    for name in pairs(annotations.functions) do
        declared[name:match "^SLB%.filter%.([%w_]+)$" or "CheckSystemHealthMetrics"] = true
    end
    t.equal(names(declared), names(SLB.filter), "SLB.filter")
end

-- ---- the module vxa ---------------------------------------------------------------------

local function call_all(list)
    for _, arguments in ipairs(list) do call(table.unpack(arguments)) end
end

call("vxa.engine", "sim")
local document = keep("SLB.Dom", call("vxa.Dom", folder .. "state"))
local handle = keep("vxi_handle_t", call "vxa.open")
local archive = keep("SLB.wx.ZipOutputStream", call("vxa.ZipOutputStream", folder .. "a.zip"))
call("vxa.capture", true)
call("vxa.verbose", true)
call("vxa.trace", "SysHealth.*", true)
call("vxa.fault", "vxi_get_stats=-5")
call("SLB.filter.setup_tbtrace", handle)
call("SLB.filter.AddDriverDiagnostics", document, handle, archive)
call "vxa.fault"
call_all {
    { "SLB.Dom:set", document, "key", true }, { "SLB.Dom:get", document, "key" },
    { "SLB.Dom:events", document }, { "SLB.Dom:close", document },
    { "SLB.Dom:set", document, "key", 1 }, { "vxa.Dom" },
    { "vxi_handle_t:available", handle }, { "vxi_handle_t:error", handle },
    { "vxi_handle_t:failures", handle }, { "vxi_handle_t:connections", handle },
    { "vxi_handle_t:capabilities", handle }, { "vxi_handle_t:set_variable", handle, 62, 1 },
    { "vxa.driver_failures" },
    { "SLB.wx.ZipOutputStream:add", archive, "name", "text" },
    { "SLB.wx.ZipOutputStream:entries", archive }, { "SLB.wx.ZipOutputStream:close", archive },
    { "vxa.zip_entries", folder .. "a.zip" }, { "vxa.zip_read", folder .. "a.zip", "name", 9 },
    { "vxa.engines" }, { "vxa.simulate", "interval_s=20,scenario=idle:3/overloaded" },
    { "vxa.check_environment" }, { "vxa.simulated_tick" }, { "vxa.simulated_machine" },
    { "vxa.simulate_memory", 1000000, 500000 }, { "vxa.limit_file_size" }, { "vxa.latest_scan" },
    { "vxa.clock" }, { "vxa.time" }, { "vxa.sleep", 0 }, { "vxa.catch_signals" },
    { "vxa.reload_on_hangup" }, { "vxa.reload_asked" }, { "vxa.interrupted" },
    { "vxa.setenv", "STUBS", "1" }, { "vxa.mkdir", folder .. "m" },
    { "vxa.same_file", folder, folder }, { "vxa.file_kind", folder },
    { "vxa.file_status", folder },
    { "vxa.replace_file", folder .. "f", "A=1\n", true }, { "vxa.read_file", folder .. "f", 9 },
    { "vxa.read_file", folder, 9 }, { "vxa.read_tail", folder .. "f", 9 },
    { "vxa.remove_file", folder .. "f" }, { "vxa.conf_line", "A=1\n", 1 }, { "vxa.isatty", 0 },
    { "vxa.terminal_columns" }, { "vxa.euid" }, { "vxa.uname" }, { "vxa.build_id", "vxa.so" },
    { "vxa.versions" },
    { "vxa.parse_json", "[1]", 1, false, {} }, { "vxa.printable", "\0", true },
    { "vxa.sha256", "" }, { "vxa.hexdump", "a", 16 },
}

local reader = keep("vxa.ZipReader", call("vxa.zip_reader", folder .. "a.zip"))
local file = keep("vxa.File", call("vxa.temporary", folder .. "f"))
local grown = keep("vxa.AppendFile", call("vxa.append_file", folder .. "g"))
local rotated = keep("vxa.RotatedFile", call("vxa.rotated_file", folder .. "r", "", 1, 1, true))
local redaction = keep("vxa.Redaction", call "vxa.redaction")
local masked = call("vxa.ZipOutputStream", folder .. "m.zip")
local process = keep("vxa.Process", call("vxa.start_process", "exec sleep 9", "", 9))
local shell = call("vxa.start_process", ":", "", 9)
call_all {
    { "vxa.ZipReader:next", reader }, { "vxa.ZipReader:sha256", reader },
    { "vxa.ZipReader:close", reader },
    { "vxa.run_program", { "true" }, "", file }, { "vxa.File:write", file, "a" },
    { "vxa.File:publish", file, true }, { "vxa.File:close", file },
    { "vxa.AppendFile:write", grown, "a" }, { "vxa.AppendFile:head", grown, 1 },
    { "vxa.AppendFile:cut_partial_line", grown }, { "vxa.AppendFile:sync", grown },
    { "vxa.AppendFile:size", grown }, { "vxa.AppendFile:has_name", grown },
    { "vxa.AppendFile:rename", grown, ".1" },
    { "vxa.is_appended_to", folder .. "g.1" }, { "vxa.AppendFile:close", grown },
    { "vxa.RotatedFile:write", rotated, "a" }, { "vxa.RotatedFile:compress", rotated },
    { "vxa.RotatedFile:sync", rotated }, { "vxa.RotatedFile:close", rotated },
    { "vxa.Redaction:survey", redaction, folder .. "a.zip", "name", "text" },
    { "vxa.Redaction:copy", redaction, folder .. "a.zip", "name", "text", masked },
    { "vxa.Redaction:mask", redaction, "a", "json" }, { "vxa.Redaction:reserve", redaction, "a" },
    { "vxa.Redaction:save", redaction },
    { "vxa.Process:wait", process }, { "vxa.Process:stop", process },
    { "vxa.Process:wait", process, 9 }, { "vxa.Process:wait", shell, 9 },
    { "vxa.Process:close", process }, { "vxi_handle_t:close", handle },
}

-- ---- records ----------------------------------------------------------------------------

-- Two runs of 100 cycles with a peak in each; the second one is still in fail-open.
local lines = { "# vxa record 1" }
for run = 0, 1 do
    lines[#lines + 1] = "# version 1, interval 10 s\n# policy {\"SYS_THR_RUNQ\":{\"value\":8},"
        .. "\"SYS_CONF_MIN_ACT_DURATION\":1}"
    if run == 0 then
        lines[#lines + 1] = "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,"
            .. "errors"
    end
    for i = 0, 99 do
        local is_over = i >= 40 and i < 50 or i >= 95
        lines[#lines + 1] = ("2026-01-01 %02d:%02d:%02d.000000,%d,%s,,%g,,,,50,%s,"):format(run,
            math.floor(i / 6), i % 6 * 10, is_over and 1 or 0,
            is_over and "Activated" or "Deactivated", is_over and 9 or i / 100,
            i > 0 and "10" or "")
    end
end
t.write(folder .. "record.csv", table.concat(lines, "\n") .. "\n")
for class, object in pairs {
    ["vxa.Chart"] = call("vxa.chart", folder .. "record.csv", nil, 0),
    ["vxa.Replay"] = call("vxa.replay", folder .. "record.csv", { { SYS_THR_RUNQ = 8 } }, 9),
    ["vxa.Tuner"] = call("vxa.tune", folder .. "record.csv", 1e6, 1),
} do
    keep(class, object)
    while call(class .. ":read", object) < 1 do end
    call(class .. ":result", object)
end

-- ---- the filter script ------------------------------------------------------------------

local function uptime(load)
    t.write(machine .. "/uptime.out", (" up 1 day, load average: %.2f, 0.58, 0.59\n"):format(load))
end

local records, now = {}, os.time()
local options = {
    dom = call "vxa.Dom", policy = '{ "SYS_THR_RUNQ": 8 }', settings = nil, observe = false,
    enforce = function() end, clock = os.time, records = function()
        records = call "vxa.captured"
        return records
    end,
}
local monitor = keep("filter.Monitor", call("filter.new", options))
local POLICY = [[{ "SYS_CONF_CONN_REFUSAL_PORT": 443, "SYS_CONF_MIN_ACT_DURATION": 1, "a": 1,
    "SYS_THR_RUNQ": { "value": 8 }, "SYS_THR_CONN_REFUSAL_PCT": { "value": 50 },
    "SYS_THR_CONN_EST_PER_CPU": { "value": 100 } }]]

local function cycle(load, script)
    uptime(load)
    now = now + 20
    call("vxa.setenv", "FAKETIME", ("%d"):format(now))
    call("vxa.fault", script)
    return call("filter.Monitor:cycle", monitor)
end

cycle(0.5)  -- a policy of the wrong type
call("filter.Monitor:set_policy", monitor, POLICY)
for _ = 1, 3 do cycle(7.1) end  -- near, few
for _ = 1, 4 do cycle(0.5, "vxi_open=-19") end
cycle(0.5)  -- held
cycle(9)
call("SLB.Dom:close", options.dom)
for _ = 1, 4 do cycle(0.5) end
options.observe, options.policy, options.settings = true, nil, { SYS_THR_RUNQ = 8 }
monitor = call("filter.new", options)
call("filter.Monitor:set_policy", monitor, POLICY, options.settings)
cycle(9)
call("vxa.setenv", "FAKETIME", "+0")
call_all {
    { "vxa.latest_scan" }, { "SLB.filter.GetSysHealthMetrics" },
    { "SLB.filter.GetSysHealthEnabled" }, { "SLB.filter.GetScanMetricPort" },
    { "SLB.filter.EnableNativeFirewall" }, { "SLB.filter.DisableNativeFirewall" },
    { "SLB.filter.CheckSystemHealthMetrics", options.dom, "Deactivated", "" },
    { "filter.parse_status", "SysHealth: tval= 1.000001 x min_dur=1 act_dur=1 port=1 rqpct=1(2)" },
    { "vxa.log_to" }, { "vxa.capture", false },
}

-- A row has each field.
local feedback = keep("filter.Feedback", call("filter.feedback", {
    is_local = function() return true end, interrupted = function() return false end }))
local flow = { protocol = "tcp", family = 4, src = "10.0.0.1", dst = "10.0.0.2", sport = 1,
               dport = 2, flags = 0, timeout = 1, mark = 0 }
local _, text = call("filter.observation", flow, true)
call("SLB.filter.AddToConnMetrics", "key",
    text .. "pid\t1\ntls_version\t1\ncipher\t1\ncontainer_type\t1\n", 1)
call_all {
    { "filter.Feedback:sample", feedback, { flow } }, { "filter.Feedback:due", feedback },
    { "filter.Feedback:rest", feedback, true }, { "filter.Feedback:pending", feedback },
    { "vxa.setenv", "FAKETIME", "+100" }, { "SLB.filter.UpdateConnMetrics" },
    { "SLB.filter.GetConnMetrics" }, { "filter.Feedback:report", feedback },
    { "filter.Feedback:restore", feedback, {} }, { "vxa.setenv", "FAKETIME", "+0" },
}

-- ---- policies ---------------------------------------------------------------------------

local findings = keep("health_policy.Findings", call("health_policy.findings", true))
local setting = call("health_policy.find", "SYS_CONF_RECOVER_FACTOR")
annotations.check(vxa, { { name = "vxa" } }, "vxa")
call_all {
    { "health_policy.range", setting }, { "health_policy.in_bounds", setting, 1 },
    { "health_policy.why_out_of_bounds", -1 },
    { "health_policy.effective", setting, 1.5, findings, "name", 1 },
    { "health_policy.Findings:add", findings, { message = "text" } },
    { "health_policy.Findings:count", findings }, { "health_policy.Findings:sentences", findings },
    { "health_policy.check", POLICY, true }, { "strict_json.parse", POLICY },
    { "strict_json.parse", "[" }, { "strict_json.place", "a", 1 }, { "strict_json.places", "a" },
}
local _, found = call("health_policy.inspect", [[{ "SYS_THR_RUN": 1, "SYS_THR_RUNQ": 8,
    "SYS_THR_FREE_MEM": { "value": 1, "detail": 2 } }]])
for _, finding in ipairs(found) do call("health_policy.sentence", finding) end

check_names()
t.equal(annotations.finish(), {}, "problems")
t.finish()
