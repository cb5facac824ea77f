-- The filter script's two parts. In health monitoring: holds the fail-open state, runs one
-- health check cycle whenever it is asked to, and carries out what the cycle decides. In
-- connection feedback: turns the driver's flows into observations, and fetches the report.
--
-- An agent can ship this file as it stands. It needs the module `fc` (which fills SLB.filter),
-- health_policy.lua and strict_json.lua, and nothing else:
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
-- Who owns what. The module samples the machine, compares six metrics with their thresholds
-- and remembers when fail-open began. The script owns the state: the module believes whatever
-- state it is given, and changes nothing itself. The module also keeps the observations; the
-- script knows which flows it has fed already. So keep exactly one monitor and one feedback
-- per process, and call them from one thread.

local health_policy = require "health_policy"

local filter = {}

filter.ACTIVATED = "Activated"     -- in fail-open: the filter lets everything pass
filter.DEACTIVATED = "Deactivated" -- the filter enforces

-- Action codes of SLB.filter.CheckSystemHealthMetrics.
filter.NORMAL = 0       -- judged: out of fail-open, or leaving it now
filter.FAIL_OPEN = 1    -- judged: in fail-open, or entering it now
filter.DISABLED = 2     -- nothing to judge by: no settings, or a threshold lacks its port
filter.NO_LOAD = 5      -- run-queue length or processor count could not be read
filter.BAD_ARGUMENT = 6 -- document, state or policy is not what the module takes
filter.NO_MEMORY = 7    -- memory figures could not be read

-- The six metrics, in the module's order. `full_name` is theirs in the module's traces.
-- `below`: bad when too low. `rate`: calculated from the driver's counters of the monitored
-- port, so it needs a port and, for a first value, a second cycle. `default` is the threshold
-- without a setting.
filter.metrics = {
    { name = "rqpct", setting = "SYS_THR_RUNQ", unit = "processes",
      full_name = "runnable_processes_per_cpu_pct",
      title = "one-minute load, not per CPU" },
    { name = "refusalpct", setting = "SYS_THR_CONN_REFUSAL_PCT", unit = "%", rate = true,
      full_name = "connections_refused_per_new_conn_pct",
      title = "closed half-open, of new ones" },
    { name = "estab", setting = "SYS_THR_CONN_EST_PER_CPU", unit = "/s/CPU", rate = true,
      full_name = "connections_established_per_cpu",
      title = "connections established" },
    { name = "scanmb", setting = "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", unit = "MiB/s/CPU",
      full_name = "total_scan_mbytes_per_cpu", rate = true,
      title = "traffic, both directions" },
    { name = "frepct", setting = "SYS_THR_FREE_MEM", unit = "%", below = true,
      full_name = "free_memory_pct",
      title = "free memory, without caches" },
    { name = "delta_t", setting = "SYS_THR_MAX_ITERATION_INVL", unit = "s", default = 45,
      full_name = "iteration interval", title = "time since the previous cycle" },
}

-- ---- options ----------------------------------------------------------------------------

-- Raises an error in the caller's caller unless every option is one of `known`, which has the
-- Lua type of each.
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

-- What a cycle means in words, by action and by the state it was asked with.
local words = {
    [filter.NORMAL] = { Deactivated = "normal", Activated = "leave fail-open" },
    [filter.FAIL_OPEN] = { Deactivated = "enter fail-open", Activated = "stay fail-open" },
    [filter.DISABLED] = "not monitoring",
    [filter.NO_LOAD] = "no load figures",
    [filter.BAD_ARGUMENT] = "bad argument",
    [filter.NO_MEMORY] = "no memory figures",
}

local function action_text(action, before)
    local text = words[action] or ("action " .. tostring(action))
    return type(text) == "table" and text[before] or text
end

local not_finite = { inf = math.huge, ["-inf"] = -math.huge, nan = 0 / 0, ["-nan"] = 0 / 0 }

local function to_number(text)
    return tonumber(text) or not_finite[text]
end

