-- The filter script: a health monitor that decides on fail-open, and connection feedback.
--
-- The health monitor holds the fail-open state, runs a health check cycle each time it is asked
-- to, and carries out the result. Connection feedback turns the driver's flows into observations
-- and fetches the module's report.
--
-- An agent can ship this file unchanged. It needs only the module `fc` (which fills SLB.filter),
-- health_policy.lua and strict_json.lua:
--
--     require "fc"
--     local filter = require "filter"
--     local monitor = filter.new {
--         dom = dom,                          -- the host's document, an "SLB.Dom"
--         policy = text_from_management,      -- JSON, or "" for /etc/vx_filter.conf
--         enforce = function(on, unload) … end,
--     }
--     local feedback = filter.feedback()
--     every 10 seconds:
--         local result = monitor:cycle()
--         if result.policy_error then log(result.policy_error) end
--         feedback:sample(assert(handle:connections()))
--         local report = feedback:report()   -- about once a minute, nil otherwise
--
-- The module samples the machine, compares six metrics with their thresholds and remembers when
-- fail-open began. The script owns the state: the module trusts the state it is given and does
-- not change it. The module keeps the observations; the script knows which flows it has already
-- fed. So keep exactly one monitor and one feedback per process, and call them from one thread.

local health_policy = require "health_policy"

local filter = {}

filter.ACTIVATED = "Activated"     -- in fail-open: the filter passes everything
filter.DEACTIVATED = "Deactivated" -- the filter enforces

-- Action codes of SLB.filter.CheckSystemHealthMetrics.
filter.NORMAL = 0       -- judged: not in fail-open, or leaving it now
filter.FAIL_OPEN = 1    -- judged: in fail-open, or entering it now
filter.DISABLED = 2     -- not judged: no settings, or a connection threshold without a port
filter.NO_LOAD = 5      -- the run-queue length or the number of processors cannot be read
filter.BAD_ARGUMENT = 6 -- the module does not accept the document, the state or the policy
filter.NO_MEMORY = 7    -- the memory sizes cannot be read

-- The six metrics, in the module's order; also by name. `full_name` is used in the module's traces.
-- `computed` matches the trace with the value, which the module writes while the metric is on; the
-- interval has none. `below`: bad when too low. `rate`: calculated from the driver's counters for
-- the monitored port, so it needs a port, and a second cycle for its first value. `default`: the
-- threshold if `setting` is unset.
filter.metrics = {
    { name = "rqpct", setting = "SYS_THR_RUNQ", unit = "processes",
      full_name = "runnable_processes_per_cpu_pct", computed = "^rqlen=.* rqlen_pct=(%S+)",
      title = "one-minute load, not per CPU" },
    { name = "refusalpct", setting = "SYS_THR_CONN_REFUSAL_PCT", unit = "%", rate = true,
      full_name = "connections_refused_per_new_conn_pct",
      computed = "^conn_halfopen2close=.* conn_ref_pct=(%S+)",
      title = "closed half-open, of new ones" },
    { name = "estab", setting = "SYS_THR_CONN_EST_PER_CPU", unit = "/s/CPU", rate = true,
      full_name = "connections_established_per_cpu",
      computed = "^conn_established=.* conn_est_per_cpu=(%S+)",
      title = "connections established" },
    { name = "scanmb", setting = "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", unit = "MiB/s/CPU",
      full_name = "total_scan_mbytes_per_cpu", rate = true,
      computed = "^scanbytes_fwd=.* scan_mbytes_per_cpu=(%S+)",
      title = "traffic, both directions" },
    { name = "frepct", setting = "SYS_THR_FREE_MEM", unit = "%", below = true,
      full_name = "free_memory_pct", computed = "^fremem .* fremem_pct=(%S+)",
      title = "free memory, without caches" },
    { name = "delta_t", setting = "SYS_THR_MAX_ITERATION_INVL", unit = "s", default = 45,
      full_name = "iteration interval", title = "time since the previous cycle" },
}

