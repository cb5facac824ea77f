-- vxa status: one cycle, what is monitored, and what this machine supports.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local filter = require "filter"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local session = require "vxa.session"
local timestamps = require "vxa.output.timestamps"

local function define(command)
    command:description("Run one cycle and show what is monitored and what this machine "
        .. "supports.")
    option.add_policy(command)
    option.add_driver(command)
    option.add_json(command)
end

-- Returns everything that is shown, as text or as JSON.
local function inspect(monitored)
    local result = session.run_cycle(monitored)
    local has_port, port = SLB.filter.GetScanMetricPort()
    local rows, driver_error = session.capabilities(monitored.vxa)
    return {
        result = result, monitoring = SLB.filter.GetSysHealthEnabled(),
        port = has_port and port or nil, policy = monitored.policy,
        outbound = monitored.policy.values.SYS_CONF_CONN_REFUSAL_OUTBOUND == 1,
        engine = monitored.engine, capabilities = rows, driver_error = driver_error,
        errors = monitored.messages:errors(),
    }
end

-- ---- text -------------------------------------------------------------------------------

local WIDTH = 80

local function monitoring_line(status)
    local result = status.result
    if not status.monitoring then
        return "disabled: " .. policy_source.why_disabled(status.policy)
    end
    if not result.measured then return "enabled, but this cycle failed: " .. result.text end
    if result.transition == "entered" then
        return ("enabled; would enter fail-open, until %s at least: %s"):format(
            timestamps.inline(result.lasts_until), format.crossings(result.causes))
    end
    local near = #result.near > 0 and ": " .. format.nearly(result.near) or ""
    return "enabled; no metric is beyond its threshold, the filter enforces" .. near
end

local function port_line(status)
    if not status.port then return "none: connections are not monitored (see --port)" end
    return ("%d, %s"):format(status.port, status.outbound and "outbound: remote servers"
        or "inbound: servers on this machine")
end

local function fail_open_line(status)
    local minimum = status.result.min_duration_s
    local unload = status.policy.values.SYS_CONF_UNLOAD_DRIVER == 1
    return ("lasts at least %s; the driver %s"):format(
        minimum and format.duration(minimum) or "as long as the policy says",
        unload and "is unloaded meanwhile" or "stays loaded")
end

local function metric_row(i, metric)
    local description = filter.metrics[i]
    local bound = (description.below and "below " or "above ") .. format.number(metric.threshold)
    return {
        metric.name,
        format.value(metric) .. (metric.over and "!" or " "),
        metric.enabled and bound or "off",
        description.unit,
        description.title,
    }
end

local function show_metrics(metrics)
    if #metrics == 0 then return end
    local rows = { { "metric", "value ", "over when", "unit", "meaning" } }
    for i, metric in ipairs(metrics) do rows[#rows + 1] = metric_row(i, metric) end
    console.line("")
    console.lines(format.columns(rows, { [2] = true }))
    console.line("(!: beyond its threshold; -: off, or needs a second cycle, as in vxa run)")
end

local DETAIL_INDENT = #"  scan-metrics  yes  "

local function show_capabilities(status)
    console.line("")
    if status.driver_error then
        console.line("engine %s does not answer: %s", status.engine,
            printable(status.driver_error))
        return
    end
    console.line("engine %s on this machine:", status.engine)
    local rows = {}
    for _, row in ipairs(status.capabilities) do
        local details = format.wrap(printable(row.detail), WIDTH - DETAIL_INDENT)
        rows[#rows + 1] = { "  " .. row.name, row.available and "yes" or "NO", details[1] or "" }
        for i = 2, #details do rows[#rows + 1] = { "", "", details[i] } end
    end
    console.lines(format.columns(rows, {}))
end

local function show_line(title, text)
    console.line("%s", format.titled(title, printable(text)))
end

local function show_text(status)
    show_line("monitoring", monitoring_line(status))
    show_line("policy", status.policy.source)
    show_line("port", port_line(status))
    show_line("fail-open", fail_open_line(status))
    show_metrics(status.result.metrics)
    if status.result.machine then
        console.line("")
        show_line("machine", format.machine(status.result.machine) .. " (not judged)")
    end
    show_capabilities(status)
end

-- ---- JSON -------------------------------------------------------------------------------

local function show_json(status, vxa)
    local null = json_records.null
    local record = json_records.cycle(status.result, status.errors)
    record.record = "status"
    record.version = vxa.version
    record.monitoring = status.monitoring
    record.policy_source = status.policy.source
    record.settings = json_records.object(status.policy.values)
    record.port = status.port or null
    record.direction = status.port and (status.outbound and "outbound" or "inbound") or null
    record.engine = status.engine
    record.capabilities = json_records.array(status.capabilities)
    if status.driver_error then table.insert(record.errors, status.driver_error) end
    json_records.print(record)
end

local function run(options)
    local monitored = session.start_monitoring(options)
    local status = inspect(monitored)
    -- Ctrl-C also ends the commands that the module runs: then a failure means nothing.
    exit.if_interrupted(monitored.vxa)
    if options.json then show_json(status, monitored.vxa) else show_text(status) end
    monitored.messages:show()  -- of the cycle
    monitored.messages:take()  -- of the queries after it
    monitored.messages:show()
    session.close_document(monitored)
    if status.result.measured or status.result.action == filter.DISABLED then return 0 end
    console.complain(("the cycle failed: %s; --trace SysHealth.eng shows why")
        :format(status.result.text))
    return 1
end

return { define = define, run = run }
