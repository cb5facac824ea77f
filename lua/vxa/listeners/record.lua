-- vxa run --record: a row of a CSV file for each cycle, for spreadsheets, gnuplot and the commands
-- that read records. docs/record.md describes the format.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local filter = require "filter"
local format = require "vxa.output.format"
local measurements = require "vxa.machine.measurements"
local option = require "vxa.options"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local session = require "vxa.session"
local times = require "vxa.times"

local function define(command)
    command:option("--record", "Append a row with all six metrics to this CSV file for each "
        .. "cycle, for vxa plot, replay and tune."):argname("FILE.csv")
        :convert(option.file_name("--record"))
    command:option("--record-days", "With --record: rename the file FILE.1, in place of an older "
        .. "one, when it has N days, and start a new one. Default: never."):argname("N")
        :convert(option.whole("--record-days", 1, 36500))
end

local MARK = "# vxa record 1\n"
local COLUMNS = "time,action,state,port"
for _, metric in ipairs(filter.metrics) do COLUMNS = COLUMNS .. "," .. metric.name end
COLUMNS = COLUMNS .. ",errors\n"

-- ---- fields -----------------------------------------------------------------------------

local function timestamp(time_us)
    return ("%s.%06d"):format(os.date("!%Y-%m-%d %H:%M:%S", math.floor(time_us / 1e6)),
        time_us % 1e6)
end

local function number_field(value)
    return value and value - value == 0 and format.exact(value) or ""  -- not infinite or NaN
end

local LONGEST_ERRORS = 2000

-- Without what a spreadsheet would take for a formula, in the quotes of RFC 4180 where needed.
local function errors_field(errors)
    local text = printable((table.concat(errors, "; "):gsub("%s*\n%s*", " ")))
    if #text > LONGEST_ERRORS then
        text = text:sub(1, LONGEST_ERRORS):gsub("[\192-\255][\128-\191]*$", "") .. "..."
    end
    text = text:gsub("^[=+@-]", "'%0")
    return text:find('[,"]') and '"' .. text:gsub('"', '""') .. '"' or text
end

-- ---- heading ----------------------------------------------------------------------------

local MOST_NAME_BYTES = 256

local function host_name(vxa)
    local name = vxa.read_file("/proc/sys/kernel/hostname", MOST_NAME_BYTES)
    return name and printable((name:gsub("\n$", ""))) or "unknown"
end

local function policy_line(monitored)
    return ("# policy %s\n"):format(policy_source.to_json(monitored.policy.values))
end

local function heading(monitored, interval_s)
    return MARK .. ("# version %s, engine %s, host %s, processors %d, interval %s s\n"):format(
        monitored.vxa.version, monitored.engine, host_name(monitored.vxa), session.cpu_count(),
        format.exact(interval_s)) .. policy_line(monitored)
end

-- ---- the file ---------------------------------------------------------------------------

local HEAD_BYTES = 4096  -- the first heading has less

local function check(result, message)
    return result or exit.fail(1, "%s", message)
end

-- Refuses anything but a record, or the beginning of one that a killed run left.
local function check_mark(head, path)
    local version = head:match("^# vxa record (%d+)\n")
    if head:sub(1, #MARK) == MARK:sub(1, #head) then return end
    if version then
        exit.fail(2, "%s is a record of version %s; this vxa writes version 1", path, version)
    end
    exit.fail(2, "%s exists and is not a record of vxa; it is left as it is", path)
end

-- Returns whether the file has its line of columns.
local function has_columns(head, path)
    while head:find("^#[^\n]*\n") do head = head:gsub("^#[^\n]*\n", "", 1) end
    if head == "" or head:sub(1, #COLUMNS) == COLUMNS then return head ~= "" end
    exit.fail(2, "%s is a record with other columns; it is left as it is", path)
end

-- Returns the time of the first row, or nil if there is none.
local function first_time(head)
    local time = ("\n" .. head):match("\n(%d+%-%d+%-%d+ %d+:%d+:%d+)[^\n]*\n")
    return time and times.utc(time)
end

-- Opens the file, cuts off a row that a killed run left incomplete, and returns it with what has
-- to be written first and the time of its first row.
local function open(monitored, options)
    local path = options.record
    local file, message = monitored.vxa.append_file(path)
    if not file then exit.fail(2, "%s", message) end
    check_mark(check(file:head(HEAD_BYTES)), path)
    local removed = check(file:cut_partial_line())
    if removed > 0 then
        console.complain(("%s: removed its last line, which was incomplete (%s)")
            :format(path, format.count(removed, "byte")))
    end
    local head = check(file:head(HEAD_BYTES))
    local columns = has_columns(head, path) and "" or COLUMNS
    return file, heading(monitored, options.interval) .. columns, first_time(head)
end

-- ---- the listener -----------------------------------------------------------------------

local Recorder = {}
Recorder.__index = Recorder

local function new(monitored, options)
    if not options.record then
        if options.record_days then exit.fail(2, "--record-days needs --record") end
        return nil
    end
    local file, first, since = open(monitored, options)
    return setmetatable({ monitored = monitored, options = options, file = file, pending = first,
                          since = since, lost = 0,
                          measurements = measurements.new(monitored.vxa) }, Recorder)
end

function Recorder:start()
    check(self.file:write(self.pending))
    self.pending = ""
end

function Recorder:reloaded(refusal)
    if not refusal then self.pending = self.pending .. policy_line(self.monitored) end
end

-- Renames a file that has its days; write() starts the next one.
function Recorder:end_old_file(time)
    self.since = self.since or time
    local days = self.options.record_days
    if not days or time - self.since < days * 86400 or not self.file:has_name() then return end
    local renamed, message = self.file:rename ".1"
    if not renamed then self.monitored.messages:warn_once(message) end
end

-- A file that was renamed or deleted is followed by a new one.
function Recorder:follow_name()
    if self.file:has_name() then return true end
    local ok, file, first, since = pcall(open, self.monitored, self.options)
    if not ok then return nil, type(file) == "table" and file.message or tostring(file) end
    self.file:close()
    self.file, self.pending, self.since = file, first, since
    return true
end

function Recorder:write(row)
    local done, message = self:follow_name()
    if done then done, message = self.file:write(self.pending .. row) end
    if not done then
        if self.lost == 0 then console.complain(message .. " (the record lacks rows)") end
        self.lost = self.lost + 1
        return
    end
    self:report_lost()
    self.pending = ""
end

function Recorder:report_lost()
    if self.lost == 0 then return end
    console.complain(("%s: %s missing"):format(self.options.record,
        format.count(self.lost, "row is", "rows are")))
    self.lost = 0
end

function Recorder:cycle(result, errors)
    local time_us, values = self.measurements:take(result, self.monitored.messages.records)
    local fields = { timestamp(time_us), result.action, result.state,
                     self.measurements:port(result) or "" }
    for _, metric in ipairs(filter.metrics) do
        fields[#fields + 1] = number_field(values[metric.name])
    end
    fields[#fields + 1] = errors_field(errors)
    self:end_old_file(time_us / 1e6)
    self:write(table.concat(fields, ",") .. "\n")
end

function Recorder:finish()
    self:report_lost()
    self.file:close()
end

return { define = define, new = new }
