-- Prints proposed thresholds for people.

local console = require "vxa.output.console"
local format = require "vxa.output.format"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local records = require "vxa.records"

local function threshold(row, value)
    if not value then return "-" end
    return (row.metric.below and "< " or "> ") .. format.number(value)
end

local function per_week(number)
    return number and ("%.1f"):format(number) or "-"
end

local function second_half(second)
    if not second then return "" end
    return per_week(second.rate) .. (second.kept and "" or "!")
end

local function metric_row(row)
    local cells = { row.metric.name }
    for i = 1, 4 do
        local value = row.result.count > 0 and row.result.quantiles[i]
        cells[i + 1] = value and format.number(value) or "-"
    end
    cells[6], cells[7] = threshold(row, row.present), per_week(row.present_rate)
    cells[8], cells[9] = threshold(row, row.proposed), second_half(row.second)
    cells[10] = row.note or ""
    return cells
end

local HEADING = { "metric", "p50", "p99", "p99.9", "max", "present", "a week", "proposed",
                  "2nd half", "" }
local RIGHT = { [2] = true, [3] = true, [4] = true, [5] = true, [6] = true, [7] = true, [8] = true,
                [9] = true }

local function show_metrics(rows)
    local cells = { HEADING }
    for i, row in ipairs(rows) do cells[i + 1] = metric_row(row) end
    console.lines(format.columns(cells, RIGHT))
end

local function show_verdict(tuning)
    local whole = tuning.whole
    if tuning.confirmed == nil then
        console.line("No proposed threshold could be tried on the second half.")
    elseif tuning.confirmed then
        console.line("The second half confirms the proposed thresholds that it has values for.")
    else
        console.line("Not confirmed: in the second half, the metrics marked with ! entered "
            .. "fail-open more often.")
    end
    console.line("All together: %s in the first half, %d in the second (%s a week); enforced %s of "
        .. "the time.", format.count(whole.first_entries, "entry", "entries"),
        whole.entries - whole.first_entries, per_week(whole.second_rate), records.share(whole))
end

local function show_policy(options, tuning)
    console.line("")
    if options.output then return console.line("policy: %s", printable(options.output)) end
    console.write(policy_source.to_text(tuning.policy))
end

return function(options, tuning)
    local found = tuning.found
    console.line("%s", records.describe(options.record, found))
    console.line("Thresholds are found in the first half, up to %s, and tried on the second.",
        records.time(found.first_half.last))
    console.line("")
    show_metrics(tuning.rows)
    console.line("(frepct: p1, p0.1 and the minimum. a week, 2nd half: entries into fail-open per "
        .. "week")
    console.line("if nothing but this metric is judged; at most %.14g are wanted)", tuning.entries)
    console.line("")
    show_verdict(tuning)
    show_policy(options, tuning)
end
