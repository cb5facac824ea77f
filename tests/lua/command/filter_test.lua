-- The filter script against a scripted module: transitions, figures, who is over.

local cases = require "cases"
local filter = require "filter"

local function document()
    local kept = {}
    return {
        set = function(_, key, value) kept[key] = value end,
        get = function(_, key) return kept[key] end,
    }
end

local FIGURES = { rqpct = "2.500(8.000)", refusalpct = "0.000(0.000)", estab = "0.000(0.000)",
                  scanmb = "0.000(0.000)", frepct = "37.812(5.000)", delta_t = "10.000(45.000)" }

local function status_line(action, changes)
    local figures = {}
    for i, metric in ipairs(filter.metrics) do
        local figure = changes and changes[metric.name] or FIGURES[metric.name]
        figures[i] = metric.name .. "=" .. figure
    end
    return ("SysHealth: rc=%d tval=1700000000.000001 delta_t=10.000 startSt=Deact endSt=Act "
        .. "min_dur=1800 act_dur=75 port=443 %s"):format(action, table.concat(figures, " "))
end

-- A module that answers the given actions in turn and remembers what it was asked.
local function scripted(actions, changes)
    local asked, cycle = {}, 0
    SLB = { filter = {} }
    function SLB.filter.CheckSystemHealthMetrics(_, state, policy)
        cycle = cycle + 1
        asked[cycle] = state .. " " .. policy
        return { action = actions[cycle] }
    end
    function SLB.filter.GetSysHealthMetrics()
        local rows = {}
        for i, metric in ipairs(filter.metrics) do
            rows[i] = { name = metric.name, value = 0, threshold = 0 }
        end
        rows[1].value, rows[1].threshold = 9, 8
        rows[7] = { cpu_count = 2 }
        return true, rows
    end
    local function records()
        return { { kind = "trace", message = "noise" },
                 { kind = "log", level = "info", message = status_line(actions[cycle], changes) },
                 { kind = "log", level = "error", message = "noise" } }
    end
    return asked, records
end

local function names(over)
    local list = {}
    for i, metric in ipairs(over) do list[i] = metric.name end
    return table.concat(list, " ")
end

-- Actions of successive cycles, and what the script makes of them.
local sequences = {
    { "stays out", { 0, 0 }, { "normal", "normal" }, { "Deactivated", "Deactivated" } },
    { "goes in, stays, leaves", { 1, 1, 0, 0 },
      { "enter fail-open", "stay fail-open", "leave fail-open", "normal" },
      { "Activated", "Activated", "Deactivated", "Deactivated" },
      { "entered", nil, "left", nil } },
    { "failures keep fail-open", { 1, 2, 5, 6, 7, 1 },
      { "enter fail-open", "not monitoring", "no load figures", "bad argument",
        "no memory figures", "stay fail-open" },
      { "Activated", "Activated", "Activated", "Activated", "Activated", "Activated" },
      { "entered" } },
    { "failures keep enforcing", { 5, 2, 0 }, { "no load figures", "not monitoring", "normal" },
      { "Deactivated", "Deactivated", "Deactivated" } },
    { "an action of a later module", { 9 }, { "action 9" }, { "Deactivated" } },
}

for _, sequence in ipairs(sequences) do
    local name, actions, texts, states, transitions = table.unpack(sequence)
    cases.case(name, function()
        local asked, records = scripted(actions, { rqpct = "9.000(8.000)" })
        local dom = document()
        local monitor = filter.new { dom = dom, policy = "P", records = records }
        local before = "Deactivated"
        for i in ipairs(actions) do
            local result = monitor:cycle()
            cases.equal(asked[i], before .. " P", "call " .. i)
            cases.equal(result.text, texts[i], "text " .. i)
            cases.equal(result.state, states[i], "state " .. i)
            cases.equal(result.transition, transitions and transitions[i], "transition " .. i)
            cases.equal(dom:get("vxp.filter.FailOpenState"), states[i], "document " .. i)
            before = states[i]
        end
    end)
end

-- Changed figures, the action of the first cycle, and the metrics that are over.
local judgements = {
    { "all within", {}, 0, "" },
    { "above", { rqpct = "8.100(8.000)" }, 1, "rqpct" },
    { "below is what is bad for free memory", { frepct = "4.999(5.000)" }, 1, "frepct" },
    { "equal is within", { rqpct = "8.000(8.000)", frepct = "5.000(5.000)" }, 0, "" },
    { "equal after rounding caused it", { rqpct = "8.000(8.000)" }, 1, "rqpct" },
    { "a metric that is off is never over", { scanmb = "700.000(0.000)" }, 0, "" },
    { "no number counts as within", { estab = "-nan(50.000)" }, 0, "" },
    { "infinite is over", { estab = "inf(50.000)", delta_t = "46.000(45.000)" }, 1,
      "estab delta_t" },
}

for _, judgement in ipairs(judgements) do
    local name, changes, action, over = table.unpack(judgement)
    cases.case(name, function()
        local _, records = scripted({ action }, changes)
        local result = filter.new { dom = document(), records = records }:cycle()
        cases.equal(names(result.over), over, "over")
        cases.equal({ result.exact, result.min_duration_s, result.in_fail_open_s, result.port },
            { true, 1800, 75, 443 }, "status")
    end)
end

cases.case("without records the figures are the whole numbers of the query", function()
    scripted { 1 }
    local result = filter.new { dom = document() }:cycle()
    cases.equal({ result.exact, result.metrics[1].value, names(result.over) },
        { false, 9, "rqpct" }, "result")
end)

cases.case("enforcement is switched before the state, with the wish to unload", function()
    local _, records = scripted { 1, 0 }
    local dom, switched, monitor = document(), {}, nil
    dom:set("vxp.filter.FailOpenUnloadDriver", true)
    monitor = filter.new { dom = dom, records = records, enforce = function(on, unload)
        switched[#switched + 1] = tostring(on) .. " " .. tostring(unload) .. " " .. monitor.state
    end }
    monitor:cycle()
    monitor:cycle()
    cases.equal(switched, { "false true Deactivated", "true true Activated" }, "switched")
end)

cases.case("a transition that cannot be carried out leaves the state", function()
    local _, records = scripted { 1 }
    local monitor = filter.new { dom = document(), records = records,
                                 enforce = function() error("driver busy", 0) end }
    local ok, message = pcall(monitor.cycle, monitor)
    cases.equal({ ok, message, monitor.state }, { false, "driver busy", "Deactivated" }, "outcome")
end)

cases.case("a pushed policy is used from the next cycle on", function()
    local asked, records = scripted { 0, 0 }
    local monitor = filter.new { dom = document(), policy = "A", records = records }
    monitor:cycle()
    monitor:set_policy(nil)
    monitor:cycle()
    cases.equal(asked, { "Deactivated A", "Deactivated " }, "asked")
end)

cases.finish()
