-- vxa run --metrics FILE.prom: the run for Prometheus, through the textfile collector of its node
-- exporter. docs/fleet.md describes the metrics.

local exit = require "vxa.exit"
local filter = require "filter"
local measurements = require "vxa.machine.measurements"
local prometheus = require "vxa.output.prometheus"

local MOST_BYTES = 1048576
local FIRST_WORDS = "# HELP vxa_build_info "  -- of every file written here
local ENOENT = 2

-- ---- options ----------------------------------------------------------------------------

-- The collector reads no other files. The ending also keeps a mistyped name from being replaced.
local function file_name(path)
    if path:find("[^/]%.prom$") then return path end
    return nil, ("--metrics must be a file name that ends in .prom, not '%s'"):format(path)
end

local function define(command)
    command:option("--metrics", "Keep the run's metrics for Prometheus in this file, for the "
        .. "textfile collector of its node exporter. The name must end in .prom.")
        :argname("FILE.prom"):convert(file_name)
    command:flag("--metrics-services", "With --metrics: also count connections by service.")
end

-- ---- metrics ----------------------------------------------------------------------------

local RESULTS = {
    { "normal", filter.NORMAL }, { "fail_open", filter.FAIL_OPEN },
    { "disabled", filter.DISABLED }, { "no_load", filter.NO_LOAD },
    { "no_memory", filter.NO_MEMORY },
}

-- The health metrics in base units: the parts of their families' names, by what to divide the
-- module's values, and what they measure.
local BASE = {
    rqpct = { "run_queue", "processes", 1, "One-minute load average" },
    refusalpct = { "refused_connections", "ratio", 100,
                   "Connections to the port closed before they were established, of the new ones" },
    estab = { "established", "per_cpu", 1,
              "Connections established to the port, per second and processor" },
    scanmb = { "scanned_bytes", "per_cpu", 1 / 1048576,
               "Bytes through the port in both directions, per second and processor" },
    frepct = { "free_memory", "ratio", 100, "Free memory without caches, of all memory" },
    delta_t = { "cycle_interval", "seconds", 1, "Time since the previous cycle" },
}

local function family(kind, name, help, samples)
    return { name = "vxa_" .. name, type = kind, help = help, samples = samples }
end

-- A family of one series without labels; of none if the value is not known.
local function single(kind, name, help, value)
    return family(kind, name, help, { { value = value } })
end

-- Returns an array's rows as samples: `describe(row)` returns label, label value and value.
local function labelled(rows, describe)
    local samples = {}
    for i, row in ipairs(rows) do
        local label, name, value = describe(row)
        samples[i] = { value = value, labels = { { label, name } } }
    end
    return samples
end

-- How close a metric is to its threshold; 1: it is there.
local function pressure(metric, value, threshold)
    if not (value and threshold) then return nil end
    return metric.below and threshold / value or value / threshold
end

-- Returns the families of a metric's value and of its threshold.
local function health_families(metric, value, threshold)
    local stem, unit, divisor, help = table.unpack(BASE[metric.name])
    local bad = metric.below and "too low below" or "too high above"
    return single("gauge", ("health_%s_%s"):format(stem, unit), help .. ".",
            value and value / divisor),
        single("gauge", ("health_%s_threshold_%s"):format(stem, unit),
            ("%s: %s this."):format(help, bad), threshold and threshold / divisor)
end

local function service_samples(counts)
    local samples = {}
    local function add(protocol, direction, port, count)
        samples[#samples + 1] = { value = count, labels = {
            { "protocol", protocol }, { "direction", direction }, { "port", port } } }
    end
    for _, service in ipairs(counts.services) do
        add(service.protocol, service.direction, ("%d"):format(service.port), service.count)
    end
    add("other", "other", "other", counts.other)
    return samples
end

-- ---- the listener -----------------------------------------------------------------------

local Metrics = {}
Metrics.__index = Metrics

