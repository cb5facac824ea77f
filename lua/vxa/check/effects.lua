-- Finds settings that are read but have no effect, or not the one that was meant.

local filter = require "filter"
local health_policy = require "health_policy"

local effects = {}

local metrics = {}  -- by policy key
for _, metric in ipairs(filter.metrics) do metrics[metric.setting] = metric end

-- Returns the keys of the thresholds that are set, those that need a port or the others.
local function thresholds(values, needs_port)
    local keys = {}
    for _, setting in ipairs(health_policy.settings) do
        if setting.threshold and values[setting.key] and setting.needs_port == needs_port then
            keys[#keys + 1] = setting.key
        end
    end
    return keys
end

local NEEDS_PORT = true

local Judge = {}
Judge.__index = Judge

-- As the inspected text names the setting.
function Judge:name(key)
    return self.subject.format == "conf" and health_policy.find(key).conf or key
end

function Judge:add(severity, key, format, ...)
    local name = key and self:name(key)
    self.subject.findings:add {
        detail = true, severity = severity, key = name, lead = name and name .. ": " or "",
        at = key and self.subject.positions[key], message = format:format(...),
    }
end

function Judge:warn(key, format, ...)
    self:add("warning", key, format, ...)
end

-- Whether the setting is in the inspected text. The built-in default is the same for all machines.
function Judge:is_chosen(key)
    return self.subject.positions[key] ~= nil
end

-- ---- by the settings alone ----------------------------------------------------------------

function Judge:check_completeness()
    if not next(self.values) then
        self:warn(nil, "there are no settings: the module does not monitor")
    elseif #thresholds(self.values) + #thresholds(self.values, NEEDS_PORT) == 0 then
        self:warn(nil, "there are no thresholds: only the seconds between cycles are judged")
    end
end

local PORT, OUTBOUND = "SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_CONN_REFUSAL_OUTBOUND"

function Judge:check_port()
    local port = self.values[PORT]
    local judged = thresholds(self.values, NEEDS_PORT)
    for _, key in ipairs(port and {} or judged) do
        self:add("error", key, "needs a port (%s): without one the module does not monitor at all",
            self:name(PORT))
    end
    if not port and self.values[OUTBOUND] then
        self:warn(OUTBOUND, "has no effect without a port (%s)", self:name(PORT))
    end
    if port == 0 then self:warn(PORT, "no connection has port 0: nothing is counted") end
    if port and #judged == 0 then
        self:warn(PORT, "nothing judges its connections: there is no threshold that needs a port")
    end
end

function Judge:check_plain_settings()
    if self.values.SYS_CONF_RECOVER_FACTOR then
        self:warn("SYS_CONF_RECOVER_FACTOR", "is accepted and has no effect")
    end
    if self.values.SYS_CONF_MIN_ACT_DURATION == 0 then
        self:warn("SYS_CONF_MIN_ACT_DURATION", "with 0 fail-open ends at the next cycle")
    end
end

function Judge:check_interval(interval_s)
    if not next(self.values) then return end
    local key = "SYS_THR_MAX_ITERATION_INVL"
    local limit = self.values[key] or metrics[key].default
    if interval_s < limit then return end
    self:warn(key, "cycles are %.14g s apart (--interval), not below the threshold of %.14g s%s: "
        .. "every cycle will count as overloaded", interval_s, limit,
        self.values[key] and "" or " if unset")
end

function Judge:check_refusals()
    if self.values.SYS_THR_CONN_REFUSAL_PCT == 100 then
        self:warn("SYS_THR_CONN_REFUSAL_PCT", "a value above 100 %% is rare: more connections "
            .. "would have to be refused than opened")
    end
end

-- ---- by what this machine can show --------------------------------------------------------

function Judge:check_run_queue(machine)
    local key, threshold = "SYS_THR_RUNQ", self.values.SYS_THR_RUNQ
    if not threshold then return end
    if machine.most_tasks and threshold >= machine.most_tasks then
        self:warn(key, "this machine cannot reach %.14g runnable processes: the kernel allows %d "
            .. "tasks", threshold, machine.most_tasks)
    elseif machine.load and machine.load > threshold then
        self:warn(key, "the load is %.14g now: the next cycle enters fail-open", machine.load)
    elseif machine.cpus and threshold < machine.cpus then
        self:warn(key, "%.14g runnable processes do not occupy the %d processors of this machine; "
            .. "the load is neither per processor nor a percentage", threshold, machine.cpus)
    end
end

function Judge:check_free_memory(machine)
    local key, threshold = "SYS_THR_FREE_MEM", self.values.SYS_THR_FREE_MEM
    if not threshold or not machine.total_kb then return end
    local function percent(kb) return 100 * kb / machine.total_kb end
    local usable = machine.total_kb - (machine.huge_pages_kb or 0)
    if percent(usable) < threshold then
        self:warn(key, "this machine is always below %.14g %%: huge pages take %.3g %% of its "
            .. "memory", threshold, percent(machine.huge_pages_kb))
    elseif percent(machine.free_kb) < threshold then
        self:warn(key, "%.3g %% of the memory is free now (caches do not count as free): the next "
            .. "cycle enters fail-open", percent(machine.free_kb))
    elseif self:is_chosen(key) and machine.kept_free_kb
        and percent(machine.kept_free_kb / 4) > threshold then
        self:warn(key, "this machine hardly falls below %.3g %%: the kernel keeps a quarter of "
            .. "vm.min_free_kbytes even from urgent requests", percent(machine.kept_free_kb / 4))
    end
end

function Judge:check_counting(machine)
    if not machine.cannot_count or not self.values[PORT] then return end
    for _, key in ipairs(thresholds(self.values, NEEDS_PORT)) do
        self:warn(key, "%s is not judged here: engine %s cannot count connections: %s",
            metrics[key].name, machine.engine, machine.cannot_count)
    end
end

local MOST_FINDINGS = 20

-- Adds findings to an inspection. `machine`: what machine.measure returns, or nil for a policy for
-- other machines.
function effects.judge(subject, interval_s, machine)
    local self = setmetatable({ subject = subject, values = subject.settings }, Judge)
    subject.findings:make_room(MOST_FINDINGS)
    self:check_completeness()
    self:check_port()
    self:check_plain_settings()
    self:check_interval(interval_s)
    self:check_refusals()
    if machine then
        self:check_run_queue(machine)
        self:check_free_memory(machine)
        self:check_counting(machine)
    end
    subject.findings:place(subject.text)
end

-- Whether the module monitors with these settings.
function effects.monitors(values)
    return next(values) ~= nil and (values[PORT] ~= nil or #thresholds(values, NEEDS_PORT) == 0)
end

return effects
