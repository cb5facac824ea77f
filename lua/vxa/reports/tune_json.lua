-- Prints proposed thresholds as a JSON record.

local json_records = require "vxa.output.json_records"
local records = require "vxa.records"

local or_null = json_records.or_null

local NAMES = { [false] = { "p50", "p99", "p99.9", "max" },
                [true] = { "p50", "p1", "p0.1", "min" } }

local function quantiles(row)
    local list = {}
    for i, name in ipairs(NAMES[row.metric.below == true]) do
        list[name] = row.result.count > 0 and row.result.quantiles[i] or json_records.null
    end
    return list
end

local function metric_row(row)
    local second = row.second or {}
    return {
        name = row.metric.name, unit = row.metric.unit, values = row.result.count,
        quantiles = quantiles(row), threshold = or_null(row.present),
        entries_per_week = or_null(row.present_rate), proposed = or_null(row.proposed),
        second_half_entries = or_null(second.entries), second_half_per_week = or_null(second.rate),
        confirmed = or_null(second.kept), note = or_null(row.note),
    }
end

return function(options, tuning)
    local metrics, whole = json_records.array {}, tuning.whole
    for i, row in ipairs(tuning.rows) do metrics[i] = metric_row(row) end
    json_records.print(records.summary(options.record, tuning.found))
    json_records.print {
        record = "tuning", entries_per_week = tuning.entries,
        first_half_end = json_records.time(tuning.found.first_half.last),
        metrics = metrics, confirmed = or_null(tuning.confirmed),
        policy = json_records.policy(tuning.policy),
        entries = whole.entries, first_half_entries = whole.first_entries,
        second_half_per_week = or_null(whole.second_rate),
        enforced_s = json_records.duration(whole.enforced),
        fail_open_s = json_records.duration(whole.fail_open),
    }
end
