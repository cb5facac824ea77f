-- What this machine shows of the metrics at the moment, and the limits of what it can show.

local resources = require "vxa.machine.resources"
local session = require "vxa.session"

local machine = {}

local MOST_BYTES = 65536

local function number_in(vxa, path)
    return tonumber(vxa.read_file(resources.PROC .. "/" .. path, MOST_BYTES) or "")
end

-- Returns the output of a command of the module's, which runs it through the shell as well, and
-- where the shell finds it.
local function run(name)
    local function output_of(command)
        local pipe = assert(io.popen(command .. " 2>/dev/null"))
        local output = pipe:read("*a")
        pipe:close()
        return output
    end
    local path = output_of("command -v " .. name):match("^[^\n]*")
    if path ~= "" then return output_of(name), path end
end

-- The one-minute load average as the module reads it: up to the comma, without the last digit.
local function load_in(output)
    local average = output:match("^[^\n]*"):match("average:([^,]*),")
    return average and tonumber((average:sub(1, -2)))
end

local function most_tasks(vxa)
    local threads = number_in(vxa, "sys/kernel/threads-max")
    local ids = number_in(vxa, "sys/kernel/pid_max")
    return threads and ids and math.min(threads, ids) or threads or ids
end

local function of_simulation(simulated)
    return { simulated = true, load = simulated.run_queue_length, cpus = simulated.cpu_count,
             total_kb = simulated.memory_total_kb, free_kb = simulated.memory_free_kb }
end

local function of_this_machine(vxa)
    local uptime, uptime_path = run "uptime"
    local nproc, nproc_path = run "nproc"
    local kb = resources.meminfo(vxa)
    return {
        uptime_path = uptime_path, load = uptime and load_in(uptime),
        nproc_path = nproc_path, cpus = nproc and tonumber(nproc:match("^%s*(%d+)")),
        total_kb = kb "MemTotal", free_kb = kb "MemFree", huge_pages_kb = kb "Hugetlb",
        kept_free_kb = number_in(vxa, "sys/vm/min_free_kbytes"), most_tasks = most_tasks(vxa),
    }
end

-- Adds what the engine says about its tables.
local function add_capabilities(vxa, found)
    found.capabilities, found.driver_error = session.capabilities(vxa)
    found.cannot_count = found.driver_error
    for _, row in ipairs(found.capabilities) do
        if row.name == "scan-metrics" and not row.available then found.cannot_count = row.detail end
    end
end

-- Returns a table, each member nil if unknown: `load`, `cpus`, `total_kb`, `free_kb` (memory),
-- `uptime_path`, `nproc_path`, `huge_pages_kb`, `kept_free_kb` (by the kernel), `most_tasks`,
-- `simulated`, `engine`, `capabilities`, `driver_error`, and `cannot_count`: why connections are
-- not counted.
function machine.measure(vxa, engine)
    local simulated = vxa.simulated_machine()
    local found = simulated and of_simulation(simulated) or of_this_machine(vxa)
    found.engine = engine
    add_capabilities(vxa, found)
    return found
end

return machine
