-- Replaying records and finding thresholds in them.

local filter = require "filter"
local json = require "dkjson"
local proposal = require "vxa.proposal"
local scratch = require "scratch"
local testing = require "testing"
local vxa_module = require "vxa"

local equal, matches = testing.equal, testing.matches
local shell, vxa = scratch.shell, scratch.vxa
local ROOT, SCRATCH = os.getenv "VXA_ROOT", scratch.path

local function decode(text)
    local records = {}
    for line in text:gmatch("{[^\n]*") do records[#records + 1] = json.decode(line) end
    return records
end

-- ---- a run and its replay -------------------------------------------------------------------

testing.write(SCRATCH .. "own.json", [[{"SYS_CONF_CONN_REFUSAL_PORT": 443,
    "SYS_CONF_MIN_ACT_DURATION": 0, "SYS_THR_CONN_REFUSAL_PCT": {"value": 20},
    "SYS_THR_RUNQ": {"value": 8.000000000000002}, "SYS_THR_FREE_MEM": {"value": 1}}]])
testing.write(SCRATCH .. "loose.json", '{"SYS_THR_RUNQ": {"value": 200}, "TYPO": 1}')
testing.write(SCRATCH .. "no_port.json", '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 20}}')
for _ = 1, 2 do
    vxa("run --record r.csv --policy own.json --interval 0.01 --cycles 60",
        "VXI_SIM=scenario=busy:5/overloaded:5,interval_s=1")
end
-- So that no cycle of a slow machine is more than three intervals late.
shell "sed -i 's/interval 0.01 s/interval 10 s/' r.csv"
local REPLAY = "replay r.csv --policy own.json --policy loose.json --policy no_port.json"
local lines = vxa(REPLAY .. " --json 2>/dev/null")
equal(select(2, lines:gsub('"fail_open_s":', "")), 4, "each member once")
local printed = decode(lines)
local summary, recorded, own, loose, no_port = table.unpack(printed)
equal({ summary.cycles, summary.starts }, { 120, 2 }, "cycles and starts")
equal(recorded.entries > 4 and recorded.fail_open_s > 0, true, "entered")
for _, member in ipairs { "entries", "enforced_s", "fail_open_s", "longest_s" } do
    equal(own[member], recorded[member], member)
end
equal({ own.stretches, own.causes }, { recorded.stretches, recorded.causes }, "what was recorded")
equal({ loose.entries, loose.enforced_s }, { 0, summary.seconds }, "always enforced")
matches(lines, '"threshold":8.000000000000002}', "exact")
equal(no_port.monitoring, false, "no port")

shell "sed 's/$/\\r/' r.csv >crlf.csv"
equal(decode(vxa "replay crlf.csv --json")[2], recorded, "CRLF")
local text = vxa(REPLAY)
matches(text, "warning: loose.json: 'TYPO' is not a setting", "warning")
matches(text, "\nas recorded +" .. recorded.entries .. " ", "recorded")
matches(text, "\nloose.json +0 +0.0 min +0.0 min +100.00 %%\n", "loose")
matches(text, "not monitoring: a connection threshold, but no port\n", "reason")
matches(text, "\n%d[^\n]* rqpct [%d.]+ > 8, refusalpct [%d.]+ > 20\n", "moment")

-- Exactly three intervals, a clock that is set back, and a little more than three intervals.
local record = testing.read(SCRATCH .. "r.csv"):match("^.-,errors\n")
for i, second in ipairs { 0, 10, 40, 11, 21, 52 } do
    record = record .. ("2026-01-01 00:00:%02d.000000,0,Deactivated,,1,,,,%s,,\n")
        :format(second, i == 1 and "" or 50)
end
testing.write(SCRATCH .. "steps.csv", record)
summary, recorded, own = table.unpack(decode((vxa "replay steps.csv --policy own.json --json")))
equal({ summary.seconds, summary.gaps, summary.missing.frepct }, { 50, 2, 1 }, "gaps")
equal({ own.entries, own.enforced_s, recorded.enforced_s }, { 0, 50, 50 }, "not judged")
matches(vxa "replay steps.csv --policy own.json",
    "\nfrepct was not recorded in 1 of 6 cycles, and is not judged there\n", "missing")

-- ---- thresholds -----------------------------------------------------------------------------

local ROWS = 30000
-- With many restarts, so that some are in fail-open.
shell(("lua5.2 %s/bench/make_record.lua %d 7 | sed '9~97i # vxa record 1' >long.csv")
    :format(ROOT, ROWS))

-- Returns the rows with numbers by column, `start` in the first of each run.
local function read_rows(name)
    local rows, columns, start = {}, nil, true
    for line in io.lines(SCRATCH .. name) do
        if line:find("^#") then start = true goto next_line end
        local row, i = { start = start }, 0
        for field in line:gmatch("([^,]*),") do
            i = i + 1
            if columns then row[columns[i] or i] = tonumber(field) else row[i] = field end
        end
        if columns then
            local h, m, s = line:match(" (%d+):(%d+):([%d.]+)")
            row.time = os.time { year = line:sub(1, 4), month = line:sub(6, 7),
                                 day = line:sub(9, 10), hour = 0 } + h * 3600 + m * 60 + s
            rows[#rows + 1], start = row, false
        end
        columns = columns or row
        ::next_line::
    end
    return rows
end

local function is_over(metric, value, threshold)
    if metric.below then return value < threshold end
    return value > threshold
end

local function entries(rows, last, metric, threshold)
    local since, missed, count = nil, false, 0
    for i = 1, last do
        local row = rows[i]
        if row.start then since, missed = nil, false end
        if row.action >= 5 then
            missed = true
        else
            local value = row[metric.name]
            if since then
                if row.time - since >= 1800 - 1e-7 then since = nil end
            elseif value and is_over(metric, value, threshold) and not (missed and metric.rate) then
                since, count = row.time, count + 1
            end
            missed = false
        end
    end
    return count
end

local function values_of(rows, last, metric)
    local values = {}
    for i = 1, last do values[#values + 1] = rows[i][metric.name] end
    table.sort(values, metric.below and function(a, b) return a > b end or nil)
    return values
end

local rows = read_rows "long.csv"
local pass = vxa_module.tune(SCRATCH .. "long.csv", 300)
repeat until pass:read() == 1
local found = pass:result()
local half = found.first_half.cycles
equal(#rows, found.cycles, "rows")
equal(found.allowed, math.floor(300 * found.first_half.counted / 604800), "allowed")
equal(half > 0.49 * ROWS and half < 0.51 * ROWS, true, "half")
for _, metric in ipairs(filter.metrics) do
    local result, values = found.metrics[metric.name], values_of(rows, ROWS, metric)
    for i, share in ipairs { 0.5, 0.99, 0.999, 1 } do
        equal(result.quantiles[i], values[math.ceil(share * #values)], metric.name .. share)
    end
    local tighter
    for _, value in ipairs(values_of(rows, half, metric)) do
        if not is_over(metric, value, result.tightest) and value ~= result.tightest then
            tighter = value
        end
    end
    local count = entries(rows, half, metric, result.tightest)
    equal(count <= found.allowed, true, metric.name .. " stays within")
    equal(entries(rows, half, metric, tighter) > found.allowed, true, metric.name .. " is tight")
    local round = proposal.round(result.tightest, metric)
    equal(is_over(metric, result.tightest, round), false, metric.name .. " is rounded away")
    equal(tostring(round):gsub("[0.]", ""):len() <= 2, true, metric.name .. " " .. round)
end

-- ---- the command ----------------------------------------------------------------------------

local tuned = decode((vxa "tune long.csv --entries-per-week 300 --json -o found.json"))[2]
equal(tuned.policy.SYS_THR_RUNQ.value,
    proposal.round(found.metrics.rqpct.tightest, filter.metrics[1]), "proposed")
for i, metric in ipairs(tuned.metrics) do
    local kind, threshold = filter.metrics[i], metric.proposed
    equal(metric.second_half_entries, entries(rows, ROWS, kind, threshold)
        - entries(rows, half, kind, threshold), metric.name .. " in the second half")
    equal(metric.confirmed, metric.second_half_per_week <= 300, metric.name .. " is confirmed")
end
local _, status = vxa "run --policy found.json --cycles 1"
equal(status, 0, "the policy is accepted")
equal(decode((vxa "replay long.csv --policy found.json --json"))[3].entries, tuned.entries, "same")
matches(vxa "tune long.csv --entries-per-week 300 --output found.json", "already exists", "kept")
tuned = decode((vxa "tune long.csv --entries-per-week 10000 --json"))[2]
equal(tuned.metrics[2].proposed, 1, "0 is rounded up")
shell(("awk -F, -v OFS=, 'NR > %d && !/^#/ { $7 = \"\" } 1' long.csv >cut.csv"):format(half - 2e3))
tuned = decode((vxa "tune cut.csv --json"))[2].metrics[3]
equal({ tuned.confirmed == nil, tuned.note }, { true, "no values in the second half" }, "untried")
text = vxa "tune long.csv"
matches(text, "\nmetric +p50 +p99 .*\n{\n  \"SYS_CONF_CONN_REFUSAL_PORT\": 443,\n.*\n}\n$",
    "printed")

-- ---- what is refused ------------------------------------------------------------------------

shell "head -8000 long.csv >short.csv; head -4 long.csv >empty.csv; echo a,b >foreign.csv"
shell "cp short.csv slow.csv; head -2 long.csv | sed 's/interval 10/interval 90/' >>slow.csv"
shell "tail -1 short.csv >>slow.csv"
shell "mkfifo fifo; truncate -s 1G sparse"
for _, case in ipairs {
    { "tune short.csv", "short.csv has samples of 22.0 hours; to find thresholds, at least 24" },
    { "tune slow.csv", "slow.csv has samples of 22.0 hours" },
    { "tune empty.csv", "empty.csv has no cycles" },
    { "tune foreign.csv", "foreign.csv: not a record of vxa run %-%-record" },
    { "replay fifo", "fifo: not a regular file" },
    { "replay sparse", "sparse: not a record" },
    { "replay long.csv --policy none", "policy none: No such file" },
    { "tune long.csv --entries-per-week -1", "must be a number from 0 to 10000, not '%-1'" },
} do
    text, status = vxa(case[1])
    matches(text, "^vxa: [^\n]*" .. case[2], case[1])
    equal(status, 2, case[1])
end

testing.finish()