-- Ends the command if the file cannot be written, or has the name of something that must not be
-- replaced.
local function check_file(vxa, path)
    local text, message, code = vxa.read_file(path, MOST_BYTES)
    if text and text ~= "" and text:sub(1, #FIRST_WORDS) ~= FIRST_WORDS then
        exit.fail(2, "%s exists and is not a metrics file of vxa; it is not replaced", path)
    elseif not text and code ~= ENOENT then
        exit.fail(2, "metrics file %s", message)
    end
    local file, failure = vxa.temporary(path)
    if not file then exit.fail(1, "%s", failure) end
    file:close()
end

local function new(monitored, options)
    if not options.metrics then
        if options.metrics_services then exit.fail(2, "--metrics-services needs --metrics") end
        return nil
    end
    check_file(monitored.vxa, options.metrics)
    local self = setmetatable({ monitored = monitored, vxa = monitored.vxa, path = options.metrics,
                                has_services = options.metrics_services,
                                observes = options.observe, started = monitored.vxa.time(),
                                cycles = {}, count = 0, sum_s = 0, entries = 0, causes = {},
                                fail_open_s = 0, values = {},
                                measurements = measurements.new(monitored.vxa) }, Metrics)
    for _, row in ipairs(RESULTS) do self.cycles[row[2]] = 0 end
    for _, metric in ipairs(filter.metrics) do self.causes[metric.name] = 0 end
    self.result = { metrics = {}, state = monitored.monitor.state }  -- until the first cycle
    return self
end

-- Time in fail-open is counted from cycle to cycle, where the state changes.
function Metrics:count_time(result)
    local now = self.vxa.clock()
    if result.before == filter.ACTIVATED then
        self.fail_open_s = self.fail_open_s + now - self.counted_until
    end
    self.counted_until = now
end

-- The module's own values have three decimals.
function Metrics:measure(result)
    local _, values = self.measurements:take(result, self.monitored.messages.records)
    for _, row in ipairs(result.metrics) do
        if row.few then values[row.name] = nil end
    end
    self.values = values
end

-- An entry that is held back, or only observed, leaves the filter enforcing.
local function outcome(result)
    local enforces = result.state == filter.DEACTIVATED
    return result.action == filter.FAIL_OPEN and enforces and filter.NORMAL or result.action
end

function Metrics:cycle(result)
    self.result = result
    self:measure(result)
    local action = outcome(result)
    self.cycles[action] = (self.cycles[action] or 0) + 1
    self.count, self.sum_s = self.count + 1, self.sum_s + result.seconds
    self.minimum_s = result.min_duration_s or self.minimum_s
    self:count_time(result)
    if result.transition ~= "entered" then return end
    self.entries = self.entries + 1
    for _, metric in ipairs(result.over) do
        self.causes[metric.name] = self.causes[metric.name] + 1
    end
end

-- Not in cycle(): the counts must be in the state directory before they can be read here, or
-- they could run backwards when the run is killed.
function Metrics:saved()
    local written, message = self:write()
    if not written then self.monitored.messages:warn_once(message) end
end

Metrics.start = Metrics.saved

-- What another run has written is for that to remove.
function Metrics:finish()
    if self:is_shared() then return end
    local removed, message = self.vxa.remove_file(self.path)
    if not removed then self.monitored.messages:warn_once(message) end
end

-- Returns 0 or 1; nil before the first cycle.
function Metrics:is_monitoring()
    local action = self.result.action
    if not action then return nil end
    return (action == filter.DISABLED or self.observes) and 0 or 1
end

-- Returns the threshold that the metric was judged by, or nil.
function Metrics:threshold(i)
    local row = self.result.metrics[i]
    return row and row.enabled and not self.observes and row.threshold or nil
end

function Metrics:run_families()
    local result = self.result
    return {
        family("gauge", "build_info", "1, with version and engine.", { { value = 1, labels = {
            { "version", self.vxa.version }, { "engine", self.monitored.engine } } } }),
        single("gauge", "start_time_seconds", "When the run began, since the epoch.",
            self.started),
        single("gauge", "last_cycle_timestamp_seconds",
            "When the latest cycle began, since the epoch.", result.time),
        family("counter", "cycles_total", "Cycles by result.", labelled(RESULTS, function(row)
            return "result", row[1], self.cycles[row[2]]
        end)),
        family("summary", "cycle_duration_seconds", "How long the cycles took.", {
            { suffix = "_sum", value = self.sum_s }, { suffix = "_count", value = self.count } }),
        single("gauge", "monitoring_enabled", "1 if the latest cycle had a policy to judge by.",
            self:is_monitoring()),
    }
end

function Metrics:fail_open_families()
    return {
        single("gauge", "fail_open_active", "1 during fail-open.",
            self.result.state == filter.ACTIVATED and 1 or 0),
        single("gauge", "fail_open_minimum_seconds", "How long fail-open lasts at least.",
            self.minimum_s),
        single("counter", "fail_open_entries_total", "How often fail-open was entered.",
            self.entries),
        single("counter", "fail_open_seconds_total", "Time in fail-open.", self.fail_open_s),
        family("counter", "fail_open_causes_total",
            "Entries for which the metric was beyond its threshold.",
            labelled(filter.metrics, function(metric)
                return "metric", metric.name, self.causes[metric.name]
            end)),
    }
end

function Metrics:health_families()
    local families, samples = {}, {}
    for i, metric in ipairs(filter.metrics) do
        local value, threshold = self.values[metric.name], self:threshold(i)
        samples[i] = { value = pressure(metric, value, threshold),
                       labels = { { "metric", metric.name } } }
        families[2 * i - 1], families[2 * i] = health_families(metric, value, threshold)
    end
    table.insert(families, 1, family("gauge", "health_pressure_ratio",
        "How close the metric is to its threshold; beyond it above 1.", samples))
    return families
end

function Metrics:connection_families()
    local counts = self.monitored.feedback:counts()
    local families = {
        family("counter", "driver_call_failures_total", "Failed calls of the driver.",
            labelled(self.vxa.driver_failures(), function(row)
                return "call", row.call, row.count
            end)),
        single("counter", "connections_observed_total", "New connections fed to the module.",
            counts.observed),
        single("counter", "connections_reported_total", "Connections in published reports.",
            counts.reported),
        single("counter", "connections_refused_total",
            "Connections that the module had no room for.", counts.refused),
        single("gauge", "connections_pending",
            "New connections that the module publishes with the next report.", counts.pending),
        single("counter", "reports_total", "Published connection reports.", counts.reports),
    }
    if self.has_services then
        families[#families + 1] = family("counter", "service_connections_total",
            "Reported connections by service.", service_samples(counts))
    end
    return families
end

-- Whether another run has replaced the file since this one last did.
function Metrics:is_shared()
    local found = self.written and self.vxa.read_file(self.path, MOST_BYTES)
    return found and found ~= self.written
end

-- Returns true, or nil and a message.
function Metrics:write()
    if self:is_shared() then
        self.monitored.messages:warn_once(("%s: another process writes it too; each run needs its "
            .. "own metrics file"):format(self.path))
    end
    local text = prometheus.text(self:run_families()) .. prometheus.text(self:fail_open_families())
        .. prometheus.text(self:health_families()) .. prometheus.text(self:connection_families())
    local written, message = self.vxa.replace_file(self.path, text, true)
    self.written = written and text or self.written
    return written, message
end

return { define = define, new = new }
