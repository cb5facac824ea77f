-- vxa replay: what policies would have done in a recorded run.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local filter = require "filter"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local records = require "vxa.records"
local session = require "vxa.session"

local function define(command)
    command:description("Show when a recorded run was in fail-open, and when it would have been "
        .. "with other policies.")
    option.add_record(command)
    command:option("--policy", "A health policy, a JSON file. May be repeated.")
        :argname("FILE.json"):convert(option.file_name("--policy")):count("*"):target("policies")
    option.add_lenient(command)
    option.add_json(command)
end

-- ---- policies ---------------------------------------------------------------------------

local function read_policies(vxa, options)
    local policies, settings = {}, {}
    for i, path in ipairs(options.policies) do
        policies[i] = policy_source.read(vxa, path, options.lenient)
        policy_source.warn(policies[i])
        settings[i] = policies[i].values
    end
    return policies, settings
end

local function has_threshold(values, metric)
    return (values[metric.setting] or metric.default) ~= nil
end

-- The rates in a record are those of the port that was monitored.
local function warn_of_port(policy, result)
    local port = policy.values.SYS_CONF_CONN_REFUSAL_PORT
    if not port or result.port == 0 or port == result.port then return end
    for _, metric in ipairs(filter.metrics) do
        if metric.rate and has_threshold(policy.values, metric) then
            console.complain(("warning: %s monitors port %d; the record has the rates of port %d")
                :format(policy.source, port, result.port))
            return
        end
    end
end

-- The outcomes as they are shown: first that of the recorded run.
local function take_outcomes(result, policies)
    local outcomes = { result.recorded }
    result.recorded.title, result.recorded.monitoring = "as recorded", true
    for i, policy in ipairs(policies) do
        warn_of_port(policy, result)
        outcomes[i + 1] = result.outcomes[i]
        outcomes[i + 1].policy, outcomes[i + 1].title = policy, printable(policy.source)
    end
    return outcomes
end

-- ---- text -------------------------------------------------------------------------------

local function show_record(path, result)
    console.line("%s", records.describe(path, result))
    console.line("%s, %s; %s not sampled, %s not monitored", format.count(result.starts, "start"),
        format.count(result.gaps, "gap"), format.count(result.failed, "cycle"),
        format.grouped(result.disabled))
end

-- Metrics that some policy judges and that the record lacks in places.
local function show_missing(result, policies)
    for _, metric in ipairs(filter.metrics) do
        local count, is_judged = result.missing[metric.name], false
        for _, policy in ipairs(policies) do
            is_judged = is_judged or has_threshold(policy.values, metric)
        end
        if count and is_judged then
            console.line("%s was not recorded in %s of %s cycles, and is not judged there",
                metric.name, format.grouped(count), format.grouped(result.measured))
        end
    end
end

local function why_disabled(values)
    for _, metric in ipairs(filter.metrics) do
        if metric.rate and values[metric.setting] then
            return "not monitoring: a connection threshold, but no port"
        end
    end
    return "not monitoring: no valid setting"
end

local function causes(outcome)
    if not outcome.monitoring then return why_disabled(outcome.policy.values) end
    local list = {}
    for _, metric in ipairs(filter.metrics) do
        local count = outcome.causes[metric.name]
        if count then list[#list + 1] = ("%s %d"):format(metric.name, count) end
    end
    return table.concat(list, ", ")
end

local function show_totals(outcomes)
    local rows = { { "policy", "entries", "fail-open", "longest", "enforced", "causes" } }
    for i, outcome in ipairs(outcomes) do
        rows[i + 1] = { outcome.title, ("%d"):format(outcome.entries),
                        ("%.1f min"):format(outcome.fail_open / 60),
                        ("%.1f min"):format(outcome.longest / 60), records.share(outcome),
                        causes(outcome) }
    end
    console.line("")
    console.lines(format.columns(rows, { [2] = true, [3] = true, [4] = true, [5] = true }))
end

local function end_of(stretch)
    if not stretch.left then return "still in fail-open" end
    return records.time(stretch.left) .. (stretch.restarted and " (run ended)" or "")
end

-- "rqpct 12.3 > 12"
local function because(metrics)
    local list = {}
    for i, metric in ipairs(metrics) do
        local value, threshold = format.number(metric.value), format.number(metric.threshold)
        if value == threshold then
            value, threshold = format.exact(metric.value), format.exact(metric.threshold)
        end
        list[i] = ("%s %s %s %s"):format(metric.name, value,
            filter.metrics[metric.name].below and "<" or ">", threshold)
    end
    return #list > 0 and table.concat(list, ", ") or "not known"
end

local function show_stretches(outcome)
    local rows = { { "entered", "left", "because" } }
    for i, stretch in ipairs(outcome.stretches) do
        rows[i + 1] = { records.time(stretch.entered), end_of(stretch), because(stretch.over) }
    end
    console.line("")
    console.line("%s, times in UTC:", outcome.title)
    console.lines(format.columns(rows, {}))
    local more = outcome.entries - #outcome.stretches
    if more > 0 then console.line("and %s more", format.grouped(more)) end
    if outcome.held > 0 then
        console.line("(%s waited one more cycle: their rates span several intervals)",
            format.count(outcome.held, "entry", "entries"))
    end
end

local function show_text(path, result, outcomes, policies)
    show_record(path, result)
    show_missing(result, policies)
    show_totals(outcomes)
    for _, outcome in ipairs(outcomes) do
        if outcome.entries > 0 then show_stretches(outcome) end
    end
end

-- ---- JSON -------------------------------------------------------------------------------

local function json_time(seconds)
    return seconds and json_records.time(seconds) or json_records.null
end

local function json_stretches(stretches)
    local list = json_records.array {}
    for i, stretch in ipairs(stretches) do
        list[i] = { entered = json_time(stretch.entered), left = json_time(stretch.left),
                    restarted = stretch.restarted, over = json_records.array(stretch.over),
                    in_fail_open_s = json_records.duration(stretch.lasted) }
    end
    return list
end

local function show_json(path, result, outcomes)
    json_records.print(records.summary(path, result))
    for _, outcome in ipairs(outcomes) do
        json_records.print {
            record = "replay", policy_source = outcome.policy and outcome.policy.source
                or json_records.null,
            monitoring = outcome.monitoring, entries = outcome.entries, held = outcome.held,
            enforced_s = json_records.duration(outcome.enforced),
            fail_open_s = json_records.duration(outcome.fail_open),
            longest_s = json_records.duration(outcome.longest),
            causes = json_records.object(outcome.causes),
            stretches = json_stretches(outcome.stretches),
        }
    end
end

local function run(options)
    local vxa = session.load_host()
    local policies, settings = read_policies(vxa, options)
    local pass, message = vxa.replay(options.record, settings)
    if not pass then exit.fail(2, "%s", message) end
    local result = records.read(vxa, pass)
    if result.cycles == 0 then exit.fail(2, "%s has no cycles", options.record) end
    local outcomes = take_outcomes(result, policies)
    if options.json then
        show_json(options.record, result, outcomes)
    else
        show_text(options.record, result, outcomes, policies)
    end
    return 0
end

return { define = define, run = run }
