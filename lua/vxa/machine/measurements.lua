-- The six metrics of each cycle at full precision, also those that the policy does not judge.
--
-- The module's status line has three decimals. But its traces have the numbers that it computes
-- load and memory from, the driver library keeps the counters that it read, and the time in the
-- status line is exact: the same divisions give the same values to the last bit. Load and memory
-- that the module does not trace are sampled here, from the same sources.

local resources = require "vxa.machine.resources"
local session = require "vxa.session"
local simulation = require "vxa.machine.simulation"

local measurements = {}

local Measurements = {}
Measurements.__index = Measurements

function measurements.new(vxa)
    return setmetatable({ vxa = vxa }, Measurements)
end

-- ---- what the module traced -------------------------------------------------------------

local function find(records, kind, pattern)
    for _, record in ipairs(records) do
        if record.kind == kind and (kind == "log" or record.category == "SysHealth.eng") then
            local first, second = record.message:match(pattern)
            if first then return first, second end
        end
    end
end

-- Returns the time of the cycle in microseconds: the module's, if it has logged it.
local function time_of(result, records)
    local seconds, microseconds = find(records, "log", "^SysHealth: .* tval= *(%d+)%.(%d+) ")
    if seconds then return tonumber(seconds) * 1e6 + tonumber(microseconds) end
    return math.floor(result.time * 1e6)
end

-- From the traces of the metrics that depend on it; if none of them was calculated, the module is
-- asked.
local function cpu_count(records)
    local _, cpus = find(records, "trace", "^rqlen=(%S+) numCpus=(%d+)")
    if not cpus then _, cpus = find(records, "trace", "^(conn_established)=%S+ numCpus=(%d+)") end
    if not cpus then _, cpus = find(records, "trace", "^(scanbytes_fwd)=.* numCpus=(%d+)") end
    return cpus and tonumber(cpus) or session.cpu_count()
end

-- ---- what the machine shows -------------------------------------------------------------

local MOST_BYTES = 65536

-- As the module reads the output of uptime: the last digit is dropped.
local function load_now(vxa)
    local simulated = simulation.machine_shown()
    if simulated then return tonumber(("%.2f"):format(simulated.run_queue_length):sub(1, -2)) end
    local text = vxa.read_file("/proc/loadavg", MOST_BYTES)
    return text and tonumber((text:match("^(%d+%.%d+)%d ")))
end

local function memory_now(vxa)
    local kb = resources.meminfo(vxa)
    return kb "MemTotal", kb "MemFree"
end

local function run_queue(vxa, records)
    local length = find(records, "trace", "^rqlen=(%S+) numCpus=")
    return length and tonumber(length) or load_now(vxa)
end

-- The trace calls the physical memory pages, and the free memory physical; both are kB.
local function free_memory_pct(vxa, records)
    local total, free = find(records, "trace", "^fremem pages=(%d+) phsymem MB=(%d+)")
    if not total then total, free = memory_now(vxa) end
    return total and free and tonumber(free) * 100 / tonumber(total)
end

-- ---- rates ------------------------------------------------------------------------------

local FEW_NEW_CONNECTIONS = 5  -- per second; up to that, the module sets refusalpct to 0
local BYTES_PER_MEBIBYTE = 1048576

-- Returns a function from the name of a counter to its rate in this cycle; nil if the module has
-- not read the counters, or has read them for the first time.
function Measurements:rates(seconds)
    local scan, previous = self.vxa.latest_scan(), self.scan
    if not scan or previous and scan.reads == previous.reads then return nil end
    self.scan = scan
    return previous and function(name)
        local grown = scan[name] - previous[name]
        return grown >= 0 and grown / seconds or 0  -- the driver restarted the counter
    end
end

local function add_connection_metrics(values, rate, cpus)
    local new = rate "new"
    values.refusalpct = new > FEW_NEW_CONNECTIONS and 100 * rate "half_open_closed" / new or 0
    values.estab = rate "established" / cpus
    values.scanmb = (rate "bytes_forward" + rate "bytes_backward") / (cpus * BYTES_PER_MEBIBYTE)
end

-- Like the module, subtracts without a sign: the interval is huge if the clock was set back.
local function seconds_between(earlier_us, later_us)
    local difference = later_us - earlier_us
    return (difference >= 0 and difference or difference + 2 ^ 64) / 1e6
end

-- Returns the time of a cycle in microseconds since the epoch, and its values by name of the
-- metric, without those that are not known. `records`: the log records of the cycle.
function Measurements:take(result, records)
    local time_us = time_of(result, records)
    local values = { rqpct = run_queue(self.vxa, records),
                     frepct = free_memory_pct(self.vxa, records) }
    if self.time_us then values.delta_t = seconds_between(self.time_us, time_us) end
    self.time_us = time_us
    local rate = self:rates(values.delta_t)
    if rate then add_connection_metrics(values, rate, cpu_count(records)) end
    return time_us, values
end

-- Returns the port that the module counts, or nil.
function Measurements:port(result)
    local port = result.port or self.scan and self.scan.port
    return port ~= 0 and port or nil
end

return measurements