-- Reads the module's verbose status line, which has three decimals: GetSysHealthMetrics cuts
-- values and thresholds to whole numbers.
function filter.parse_status(text)
    local minimum, active, port =
        text:match("^SysHealth: .* min_dur=(%d+) act_dur=(%d+) port=(%d+)")
    if not minimum then return nil end
    local status = { min_duration_s = tonumber(minimum), in_fail_open_s = tonumber(active),
                     port = tonumber(port), figures = {} }
    for name, value, threshold in text:gmatch("([%w_]+)=(%S-)%((%S-)%)") do
        status.figures[name] = { value = to_number(value), threshold = to_number(threshold) }
    end
    return status
end

-- The cycle's status line among the records that the host's log kept, or nil.
local function status_of(records)
    for i = #records, 1, -1 do
        local status = records[i].kind == "log" and filter.parse_status(records[i].message)
        if status then return status end
    end
end

-- The metrics that the module's own traces name as beyond their thresholds, with six decimals,
-- by full name.
local function crossings_of(records)
    local found = {}
    for _, record in ipairs(records) do
        if record.kind == "trace" and record.category == "SysHealth.eng" then
            local name, value, threshold =
                record.message:match("^(.-) value of (%S+) .*threshold of (%S+) %(")
            if name then
                found[name] = { value = to_number(value), threshold = to_number(threshold) }
            end
        end
    end
    return found
end

local function to_thousandths(number)
    return tonumber(("%.3f"):format(number))
end

local function to_millionths(number)
    return tonumber(("%.6f"):format(number))
end

-- Values and thresholds by metric, and how the module has rounded them.
local function figures_of(status)
    if status then return status.figures, to_thousandths end
    local figures = {}
    local _, rows = SLB.filter.GetSysHealthMetrics()
    for i = 1, #filter.metrics do figures[rows[i].name] = rows[i] end
    return figures, math.floor
end

-- ---- judging ----------------------------------------------------------------------------

local function is_over(metric, value, threshold)
    if metric.below then return value < threshold end
    return value > threshold
end

-- The threshold that was judged by, or nil where the metric is off. A threshold of 0 in the
-- figures is one that is off, or one too small for their decimals: the policy tells. During
-- fail-open the module switches off those of the port.
local function threshold_of(metric, figure, rounded, setting, before)
    local is_exact = setting and rounded(setting) == figure.threshold
    if figure.threshold ~= 0 then return is_exact and setting or figure.threshold end
    if is_exact and not (metric.rate and before == filter.ACTIVATED) then return setting end
end

local Monitor = {}
Monitor.__index = Monitor

-- A difference that the module shows as 0 although there was nothing to take it from.
function Monitor:lacks_value(metric, value)
    if value ~= 0 then return false end
    return metric.rate and not self.has_counted or metric.name == "delta_t" and not self.has_run
end

function Monitor:judge(metric, figure, rounded, crossing, before)
    local setting = self.settings[metric.setting] or metric.default
    local row = { name = metric.name, over = false, value = figure.value,
                  threshold = threshold_of(metric, figure, rounded, setting, before) }
    if crossing then
        row.value, row.threshold, row.over = crossing.value, crossing.threshold, true
    end
    -- The trace has six decimals, and 0 for a threshold of 1e-9.
    if crossing and setting and to_millionths(setting) == crossing.threshold then
        row.threshold = setting
    end
    row.enabled = row.threshold ~= nil
    if not row.enabled or self:lacks_value(metric, row.value) then row.value = nil end
    row.threshold = row.threshold or 0
    if row.value and not row.over then row.over = is_over(metric, row.value, row.threshold) end
    return row
end

