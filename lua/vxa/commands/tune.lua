-- vxa tune: thresholds for the metrics of a recorded machine.

local exit = require "vxa.exit"
local health_policy = require "health_policy"
local new_file = require "vxa.output.new_file"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local proposal = require "vxa.proposal"
local records = require "vxa.records"
local session = require "vxa.session"

local reports = { [true] = "vxa.reports.tune_json", [false] = "vxa.reports.tune_text" }

local MOST_ENTRIES = 10000

local function entries_per_week(text)
    local number = option.decimal(text)
    if number and number <= MOST_ENTRIES then return number end
    return nil, ("--entries-per-week must be a number from 0 to %d, not '%s'")
        :format(MOST_ENTRIES, text)
end

local function define(command)
    command:description("Find thresholds in a record: the distribution of each metric, and the "
        .. "tightest threshold that enters fail-open seldom enough.")
    option.add_record(command)
    command:option("--entries-per-week", "How often a metric alone may enter fail-open "
        .. "(default 1)."):argname("N"):convert(entries_per_week):default(1):target("entries")
    command:option("-o --output", "Write the policy to this file."):argname("FILE.json")
        :convert(option.file_name("--output"))
    command:flag("--force", "Replace an existing file.")
    option.add_json(command)
end

local DEFAULT_MINUTES = 30

-- Without `minutes`, the minimum duration of fail-open is that of the record's first half.
local function find(vxa, options, minutes)
    local pass, message = vxa.tune(options.record, options.entries, minutes)
    if not pass then exit.fail(2, "%s", message) end
    return records.read(vxa, pass)
end

local SHORTEST_S = 86400

local function check_length(path, found)
    if found.cycles == 0 then exit.fail(2, "%s has no cycles", path) end
    if found.sampled >= SHORTEST_S then return end
    exit.fail(2, "%s has samples of %.1f hours; to find thresholds, at least 24 are needed", path,
        found.sampled / 3600)
end

-- The settings of the record's last policy. It was in force, so the module accepted it.
local function present_settings(path, found)
    local values, message = health_policy.check(found.policy, true)
    return values or exit.fail(2, "%s: the last policy of the record: %s", path, message)
end

-- Replays the record with each threshold alone and with the proposed policy.
local function try(vxa, options, tuning)
    local pass, message = vxa.replay(options.record, proposal.trials(tuning),
        tuning.found.first_half.cycles)
    if not pass then exit.fail(2, "%s", message) end
    proposal.judge(tuning, records.read(vxa, pass))
end

local function write_policy(vxa, options, tuning)
    if not options.output then return end
    new_file.write(vxa, options.output, options.force, "policy",
        function(file) return file:write(policy_source.to_text(tuning.policy)) end)
end

local function run(options)
    local vxa = session.load_host()
    if options.output then
        new_file.check(vxa, options.output, options.force, options.record)
    end
    local found = find(vxa, options)
    check_length(options.record, found)
    local present = present_settings(options.record, found)
    local minutes = present.SYS_CONF_MIN_ACT_DURATION or DEFAULT_MINUTES
    if minutes ~= found.minimum_minutes then found = find(vxa, options, minutes) end
    local tuning = proposal.make(found, present, options.entries)
    try(vxa, options, tuning)
    write_policy(vxa, options, tuning)
    require(reports[options.json == true])(options, tuning)
    return 0
end

return { define = define, run = run }
