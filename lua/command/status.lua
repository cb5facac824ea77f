-- vxa status: one cycle, what is monitored, and how far this machine allows it.

local console = require "command.console"
local filter = require "filter"
local interruption = require "command.interruption"
local json = require "dkjson"
local printable = require "command.printable"
local report_json = require "command.report_json"
local policy = require "command.policy"
local session = require "command.session"
local text = require "command.text"

local function capabilities(vxa)
    local handle, message = vxa.open()
    if not handle then return {}, message end
    local rows, fault = handle:capabilities()
    handle:close()
    return rows or {}, fault
end

-- Everything that is shown, in text or as JSON.
local function inspect(monitored)
    local result = session.cycle(monitored)
    local has_port, port = SLB.filter.GetScanMetricPort()
    local rows, driver_fault = capabilities(monitored.vxa)
    return {
        result = result, monitoring = SLB.filter.GetSysHealthEnabled(),
        port = has_port and port or nil, policy = monitored.policy,
        outbound = monitored.policy.values.SYS_CONF_CONN_REFUSAL_OUTBOUND == 1,
        engine = monitored.engine, capabilities = rows, driver_fault = driver_fault,
        faults = monitored.messages:faults(),
    }
end

-- ---- text -------------------------------------------------------------------------------

local function monitoring_line(seen)
    local result = seen.result
    if not seen.monitoring then
        return "disabled: " .. printable(policy.why_disabled(seen.policy))
    end
    if not result.measured then return "enabled, but this cycle failed: " .. result.text end
    if result.transition == "entered" then
        local causes = {}
        for i, metric in ipairs(result.over) do causes[i] = text.crossed(metric) end
        return "enabled; the filter would go into fail-open: " .. table.concat(causes, "; ")
    end
    return "enabled; the filter enforces, no metric is over its threshold"
end

local function port_line(seen)
    if not seen.port then return "none: connections are not monitored (--port N does)" end
    return ("%d, %s"):format(seen.port, seen.outbound and "outbound: remote servers"
        or "inbound: servers on this machine")
end

local function fail_open_line(seen)
    local minimum = seen.result.min_duration_s
    local unload = seen.policy.values.SYS_CONF_UNLOAD_DRIVER == 1
    return ("lasts at least %s; the driver %s"):format(
        minimum and text.duration(minimum) or "as long as the policy says",
        unload and "is to be unloaded meanwhile" or "stays loaded")
end

local function metric_row(i, metric)
    local description = filter.metrics[i]
    local bound = (description.below and "below " or "above ") .. text.number(metric.threshold)
    return {
        metric.name,
        metric.value and text.number(metric.value) or "-",
        metric.enabled and bound or "off",
        description.unit,
        (metric.over and "OVER: " or "") .. description.title,
    }
end

local function show_metrics(metrics)
    if #metrics == 0 then return end
    local rows = { { "metric", "value", "over when", "unit", "meaning" } }
    for i, metric in ipairs(metrics) do rows[#rows + 1] = metric_row(i, metric) end
    console.line("")
    for _, line in ipairs(text.columns(rows, { [2] = true })) do console.line("%s", line) end
    console.line("(-: off, or a rate that needs a second cycle, as in vxa run)")
end

local function show_capabilities(seen)
    console.line("")
    if seen.driver_fault then
        console.line("engine %s cannot be asked: %s", seen.engine, printable(seen.driver_fault))
        return
    end
    console.line("engine %s delivers here", seen.engine)
    local rows = {}
    for i, row in ipairs(seen.capabilities) do
        rows[i] = { "  " .. row.name, row.available and "yes" or "NO", row.detail }
    end
    for _, line in ipairs(text.columns(rows, {})) do console.line("%s", line) end
end

local function show_text(seen)
    console.line("monitoring  %s", monitoring_line(seen))
    console.line("policy      %s", printable(seen.policy.source))
    console.line("port        %s", port_line(seen))
    console.line("fail-open   %s", fail_open_line(seen))
    show_metrics(seen.result.metrics)
    show_capabilities(seen)
end

-- ---- JSON -------------------------------------------------------------------------------

local function show_json(seen, vxa)
    local record = report_json.cycle(seen.result, seen.faults)
    record.record = "status"
    record.version = vxa.version
    record.monitoring = seen.monitoring
    record.policy_source = seen.policy.source
    record.settings = report_json.settings(seen.policy.values)
    record.port = seen.port or json.null
    record.direction = seen.port and (seen.outbound and "outbound" or "inbound") or json.null
    record.engine = seen.engine
    record.capabilities = report_json.array(seen.capabilities)
    if seen.driver_fault then table.insert(record.errors, seen.driver_fault) end
    console.line("%s", report_json.encode(record))
end

return function(options)
    local monitored = session.start(options)
    local seen = inspect(monitored)
    -- Ctrl-C also ends the commands that the module asks: what they lack is no finding.
    interruption.check(monitored.vxa)
    if options.json then show_json(seen, monitored.vxa) else show_text(seen) end
    monitored.messages:show()
    session.finish(monitored)
    if seen.result.measured or seen.result.action == filter.DISABLED then return 0 end
    console.complain("the cycle failed: " .. seen.result.text)
    return 1
end
