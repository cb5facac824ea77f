-- The filter script's health monitor on the real module: transitions, values, who is over.
-- Runs in the sandbox, which has the files and commands that the module reads.

local cases = require "cases"
local filter = require "filter"
local testing = require "testing"
local vxa = require "vxa"

local SANDBOX = os.getenv("SANDBOX") .. "/"

-- ---- options ----------------------------------------------------------------------------

local dom = vxa.Dom()

cases.case("wrong options", function()
    testing.raises("require 'fc' first", filter.new, { dom = dom })
    require "fc"
    for _, row in ipairs {
        { "a table of options expected, not nil" },
        { "options.dom must be an SLB.Dom, not nil", {} },
        { "options.dom must be an SLB.Dom, not table", { dom = { get = 1, set = 1 } } },
        { "options.dom must be an SLB.Dom, not userdata", { dom = io.stdout } },
        { "unknown option 'polciy'", { dom = dom, polciy = "" } },
        { "options.policy must be a string, not number", { dom = dom, policy = 7 } },
        { "options.enforce must be a function, not boolean", { dom = dom, enforce = true } },
    } do
        testing.raises(row[1], filter.new, row[2])
    end
    testing.raises("unknown option 'islocal'", filter.feedback, { islocal = print })
    testing.raises("the policy must be a string, not table", filter.new { dom = dom }.set_policy,
        {}, {})
end)

-- ---- cycles -----------------------------------------------------------------------------

-- What the module finds on the machine; nil for a command or file that gives nothing.
local function set_machine(load, free_pct)
    testing.write(SANDBOX .. "nproc.out", "4\n")
    testing.write(SANDBOX .. "uptime.out", load and (" up 1 day, load average: %s, 0.4, 0.3\n")
        :format(load) or "")
    testing.write(SANDBOX .. "meminfo", free_pct and ("MemTotal: 1000000 kB\nMemFree: %d kB\n")
        :format(free_pct * 10000) or "")
end

local function records()
    return (vxa.captured())
end

local function monitor_of(options)
    options.dom, options.records = dom, options.records or records
    vxa.captured()
    return filter.new(options)
end

local function names(over)
    local list = {}
    for i, metric in ipairs(over) do list[i] = metric.name end
    return table.concat(list, " ")
end

vxa.capture(true)
vxa.verbose(true)
vxa.trace("SysHealth.eng", true)

-- In each cycle: load, free memory in %, text of the action, state, transition. The minimum
-- time of fail-open is 0, so the second cycle leaves it.
local POLICY = '{"SYS_CONF_MIN_ACT_DURATION":0,"SYS_THR_RUNQ":{"value":8},'
    .. '"SYS_THR_FREE_MEM":{"value":5}}'
local sequences = {
    { "stays out", { "0.5", 50, "normal", "Deactivated" }, { "8.0", 5, "normal", "Deactivated" } },
    { "goes in and leaves", { "9.0", 50, "enter fail-open", "Activated", "entered" },
      { "9.0", 50, "leave fail-open", "Deactivated", "left" },
      { "0.5", 4, "enter fail-open", "Activated", "entered" } },
    { "failures keep fail-open", { "9.0", 50, "enter fail-open", "Activated", "entered" },
      { nil, 50, "no load figures", "Activated" }, { "9.0", nil, "no memory figures", "Activated" },
      { "0.5", 50, "leave fail-open", "Deactivated", "left" } },
    { "failures keep enforcing", { nil, nil, "no load figures", "Deactivated" },
      { "0.5", 50, "normal", "Deactivated" } },
}

