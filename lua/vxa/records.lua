-- Records of a run: reading them to their end, and what several commands print of them.

local exit = require "vxa.exit"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local printable = require "vxa.output.printable"
local progress = require "vxa.output.progress"

local records = {}

-- Reads the rest of a record by calling pass:read(), and returns pass:result(). Shows progress on a
-- terminal and ends the command after a signal.
function records.read(vxa, pass)
    local shown = progress.new(vxa, "reading the record")
    repeat
        local done, message = pass:read()
        if not done or vxa.interrupted() then shown:finish() end
        if not done then exit.fail(2, "%s", message) end
        exit.if_interrupted(vxa)
        shown:show_share(done)
    until done == 1
    shown:finish()
    return pass:result()
end

-- "2026-11-22 04:06:37", in UTC.
function records.time(seconds)
    return os.date("!%Y-%m-%d %H:%M:%S", math.floor(seconds))
end

-- "day.csv: 8,640 cycles of 10 s, ... to ... UTC"
function records.describe(path, summary)
    return ("%s: %s cycles of %s, %s to %s UTC"):format(printable(path),
        format.grouped(summary.cycles), format.duration(summary.interval),
        records.time(summary.first), records.time(summary.last))
end

-- Returns the members that describe a record in JSON.
function records.summary(path, summary)
    return {
        record = "record", file = path, first = json_records.time(summary.first),
        last = json_records.time(summary.last), interval_s = summary.interval,
        cycles = summary.cycles, measured = summary.measured, disabled = summary.disabled,
        failed = summary.failed, starts = summary.starts, gaps = summary.gaps,
        port = summary.port > 0 and summary.port or json_records.null,
        seconds = json_records.duration(summary.counted),
        missing = json_records.object(summary.missing),
    }
end

-- The share of time enforced, "99.95 %". Not rounded up: 100 means always.
function records.share(outcome)
    local total = outcome.enforced + outcome.fail_open
    if total == 0 then return "-" end
    return ("%.2f %%"):format(math.floor(outcome.enforced / total * 10000) / 100)
end

return records