-- The figures at hand are rounded. Where the module went into fail-open and neither they nor
-- its traces show why, those equal to their thresholds are the cause.
local function blame_ties(metrics, over)
    for _, metric in ipairs(metrics) do
        if metric.enabled and metric.value == metric.threshold then
            metric.over = true
            over[#over + 1] = metric
        end
    end
end

function Monitor:measure(result, records)
    local status = status_of(records)
    local figures, rounded = figures_of(status)
    local crossings, has_counted = crossings_of(records), self.has_counted
    for i, metric in ipairs(filter.metrics) do
        local row = self:judge(metric, figures[metric.name], rounded,
            crossings[metric.full_name], result.before)
        result.metrics[i] = row
        if row.over then result.over[#result.over + 1] = row end
        has_counted = has_counted or metric.rate and row.enabled
    end
    self.has_counted = has_counted
    result.exact = status ~= nil
    if status then
        result.min_duration_s = status.min_duration_s
        result.in_fail_open_s = status.in_fail_open_s
        result.port = status.port
    end
end

-- ---- the monitor ------------------------------------------------------------------------

local MONITOR_OPTIONS = { dom = "userdata", policy = "string", settings = "table",
                          enforce = "function", records = "function" }

-- options.dom       the host's document
-- options.policy    policy text (JSON); "" or nil: the module reads /etc/vx_filter.conf
-- options.settings  numbers by policy key that are in force, if the caller knows them; the
--                   policy is then not checked here
-- options.enforce   function(on, unload_driver), called at each transition before the state
--                   changes; `unload_driver` is the policy's wish for fail-open. When it
--                   raises, the state stays as it was and the error reaches the caller.
--                   Without it, the state is only kept in the document.
-- options.records   function returning the log records since the last cycle. With the status
--                   line among them the values have three decimals, with the trace
--                   "SysHealth.eng" those beyond their thresholds have six. Without it they
--                   are whole numbers, and with the configuration file as the policy a
--                   threshold below 1 looks like a metric that is off.
function filter.new(options)
    if type(options) == "table" and not is_document(options.dom) then
        error("options.dom must be an SLB.Dom, not " .. type(options.dom), 2)
    end
    check_options(options, MONITOR_OPTIONS)
    local monitor = setmetatable({ dom = options.dom, enforce = options.enforce,
                                   records = options.records, state = filter.DEACTIVATED }, Monitor)
    monitor:set_policy(options.policy, options.settings)
    monitor:publish()
    return monitor
end

-- A policy pushed by the management side: in force from the next cycle on. The module itself
-- does not report what is wrong with a policy, so the first result with it does.
function Monitor:set_policy(text, settings)
    if text ~= nil and type(text) ~= "string" then
        error("the policy must be a string, not " .. type(text), 2)
    end
    self.policy, self.settings = text or "", settings or {}
    self.policy_error, self.policy_warnings = nil, nil
    if settings or self.policy == "" then return end
    local found, fault = health_policy.check(self.policy)
    if found then
        self.settings, self.policy_warnings = found, #fault > 0 and fault or nil
    else
        self.settings, self.policy_error = health_policy.check(self.policy, true) or {}, fault
    end
end

-- Other scripts read here whether the filter enforces. A document that cannot be written must
-- not keep the filter from acting: it is reported, no more.
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

-- Runs one cycle and returns
--   action, text        the code and its meaning in words
--   before, state       the state the module was asked with, and the state held now
--   transition          "entered" or "left" where this cycle changed the state
--   unpublished         why the document does not show the state, where it does not
--   policy_error        what is wrong with the policy, in its first cycle only: it is not JSON,
--                       or a member has the wrong type
--   policy_warnings     likewise, an array: members that are ignored
--   measured            true when metrics were judged; only then:
--   metrics             six rows {name, value, threshold, enabled, over}; without a value where
--                       the metric is off, or a difference to a cycle that there was not
--   over                the rows beyond their thresholds
--   exact               true when the values come from the status line; only then:
--   min_duration_s      how long fail-open lasts at least
--   in_fail_open_s      how long it has lasted
--   port                the port that the driver counts, 0 for none
function Monitor:cycle()
    local before = self.state
    local action = SLB.filter.CheckSystemHealthMetrics(self.dom, before, self.policy).action
    local records = self.records and self.records() or {}
    local result = { action = action, text = action_text(action, before), before = before,
                     over = {}, metrics = {}, policy_error = self.policy_error,
                     policy_warnings = self.policy_warnings }
    self.policy_error, self.policy_warnings = nil, nil
    result.measured = action == filter.NORMAL or action == filter.FAIL_OPEN
    if result.measured then self:measure(result, records) end
    self.has_run = true

    -- Any other action decides nothing: the state stays, fail-open included, so that a
    -- failing sample cannot switch enforcement on a machine under stress.
    if action == filter.FAIL_OPEN and before == filter.DEACTIVATED then
        result.transition = "entered"
        if #result.over == 0 then blame_ties(result.metrics, result.over) end
        self:change(filter.ACTIVATED)
    elseif action == filter.NORMAL and before == filter.ACTIVATED then
        result.transition = "left"
        self:change(filter.DEACTIVATED)
    end
    result.state, result.unpublished = self.state, self.unpublished
    return result
end

-- ---- connection feedback --------------------------------------------------------------

-- The module publishes what was fed when it is asked to and more than 60 whole seconds
-- have passed since it did so last, or since it was loaded.
filter.PUBLICATION_INTERVAL_S = 61

-- Maximum number of distinct keys that the module keeps between publications.
filter.KEYS_KEPT = 10000

-- Bits of an observation's "flags" that the flow table can tell.
filter.UDP_CONNECTION = 0x2
filter.OUTBOUND_CONNECTION = 0x4
local FLAGS_LIMIT = 0x8  -- above their sum

-- What the module is told of a flow: the key under which equal ones are counted, and lines
-- of a name, a TAB and a value. Equal are flows to the same service, whoever opened them: a
-- client's port differs every time, and a server has more clients than the module has room
-- for. `flow` is a row of handle:connections(); `outbound`: it was opened from this machine.
function filter.observation(flow, outbound)
    local flags = (flow.protocol == "udp" and filter.UDP_CONNECTION or 0)
        + (outbound and filter.OUTBOUND_CONNECTION or 0)
    local key = ("%s %s %d %d"):format(flow.protocol, flow.dst, flow.dport, flags)
    local text = ("protocol\t%s\ndst_addr\t%s\ndst_port\t%d\nflags\t%d\n")
        :format(flow.protocol, flow.dst, flow.dport, flags)
    return key, text, flags
end

-- Lua hashes a string of 32 characters or more by some of them only, every second or third:
-- keys that differ in the others collide, and a table of 60,000 takes seconds or minutes to
-- fill. So nothing here is kept under a string composed of addresses and ports, but in nested
-- tables, by address and by number.
local function branch(tree, key)
    local found = tree[key]
    if not found then
        found = {}
        tree[key] = found
    end
    return found
end

-- The flow's protocol and destination port in a number.
local function service(flow)
    return flow.dport * 2 + (flow.protocol == "udp" and 1 or 0)
end

-- Notes the flow as present; false when it was there already.
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

-- options.is_local     function(address): whether it is one of this machine's. Without it no
--                      flow counts as outbound.
-- options.interrupted  function(), asked while a sample goes through the flows: true ends it
-- The module must be loaded: the time to the first publication runs from then on.
function filter.feedback(options)
    options = options or {}
    check_options(options, FEEDBACK_OPTIONS)
    local feedback = setmetatable({ is_local = options.is_local, present = {} }, Feedback)
    feedback.interrupted = options.interrupted or function() return false end
    feedback:start_over(os.time())
    return feedback
end

-- Nothing is fed, and the module has room for all keys. `published`: since when.
function Feedback:start_over(published)
    self.published = published
    self.fed, self.refused = 0, 0
    self.rows, self.keys, self.key_count = {}, {}, 0  -- rows by destination and service
end

local ROWS_BETWEEN_CHECKS = 1000

-- The flows as a tree, how many they are, and an array of those that the last sample did not
-- have; nil when interrupted.
function Feedback:compare(flows)
    local present, total, new = {}, 0, {}
    for i, flow in ipairs(flows) do
        if i % ROWS_BETWEEN_CHECKS == 0 and self.interrupted() then return nil end
        if add(present, flow) then  -- both ends of a connection within the machine are listed
            total = total + 1
            if not contains(self.present, flow) then new[#new + 1] = flow end
        end
    end
    return present, total, new
end

-- Feeds one observation for each flow that the previous sample did not have. A flow that
-- lasts is counted once; one that comes and goes between two samples is not seen, unless
-- the driver still remembers it; one that comes back with the same ports in time for the
-- next sample counts as the same. Returns how many flows there are and how many are new;
-- nil and "interrupted" when options.interrupted ended it, with nothing fed.
function Feedback:sample(flows)
    local present, total, new = self:compare(flows)
    if not present then return nil, "interrupted" end
    for _, flow in ipairs(new) do self:feed(flow) end
    self.present = present
    return total, #new
end

-- The row that the module's report will have for an observation.
local function row_of(flow, flags)
    local udp = flow.protocol == "udp"
    return { protocol = flow.protocol, dst_addr = flow.dst, dst_port = flow.dport, flags = flags,
             cf_udp_connection = udp and 1 or 0,
             cf_outbound_connection = flags >= filter.OUTBOUND_CONNECTION and 1 or 0, count = 0 }
end

-- Keeps count of an observation in the way of the module, which drops those beyond its room
-- silently.
function Feedback:count(flow, flags, key)
    local rows = branch(self.rows, flow.dst)
    local number = flow.dport * FLAGS_LIMIT + flags
    if not rows[number] then
        if self.key_count == filter.KEYS_KEPT then
            self.refused = self.refused + 1
            return
        end
        rows[number], self.key_count = row_of(flow, flags), self.key_count + 1
        self.keys[rows[number]] = key
    end
    rows[number].count = rows[number].count + 1
end

function Feedback:feed(flow)
    local outbound = self.is_local ~= nil and self.is_local(flow.src)
    local key, text, flags = filter.observation(flow, outbound)
    SLB.filter.AddToConnMetrics(key, text, 1)
    self.fed = self.fed + 1
    self:count(flow, flags, key)
end

-- Seconds until the module can publish; 0 when it can. A clock that was set back prolongs
-- it, for the module as well.
function Feedback:due()
    return math.max(0, self.published + filter.PUBLICATION_INTERVAL_S - os.time())
end

-- Most frequent first; equally frequent ones in the module's order.
local function sort_by_count(rows)
    local position = {}
    for i, row in ipairs(rows) do position[row] = i end
    table.sort(rows, function(a, b)
        if a.count ~= b.count then return a.count > b.count end
        return position[a] < position[b]
    end)
end

-- Publishes and fetches what was fed, or returns nil while that is not due. A report has
--   rows          as SLB.filter.GetConnMetrics gives them, most frequent first
--   observations  the sum of their counts
--   refused       observations for which the module had no room: it keeps 10000 keys
--   since, time   the seconds between which they were fed
function Feedback:report()
    if self:due() > 0 then return nil end
    SLB.filter.UpdateConnMetrics()
    local report = { rows = SLB.filter.GetConnMetrics(), observations = 0,
                     since = self.published, time = os.time() }
    -- A clock that was set back in between: the module kept everything for later.
    if #report.rows == 0 and self.fed > 0 then return nil end
    for _, row in ipairs(report.rows) do report.observations = report.observations + row.count end
    report.refused = self.fed - report.observations
    sort_by_count(report.rows)
    -- Taken after the call, so never before the module's own note of the time.
    self:start_over(report.time)
    return report
end

-- What was fed since the last report and is not published yet, in the form of a report.
function Feedback:rest()
    local rows, keys = {}, self.keys
    for row in pairs(keys) do rows[#rows + 1] = row end
    table.sort(rows, function(a, b) return keys[a] < keys[b] end)
    sort_by_count(rows)
    return { rows = rows, observations = self.fed - self.refused, refused = self.refused,
             since = self.published, time = os.time() }
end

return filter