for _, metric in ipairs(filter.metrics) do filter.metrics[metric.name] = metric end

-- A metric is near its threshold above this share of it (free memory: below the threshold divided
-- by it), and again only after it has been on the other side of the second one.
filter.NEAR, filter.NO_LONGER_NEAR = 0.8, 0.7

-- ---- options ----------------------------------------------------------------------------

-- Raises an error, at the caller of the calling function, unless every option is in `known` and
-- has the Lua type given there.
local function check_options(options, known)
    if type(options) ~= "table" then
        error("a table of options expected, not " .. type(options), 3)
    end
    for name, value in pairs(options) do
        if not known[name] then error(("unknown option '%s'"):format(tostring(name)), 3) end
        if type(value) ~= known[name] then
            error(("options.%s must be a %s, not %s"):format(name, known[name], type(value)), 3)
        end
    end
    if not (SLB and SLB.filter) then error("require 'fc' first", 3) end
end

local function is_document(value)
    local ok, found = pcall(function() return value.get and value.set and true end)
    return type(value) == "userdata" and ok and found
end

-- ---- what the module reports ------------------------------------------------------------

-- What a cycle's action means, by the state passed to it where that matters.
local words = {
    [filter.NORMAL] = { Deactivated = "normal", Activated = "leave fail-open" },
    [filter.FAIL_OPEN] = { Deactivated = "enter fail-open", Activated = "stay fail-open" },
    [filter.DISABLED] = "not monitoring",
    [filter.NO_LOAD] = "no load figures",
    [filter.BAD_ARGUMENT] = "bad argument",
    [filter.NO_MEMORY] = "no memory figures",
}

local HELD, OBSERVED = "wait one cycle", "would enter"

local function action_text(action, before)
    local text = words[action] or ("action " .. tostring(action))
    return type(text) == "table" and text[before] or text
end

local not_finite = { inf = math.huge, ["-inf"] = -math.huge, nan = 0 / 0, ["-nan"] = 0 / 0 }

local function to_number(text)
    return tonumber(text) or not_finite[text]
end

-- Parses the status line of the module's verbose log, which has three decimals. Returns nil for any
-- other line.
function filter.parse_status(text)
    local seconds, microseconds, minimum, active, port = text:match("^SysHealth: .*tval= *(%d+)"
        .. "%.(%d+) .* min_dur=(%d+) act_dur=(%d+) port=(%d+)")
    if not minimum then return nil end
    local status = { time_us = tonumber(seconds) * 1e6 + tonumber(microseconds),
                     min_duration_s = tonumber(minimum), in_fail_open_s = tonumber(active),
                     port = tonumber(port), figures = {} }
    for name, value, threshold in text:gmatch("([%w_]+)=(%S-)%((%S-)%)") do
        status.figures[name] = { value = to_number(value), threshold = to_number(threshold) }
    end
    return status
end

local crossing_pattern = {}
for _, metric in ipairs(filter.metrics) do
    crossing_pattern[metric.name] = "^" .. metric.full_name
        .. " value of (%S+) .*threshold of (%S+) %("
end

-- Adds what a trace reports, with six decimals.
local function read_trace(message, report)
    report.has_traces = true
    report.opened = tonumber(message:match("^conn_halfopen2close=.* conn_new=(%S+)"))
        or report.opened
    for _, metric in ipairs(filter.metrics) do
        local value, threshold = message:match(crossing_pattern[metric.name])
        if value then
            report.crossings[metric.name] = { value = to_number(value),
                                              threshold = to_number(threshold) }
        end
        local computed = metric.computed and message:match(metric.computed)
        if computed then report.computed[metric.name] = to_number(computed) end
    end
end

