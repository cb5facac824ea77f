-- Thresholds proposed for a recorded machine, and what they give in its record.

local filter = require "filter"
local health_policy = require "health_policy"

local proposal = {}

local WEEK_S = 7 * 86400

-- ---- thresholds -------------------------------------------------------------------------

-- Steps between proposed thresholds; smaller differences mean nothing on a quiet machine.
local finest = { rqpct = 0.5, refusalpct = 1, estab = 1, scanmb = 0.1, delta_t = 1 }

local function unit_of_second_digit(value)
    return 10 ^ (math.floor(math.log(value, 10)) - 1)
end

-- Returns a number with at most two digits, for a value above 0, that is not tighter than the
-- value.
function proposal.round(value, metric)
    local unit = math.max(unit_of_second_digit(value), finest[metric.name] or 0)
    local units = metric.below and math.floor(value / unit) or math.ceil(value / unit)
    local rounded
    repeat  -- again if the division was inexact
        rounded = tonumber(("%.6g"):format(units * unit))
        units = units + (metric.below and -1 or 1)
    until metric.below and rounded <= value or not metric.below and rounded >= value
    return rounded
end

local SHORTEST_S = 0.9 * 86400

-- A threshold just above the interval is exceeded by the first cycle that is a little late.
local LEAST_INTERVALS = 2

-- Returns the threshold to propose, or false for none, or nil to keep the present one; and why it
-- is not simply the tightest one.
local function propose(metric, result, interval_s)
    local most = health_policy.find(metric.setting).max
    if not result.tightest or result.sampled < SHORTEST_S then
        return nil, "not enough values; unchanged"
    elseif result.tightest <= 0 then
        if metric.below then return false, "falls to 0; not judged" end
        if result.loosest > 0 then return finest[metric.name] end
        return nil, "always 0 in the first half; unchanged"
    end
    local least = metric.name == "delta_t" and math.min(LEAST_INTERVALS * interval_s, most) or 0
    local rounded = math.max(proposal.round(result.tightest, metric), least)
    if metric.below or rounded <= most then return math.min(rounded, most) end
    local bound = ("exceeds the bound of %.14g too often"):format(most)
    if metric.default then return most, bound end
    return false, bound .. "; not judged"
end

-- `found`: the result of vxa.tune; `present`: the settings in force at the end of the record.
-- Returns {found, entries, rows, policy}: for each metric {metric, result, present, proposed,
-- note}, and the proposed settings.
function proposal.make(found, present, entries)
    local tuning = { found = found, entries = entries, rows = {}, policy = {} }
    for key, value in pairs(present) do tuning.policy[key] = value end
    for i, metric in ipairs(filter.metrics) do
        local result = found.metrics[metric.name]
        local threshold, note = propose(metric, result, found.interval)
        if threshold ~= nil then tuning.policy[metric.setting] = threshold or nil end
        tuning.rows[i] = { metric = metric, result = result, note = note,
                           present = present[metric.setting] or metric.default,
                           proposed = threshold or nil }
    end
    return tuning
end

-- ---- trials -----------------------------------------------------------------------------

-- A policy that judges one metric only. The module always judges delta_t, so that gets a threshold
-- that nothing exceeds.
local function alone(tuning, metric, threshold)
    local settings = { SYS_CONF_CONN_REFUSAL_PORT = 1, SYS_THR_MAX_ITERATION_INVL = math.huge,
                       SYS_CONF_MIN_ACT_DURATION = tuning.policy.SYS_CONF_MIN_ACT_DURATION }
    settings[metric.setting] = threshold
    return settings
end

-- Returns the policies to replay: each present and each proposed threshold alone, and the
-- proposed policy.
function proposal.trials(tuning)
    local policies = {}
    for _, row in ipairs(tuning.rows) do
        policies[#policies + 1] = alone(tuning, row.metric, row.present)
        policies[#policies + 1] = alone(tuning, row.metric, row.proposed)
    end
    policies[#policies + 1] = tuning.policy
    return policies
end

-- Per week; nil if there is no time.
local function rate(entries, seconds)
    return seconds > 0 and entries * WEEK_S / seconds or nil
end

-- Adds what the replay of the trials gave: to each row `present_rate`, entries per week with the
-- present threshold, and `second`, those of the second half with the proposed one, {entries, rate,
-- kept}, if it has values; to the tuning `whole`, the outcome of the proposed policy, and
-- `confirmed`, nil if no proposed threshold could be tried.
function proposal.judge(tuning, replayed)
    local second_s = replayed.counted - tuning.found.first_half.counted
    tuning.whole = replayed.outcomes[#replayed.outcomes]
    tuning.whole.second_rate =
        rate(tuning.whole.entries - tuning.whole.first_entries, second_s)
    for i, row in ipairs(tuning.rows) do
        local present, proposed = replayed.outcomes[2 * i - 1], replayed.outcomes[2 * i]
        if row.present and row.result.count > 0 then
            row.present_rate = rate(present.entries, replayed.counted)
        end
        if row.proposed and row.result.count == row.result.first_half_count then
            row.note = "no values in the second half"
        elseif row.proposed then
            local entries = proposed.entries - proposed.first_entries
            row.second = { entries = entries, rate = rate(entries, second_s),
                           kept = entries <= tuning.entries * second_s / WEEK_S }
            tuning.confirmed = tuning.confirmed ~= false and row.second.kept
        end
    end
end

return proposal