for _, sequence in ipairs(sequences) do
    cases.case(sequence[1], function()
        local switched = {}
        local monitor = monitor_of { policy = POLICY,
            enforce = function(...) switched[#switched + 1] = { ... } end }
        for i = 2, #sequence do
            local load, free, text, state, transition = table.unpack(sequence[i], 1, 5)
            set_machine(load, free)
            local result = monitor:cycle()
            cases.equal({ result.text, result.state, dom:get("vxp.filter.FailOpenState"),
                          result.transition },
                { text, state, state, transition }, "cycle " .. i - 1)
            cases.equal(table.remove(switched), transition and { state == "Deactivated", false },
                "enforcement")
        end
    end)
end

-- Policy, its settings as the caller knows them, and the metrics that are over, with values and
-- thresholds, at a load of 8.0 and 4 % free memory.
local judgements = {
    { '{"SYS_THR_RUNQ":{"value":8}}', nil, "" },
    { '{"SYS_THR_RUNQ":{"value":7.9999}}', nil, "rqpct", 8, 7.9999 },
    { '{"SYS_THR_RUNQ":{"value":0.0004}}', nil, "rqpct", 8, 0.0004 },
    { '{"SYS_THR_RUNQ":{"value":0.0004},"SYS_THR_FREE_MEM":{"value":25}}', {}, "rqpct frepct",
      8, 0.0004 },
    { '{"SYS_THR_FREE_MEM":{"value":4}}', nil, "" },
    { '{"SYS_THR_FREE_MEM":{"value":0.0004}}', nil, "" },
}

for _, row in ipairs(judgements) do
    local policy, settings, over, value, threshold = table.unpack(row, 1, 5)
    cases.case(policy, function()
        set_machine("8.0", 4)
        local result = monitor_of { policy = policy, settings = settings }:cycle()
        local first = result.over[1] or {}
        cases.equal({ names(result.over), first.value, first.threshold },
            { over, value, threshold }, "over")
        cases.equal({ result.exact, result.min_duration_s, result.port, result.metrics[5].enabled },
            { true, 1800, 0, policy:find("FREE_MEM") ~= nil }, "status")
    end)
end

cases.case("without traces, what is equal to its threshold caused it", function()
    local function status_lines()
        local found = {}
        for _, record in ipairs(records()) do
            if record.kind == "log" then found[#found + 1] = record end
        end
        return found
    end
    set_machine("8.0", 4)
    local policy = '{"SYS_THR_RUNQ":{"value":7.9999}}'
    local result = monitor_of { policy = policy, settings = {}, records = status_lines }:cycle()
    cases.equal({ result.text, names(result.over) }, { "enter fail-open", "rqpct" }, "over")
end)

cases.case("without records the values are whole numbers", function()
    set_machine("8.7", 50)
    local monitor = monitor_of { policy = '{"SYS_THR_RUNQ":{"value":0.5}}',
                                 records = function() return {} end }
    local result = monitor:cycle()
    cases.equal({ result.exact, result.metrics[1].value, result.metrics[1].threshold,
                  names(result.over) }, { false, 8, 0.5, "rqpct" }, "result")
end)

cases.case("values that there are not", function()
    set_machine("0.5", 50)
    vxa.engine("sim")
    local monitor = monitor_of { policy = '{"SYS_CONF_CONN_REFUSAL_PORT":443,"SYS_THR_RUNQ":'
        .. '{"value":8},"SYS_THR_CONN_REFUSAL_PCT":{"value":50}}' }
    local function values()
        local list = {}
        for i, row in ipairs(monitor:cycle().metrics) do
            list[i] = not row.enabled and "off" or row.value and "value" or "none"
        end
        return table.concat(list, " ")
    end
    cases.equal(values(), "value none off off off value", "first cycle")
    cases.equal(values(), "value value off off off value", "second cycle")
    set_machine("9.0", 50)
    values()
    cases.equal(values(), "value off off off off value", "in fail-open")
end)

cases.case("a transition that cannot be carried out leaves the state", function()
    set_machine("9.0", 50)
    local monitor = monitor_of { policy = POLICY, enforce = function() error("driver busy", 0) end }
    local ok, message = pcall(monitor.cycle, monitor)
    cases.equal({ ok, message, monitor.state }, { false, "driver busy", "Deactivated" }, "outcome")
end)

cases.case("what is wrong with a policy is reported once", function()
    set_machine("0.5", 50)
    local monitor = monitor_of { policy = '{"a":1,}' }
    local first, second = monitor:cycle(), monitor:cycle()
    cases.equal({ first.text, second.policy_error }, { "not monitoring" }, "results")
    cases.matches(first.policy_error, "^line 1, column 7: a comma", "the error")
    monitor:set_policy('{"SYS_THR_RUNQ":8,"SYS_THR_FREE_MEM":{"value":1}}')
    local mistyped = monitor:cycle()
    cases.matches(mistyped.policy_error, '^SYS_THR_RUNQ must be {"value": 8}', "the error")
    cases.equal({ mistyped.text, mistyped.metrics[5].enabled }, { "normal", true }, "result")
    monitor:set_policy('{"SYS_THR_RUNQUE":{"value":8},"SYS_THR_FREE_MEM":{"value":1}}')
    local unknown = monitor:cycle()
    cases.equal({ unknown.policy_error, #unknown.policy_warnings }, { nil, 1 }, "warnings")
    cases.equal(monitor:cycle().policy_warnings, nil, "warnings of the next cycle")
end)

cases.case("numbers of the status line", function()
    local status = filter.parse_status("SysHealth: rc=0 tval=1 delta_t=1 startSt=Deact endSt=Deact "
        .. "min_dur=60 act_dur=7 port=443 estab=inf(50.000) scanmb=-nan(1.000)")
    local estab, value = status.figures.estab, status.figures.scanmb.value
    cases.equal({ status.in_fail_open_s, estab.value, estab.threshold, value == value },
        { 7, math.huge, 50, false }, "read")
end)

cases.finish()