-- Returns what a cycle's log records report: its status line, the values that the module computed
-- and those that it found beyond their thresholds, and the new connections per second.
local function read_records(records)
    local report = { computed = {}, crossings = {} }
    for _, record in ipairs(records) do
        if record.kind == "log" then
            report.status = filter.parse_status(record.message) or report.status
            report.has_failed_count = report.has_failed_count
                or record.message:find("^get_scan_metrics%(%) failed") ~= nil
        elseif record.kind == "trace" and record.category == "SysHealth.eng" then
            read_trace(record.message, report)
        end
    end
    return report
end

local function to_thousandths(number)
    return tonumber(("%.3f"):format(number))
end

local function to_millionths(number)
    return tonumber(("%.6f"):format(number))
end

-- Returns the values and thresholds that the module shows, by metric, and the function that rounds
-- as it has. GetSysHealthMetrics truncates to whole numbers.
local function shown_by_module(status)
    if status then return status.figures, to_thousandths end
    local shown = {}
    local _, rows = SLB.filter.GetSysHealthMetrics()
    for i = 1, #filter.metrics do shown[rows[i].name] = rows[i] end
    return shown, math.floor
end

-- ---- judging ----------------------------------------------------------------------------

local function is_over(metric, value, threshold)
    if metric.below then return value < threshold end
    return value > threshold
end

-- Returns how near a value is to its threshold: 1 is at it. Whole numbers are too coarse for that:
-- 0.9 % of free memory reads 0.
local function pressure(metric, value, threshold, round)
    if round == math.floor then return nil end
    return metric.below and threshold / value or value / threshold
end

-- Returns the threshold in force. The setting is exact, but the module reads the configuration
-- file at every cycle, and the caller's settings may be older.
local function in_force(setting, shown, round)
    return setting and round(setting) == shown and setting or shown
end

-- The module writes a trace for each metric that is on, except the interval, which always is.
-- Without traces a threshold that it shows as 0 is off. During fail-open the rates are off.
local function is_enabled(metric, report, threshold, before)
    if report.has_traces then
        return report.computed[metric.name] ~= nil or not metric.computed
    end
    return threshold ~= 0 and not (metric.rate and before == filter.ACTIVATED)
end

local Monitor = {}
Monitor.__index = Monitor

-- Whether the value is a difference from an earlier cycle that did not exist: the module reports
-- 0 for it.
function Monitor:lacks_value(metric, value)
    if value ~= 0 then return false end
    return metric.rate and not self.has_counted or metric.name == "delta_t" and not self.has_run
end

-- Up to this number of new connections per second the module reports 0 for the percentage of
-- refused ones.
local FEW_CONNECTIONS = 5

local function is_few(metric, opened)
    return metric.name == "refusalpct" and opened ~= nil and opened <= FEW_CONNECTIONS
end

-- Rounding keeps the order, so a value beyond its threshold after it was beyond it before. Both are
-- compared with the decimals of the value.
function Monitor:judge(metric, report, before)
    local setting = self.settings[metric.setting] or metric.default
    local shown, crossing = report.shown[metric.name], report.crossings[metric.name]
    local value, round = shown.value, report.round
    local threshold = in_force(setting, shown.threshold, round)
    if crossing then threshold = in_force(setting, crossing.threshold, to_millionths) end
    local exact = crossing and crossing.value or report.computed[metric.name]
    if exact then value, round = exact, to_millionths end
    local row = { name = metric.name, threshold = threshold, over = crossing ~= nil,
                  enabled = is_enabled(metric, report, threshold, before) }
    if not row.enabled or self:lacks_value(metric, value) then return row end
    if is_few(metric, report.opened) then
        row.few = true
        return row
    end
    row.value, row.pressure = value, pressure(metric, value, threshold, round)
    row.over = row.over or is_over(metric, value, round(threshold))
    row.is_tie = value == round(threshold)
    return row
end

-- The module's traces do not have the interval, but its status lines have the time of each cycle
-- that was measured. The interval is shorter than their difference if one in between was not.
function Monitor:exact_interval(status)
    local previous_us = self.measured_us
    self.measured_us = status and status.time_us
    if not (status and previous_us) then return nil end
    local interval_s = (status.time_us - previous_us) / 1e6
    return to_thousandths(interval_s) == status.figures.delta_t.value and interval_s or nil
end

-- Rounded values may hide a crossing. If the module entered fail-open and neither values nor
-- traces show why, the metrics equal to their rounded thresholds are the cause.
local function list_over(result)
    for _, row in ipairs(result.metrics) do
        if row.over then result.over[#result.over + 1] = row end
    end
    local is_hidden = #result.over == 0 and result.action == filter.FAIL_OPEN
        and result.before == filter.DEACTIVATED
    for _, row in ipairs(result.metrics) do
        if is_hidden and row.is_tie then
            row.over = true
            result.over[#result.over + 1] = row
        end
    end
end

-- Whether the driver's counters were not read although the policy needs them. During fail-open,
-- when rates are off, only a log record shows that.
function Monitor:lacks_counters(result, report)
    if report.has_failed_count then return true end
    local is_wanted = false
    for i, metric in ipairs(filter.metrics) do
        if metric.rate and result.metrics[i].enabled then return false end
        is_wanted = is_wanted or metric.rate and self.settings[metric.setting] ~= nil
    end
    return is_wanted and result.before == filter.DEACTIVATED
end

-- Returns whether the driver's counters were read, as far as that is known.
function Monitor:measure(result, records)
    local report = read_records(records)
    local status, has_counted = report.status, self.has_counted
    report.shown, report.round = shown_by_module(status)
    report.computed.delta_t = self:exact_interval(status)
    for i, metric in ipairs(filter.metrics) do
        local row = self:judge(metric, report, result.before)
        result.metrics[i] = row
        has_counted = has_counted or metric.rate and row.enabled
    end
    self.has_counted = has_counted
    list_over(result)
    result.exact = status ~= nil
    if status then
        result.min_duration_s = status.min_duration_s
        result.in_fail_open_s = status.in_fail_open_s
        result.port = status.port
    end
    return not self:lacks_counters(result, report)
end

-- ---- from cycle to cycle ----------------------------------------------------------------

-- What is known of a metric from earlier cycles with the same threshold: `since`, the time of the
-- first of the latest cycles without a break in which it was over, and whether it was `near`.
function Monitor:history_of(row)
    local history = self.histories[row.name]
    if not history or row.enabled and history.threshold ~= row.threshold then
        history = { threshold = row.threshold }
        self.histories[row.name] = history
    end
    return history
end

function Monitor:note_crossings(result)
    if not result.measured then
        for _, history in pairs(self.histories) do history.since = nil end
    end
    for _, row in ipairs(result.metrics) do
        local history = self:history_of(row)
        history.since = row.over and (history.since or result.time) or nil
        row.since = history.since
    end
end

-- Lists the metrics that have come near their thresholds, each once. One that is over is not
-- reported as near afterwards, and during fail-open none is. Doubtful rates show nothing.
function Monitor:note_near(result, rates_are_doubtful)
    local enforces = result.before == filter.DEACTIVATED and self.state == filter.DEACTIVATED
    for i, row in ipairs(result.metrics) do
        if not (rates_are_doubtful and filter.metrics[i].rate) then
            self:note_row_near(result, row, enforces)
        end
    end
end

function Monitor:note_row_near(result, row, enforces)
    local history, is_near = self:history_of(row), row.pressure and row.pressure > filter.NEAR
    if row.pressure and row.pressure < filter.NO_LONGER_NEAR then history.near = false end
    if is_near and enforces and not row.over and not history.near then
        result.near[#result.near + 1] = row
    end
    history.near = history.near or row.over or is_near and enforces
end

-- ---- the monitor ------------------------------------------------------------------------

local MONITOR_OPTIONS = { dom = "userdata", policy = "string", settings = "table",
                          enforce = "function", records = "function", clock = "function",
                          observe = "boolean" }

-- Returns a monitor with the state "Deactivated". Options:
--
-- dom       the host's document
-- policy    the policy in JSON; "" or nil: the module reads /etc/vx_filter.conf
-- settings  the settings in force, numbers by policy key, if the caller knows them; the policy
--           is then not checked here
-- enforce   function(on, unload_driver), called at each transition before the state changes;
--           `unload_driver` is what the policy asks for during fail-open. If it raises an error,
--           the state does not change and the error reaches the caller. Without this option, the
--           state is only kept in the document.
-- records   function that returns the log records since the last cycle: tables {kind = "trace",
--           category, message} and {kind = "log", message}. With the status line among them,
--           values have three decimals; with the traces of "SysHealth.eng", six. Without this
--           option, values are whole numbers, and a threshold below 1 from the configuration file
--           looks like a metric that is off.
-- clock     function that returns the time in seconds since the epoch; default: os.time
-- observe   true: judge, but never enter fail-open
function filter.new(options)
    if type(options) == "table" and not is_document(options.dom) then
        error("options.dom must be an SLB.Dom, not " .. type(options.dom), 2)
    end
    check_options(options, MONITOR_OPTIONS)
    local monitor = setmetatable({ dom = options.dom, enforce = options.enforce,
                                   records = options.records, observe = options.observe,
                                   clock = options.clock or os.time, histories = {},
                                   state = filter.DEACTIVATED }, Monitor)
    monitor:set_policy(options.policy, options.settings)
    monitor:publish()
    return monitor
end

-- Sets the policy for the next cycle on. The module does not report what is wrong with a policy,
-- so the result of its first cycle does.
function Monitor:set_policy(text, settings)
    if text ~= nil and type(text) ~= "string" then
        error("the policy must be a string, not " .. type(text), 2)
    end
    self.policy, self.settings = text or "", settings or {}
    self.policy_error, self.policy_warnings = nil, nil
    if settings or self.policy == "" then return end
    local found, report = health_policy.check(self.policy)
    if found then
        self.settings, self.policy_warnings = found, #report > 0 and report or nil
    else
        self.settings, self.policy_error = health_policy.check(self.policy, true) or {}, report
    end
end

-- Stores the state for other scripts. If that fails, the filter must still act: the failure is
-- only reported.
function Monitor:publish()
    local stored, message = self.dom:set("vxp.filter.FailOpenState", self.state)
    self.unpublished = not stored and message or nil
end

function Monitor:change(state)
    if self.enforce then
        local unload = self.dom:get("vxp.filter.FailOpenUnloadDriver")
        self.enforce(state == filter.DEACTIVATED, unload == true or unload == "true")
    end
    self.state = state
    self:publish()
end

-- Whether nothing but rates is beyond its threshold.
local function only_rates(over)
    for _, row in ipairs(over) do
        if not filter.metrics[row.name].rate then return false end
    end
    return #over > 0
end

-- The module divides what the counters grew by since they were last read by the time since the
-- previous cycle. If that cycle did not read them, the growth of several intervals looks like a
-- burst.
function Monitor:enter(result, rates_are_doubtful)
    if rates_are_doubtful and only_rates(result.over) then
        result.held, result.text = true, HELD
    elseif self.observe then
        result.would_enter, result.text = true, OBSERVED
    else
        result.transition = "entered"
        self:change(filter.ACTIVATED)
        self.entered_at, self.causes = result.time, result.over
    end
end

-- After an action other than NORMAL and FAIL_OPEN the state stays as it is, also in fail-open: a
-- failed sample must not switch enforcement on a machine under stress.
function Monitor:decide(result, rates_are_doubtful)
    if result.action == filter.FAIL_OPEN and result.before == filter.DEACTIVATED then
        self:enter(result, rates_are_doubtful)
    elseif result.action == filter.NORMAL and result.before == filter.ACTIVATED then
        result.transition = "left"
        self:change(filter.DEACTIVATED)
    end
end

local DEFAULT_MINUTES = 30

-- Without the status line; the settings of the configuration file are not known here.
function Monitor:configured_duration()
    if self.policy == "" and not next(self.settings) then return nil end
    return 60 * (self.settings.SYS_CONF_MIN_ACT_DURATION or DEFAULT_MINUTES)
end

-- Sets what there is to report about fail-open.
function Monitor:describe_fail_open(result)
    if result.transition then result.causes = self.causes end
    self.min_duration_s = result.min_duration_s or self.min_duration_s
    local min_duration_s = self.min_duration_s or self:configured_duration()
    if self.state == filter.ACTIVATED and min_duration_s then
        result.lasts_until = self.entered_at + min_duration_s
    end
end

-- Runs one cycle and returns a table:
--
-- time                when it began
-- action, text        the action code and a description
-- before, state       the state before this cycle, and the state now
-- transition          "entered" or "left" if this cycle changed the state
-- causes              at a transition: the rows that were beyond their thresholds when fail-open
--                     was entered
-- lasts_until         in fail-open: the earliest time of its end; nil if not known
-- held                true if fail-open was not entered because only rates are beyond their
--                     thresholds and the previous cycle did not read the driver's counters; the
--                     next one decides
-- would_enter         true if fail-open was not entered because of options.observe
-- unpublished         why the document does not have the current state, if it does not
-- policy_error        what is wrong with the policy (not JSON, or a member of the wrong type), in
--                     its first cycle only
-- policy_warnings     array of what the module ignores in the policy, in its first cycle only
-- metrics             six rows if `measured`, otherwise none: {name, value, threshold, enabled,
--                     over, since, pressure, few}. No value if the metric is off or is a difference
--                     from an earlier cycle that did not exist, or if there are too `few` new
--                     connections to judge their percentage. `since`: when the unbroken sequence
--                     of cycles began in which it was over. `pressure`: 1 is at the threshold;
--                     not there with values that are whole numbers
-- over                the rows beyond their thresholds
-- near                the rows that have come near them in this cycle, see filter.NEAR
-- measured            whether metrics were judged; the rest is there only if so
-- exact               whether the values come from the status line; the rest only if so
-- min_duration_s      minimum duration of fail-open
-- in_fail_open_s      how long fail-open has lasted
-- port                the port that the driver counts, 0 for none
function Monitor:cycle()
    local before, rates_are_doubtful, time = self.state, self.missed_counters, self.clock()
    self.missed_counters = true  -- also if the call raises an error
    local action = SLB.filter.CheckSystemHealthMetrics(self.dom, before, self.policy).action
    local records = self.records and self.records() or {}
    local result = { time = time, action = action, text = action_text(action, before),
                     before = before, over = {}, near = {}, metrics = {},
                     policy_error = self.policy_error, policy_warnings = self.policy_warnings }
    self.policy_error, self.policy_warnings = nil, nil
    result.measured = action == filter.NORMAL or action == filter.FAIL_OPEN
    if result.measured then self.missed_counters = not self:measure(result, records) end
    self.has_run = true
    self:note_crossings(result)
    self:decide(result, rates_are_doubtful)
    self:note_near(result, rates_are_doubtful)
    self:describe_fail_open(result)
    result.state, result.unpublished = self.state, self.unpublished
    return result
end

-- ---- connection feedback ----------------------------------------------------------------

-- Minimum time between two publications by the module, or from its loading to the first.
filter.PUBLICATION_INTERVAL_S = 61

-- Maximum number of distinct keys that the module keeps between two publications.
filter.KEYS_KEPT = 10000

-- Bits of an observation's "flags" that can be derived from a flow.
filter.UDP_CONNECTION = 0x2
filter.OUTBOUND_CONNECTION = 0x4
local FLAGS_LIMIT = 0x8  -- greater than their sum

-- Returns the observation of a flow: its key and its text, lines of name, TAB and value; and its
-- flags. Flows to the same service have the same key, so that they are counted together: the
-- client's address and port would make more keys than the module keeps. `flow` is a row of
-- handle:connections(); `outbound`: it was opened from this machine.
function filter.observation(flow, outbound)
    local flags = (flow.protocol == "udp" and filter.UDP_CONNECTION or 0)
        + (outbound and filter.OUTBOUND_CONNECTION or 0)
    local key = ("%s %s %d %d"):format(flow.protocol, flow.dst, flow.dport, flags)
    local text = ("protocol\t%s\ndst_addr\t%s\ndst_port\t%d\nflags\t%d\n")
        :format(flow.protocol, flow.dst, flow.dport, flags)
    return key, text, flags
end

-- Returns the subtable at `key`, making it if needed. Flows are kept in nested tables by address
-- and port, not under a concatenated string: Lua 5.2 hashes only every second or third character
-- of a string of 32 characters or more (luaS_hash in lstring.c), and keys that differ in the
-- others collide: a table of 60,000 would take seconds to minutes to fill.
local function branch(tree, key)
    local found = tree[key]
    if not found then
        found = {}
        tree[key] = found
    end
    return found
end

-- Returns the flow's protocol and destination port as one number.
local function service(flow)
    return flow.dport * 2 + (flow.protocol == "udp" and 1 or 0)
end

-- Adds the flow to the tree; returns false if it was there already.
local function add(tree, flow)
    local ports = branch(branch(branch(tree, flow.dst), service(flow)), flow.src)
    local is_new = not ports[flow.sport]
    ports[flow.sport] = true
    return is_new
end

local function contains(tree, flow)
    local services = tree[flow.dst]
    local sources = services and services[service(flow)]
    local ports = sources and sources[flow.src]
    return ports ~= nil and ports[flow.sport] == true
end

local Feedback = {}
Feedback.__index = Feedback

local FEEDBACK_OPTIONS = { is_local = "function", interrupted = "function" }

-- Returns a feedback. Load the module immediately before: the time to the first publication
-- starts then. Options:
--
-- is_local     function(address) that returns whether the address is this machine's. Without it,
--              no flow counts as outbound.
-- interrupted  function() called repeatedly during a sample; if it returns true, the sample ends
function filter.feedback(options)
    options = options or {}
    check_options(options, FEEDBACK_OPTIONS)
    local feedback = setmetatable({ is_local = options.is_local, present = {} }, Feedback)
    feedback.interrupted = options.interrupted or function() return false end
    feedback:reset(os.time())
    return feedback
end

-- Nothing has been fed since `published`, the time of the module's last publication.
function Feedback:reset(published)
    self.published = published
    self.fed, self.refused = 0, 0
    self.rows, self.keys, self.key_count = {}, {}, 0  -- rows by destination and service
end

local ROWS_BETWEEN_CHECKS = 1000
local EINTR = 4

-- Returns the flows as a tree, their number, and an array of those that were not in the previous
-- sample; nil if interrupted.
function Feedback:compare(flows)
    local present, total, new = {}, 0, {}
    for i, flow in ipairs(flows) do
        if i % ROWS_BETWEEN_CHECKS == 0 and self.interrupted() then return nil end
        if add(present, flow) then  -- a connection within the machine can be listed twice
            total = total + 1
            if not contains(self.present, flow) then new[#new + 1] = flow end
        end
    end
    return present, total, new
end

-- Feeds one observation for each flow that was not in the previous sample. A flow that lasts is
-- counted once. A flow that starts and ends between two samples is missed unless the driver still
-- remembers it; one that ends and starts again with the same ports in between counts as the same.
-- Returns the number of flows and of new ones; or, with nothing fed, nil, "interrupted" and 4
-- (EINTR) if options.interrupted ended the sample.
function Feedback:sample(flows)
    local present, total, new = self:compare(flows)
    if not present then return nil, "interrupted", EINTR end
    for _, flow in ipairs(new) do self:feed(flow, self:is_outbound(flow), 1) end
    self.present = present
    return total, #new
end

-- Returns the row that the module's report will have for the observation of a flow.
local function row_of(flow, flags)
    local udp = flow.protocol == "udp"
    return { protocol = flow.protocol, dst_addr = flow.dst, dst_port = flow.dport, flags = flags,
             cf_udp_connection = udp and 1 or 0,
             cf_outbound_connection = flags >= filter.OUTBOUND_CONNECTION and 1 or 0, count = 0 }
end

-- Counts an observation as the module does, which silently drops new keys once it has KEYS_KEPT.
function Feedback:count(flow, flags, key, count)
    local rows = branch(self.rows, flow.dst)
    local number = flow.dport * FLAGS_LIMIT + flags
    if not rows[number] then
        if self.key_count == filter.KEYS_KEPT then
            self.refused = self.refused + count
            return
        end
        rows[number], self.key_count = row_of(flow, flags), self.key_count + 1
        self.keys[rows[number]] = key
    end
    rows[number].count = rows[number].count + count
end

function Feedback:feed(flow, outbound, count)
    local key, text, flags = filter.observation(flow, outbound)
    SLB.filter.AddToConnMetrics(key, text, count)
    self.fed = self.fed + count
    self:count(flow, flags, key, count)
end

function Feedback:is_outbound(flow)
    return self.is_local ~= nil and self.is_local(flow.src)
end

-- Feeds the rows of another process's rest(), which that process did not publish.
function Feedback:restore(rows)
    for _, row in ipairs(rows) do
        local flow = { protocol = row.protocol, dst = row.dst_addr, dport = row.dst_port }
        self:feed(flow, row.flags >= filter.OUTBOUND_CONNECTION, row.count)
    end
end

-- Returns the seconds until the module can publish, 0 if it can now. If the clock is set back,
-- this gets longer, as it does for the module.
function Feedback:due()
    return math.max(0, self.published + filter.PUBLICATION_INTERVAL_S - os.time())
end

-- Sorts rows by descending count; rows with equal counts keep the module's order.
local function sort_by_count(rows)
    local position = {}
    for i, row in ipairs(rows) do position[row] = i end
    table.sort(rows, function(a, b)
        if a.count ~= b.count then return a.count > b.count end
        return position[a] < position[b]
    end)
end

-- Publishes and fetches what was fed. Returns nil if that is not due yet, otherwise a report:
--
-- rows          the rows of SLB.filter.GetConnMetrics, most frequent first
-- observations  the sum of their counts
-- refused       number of observations that the module dropped: it keeps KEYS_KEPT keys
-- since, time   the period in which they were fed, seconds since the epoch
function Feedback:report()
    if self:due() > 0 then return nil end
    SLB.filter.UpdateConnMetrics()
    local report = { rows = SLB.filter.GetConnMetrics(), observations = 0,
                     since = self.published, time = os.time() }
    -- If the clock was set back in between, the module did not publish and keeps everything.
    if #report.rows == 0 and self.fed > 0 then return nil end
    for _, row in ipairs(report.rows) do report.observations = report.observations + row.count end
    report.refused = self.fed - report.observations
    sort_by_count(report.rows)
    -- Taken after the call, so never earlier than the time the module has recorded.
    self:reset(report.time)
    return report
end

-- Returns `observations` and `refused` of rest().
function Feedback:pending()
    return self.fed - self.refused, self.refused
end

-- Returns what was fed since the last report, not yet published, in the form of a report; with
-- `in_any_order`, without sorting its rows.
function Feedback:rest(in_any_order)
    local rows, keys = {}, self.keys
    for row in pairs(keys) do rows[#rows + 1] = row end
    if not in_any_order then
        table.sort(rows, function(a, b) return keys[a] < keys[b] end)
        sort_by_count(rows)
    end
    local observations, refused = self:pending()
    return { rows = rows, observations = observations, refused = refused,
             since = self.published, time = os.time() }
end

return filter
