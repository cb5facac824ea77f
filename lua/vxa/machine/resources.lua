-- What the kernel reports about the machine beside the module's metrics. Shown to explain them, and
-- never judged.

local resources = {}

resources.PROC = "/proc"
resources.CGROUPS = "/sys/fs/cgroup"

local MOST_BYTES = 65536

-- ---- pressure and memory ----------------------------------------------------------------

-- In % of the last 10 seconds (the kernel's Documentation/accounting/psi.rst).
local function stalled(vxa, resource)
    local text = vxa.read_file(resources.PROC .. "/pressure/" .. resource, MOST_BYTES)
    return text and tonumber(text:match("some avg10=(%S+)"))
end

-- Returns a function that returns the kB of a name in /proc/meminfo, or nil.
function resources.meminfo(vxa)
    local text = vxa.read_file(resources.PROC .. "/meminfo", MOST_BYTES) or ""
    return function(name) return tonumber(text:match(name .. ": *(%d+) kB")) end
end

local function available_bytes(vxa)
    local kb = resources.meminfo(vxa) "MemAvailable"
    return kb and kb * 1024
end

-- ---- limits of control groups -----------------------------------------------------------

-- Each returns the limit that a group's directory has, or nil. The files are described in the
-- kernel's Documentation/admin-guide/cgroup-v2.rst and, for version 1, in
-- Documentation/scheduler/sched-bwc.rst and admin-guide/cgroup-v1/memory.rst.

local function cpu_v2(read)
    local quota, period = read("cpu.max"):match("^(%d+) (%d+)")
    return quota and quota / period
end

local function cpu_v1(read)
    local quota, period = tonumber(read "cpu.cfs_quota_us"), tonumber(read "cpu.cfs_period_us")
    return quota and period and quota > 0 and quota / period or nil
end

local function memory_v2(read)
    return tonumber(read("memory.max"):match("^%d+"))
end

-- Without a limit the file has the largest multiple of the page size below 2^63.
local function memory_v1(read)
    local bytes = tonumber(read "memory.limit_in_bytes")
    return bytes and bytes < 2 ^ 62 and bytes or nil
end

-- Returns the smallest limit among the group at this path and those above it. A path outside the
-- process's namespace begins with "/..", and only the namespace's root is visible.
local function tightest(vxa, mount, path, limit_of)
    local least
    path = path:find("/..", 1, true) and "" or path:gsub("/+$", "")
    while path do
        local limit = limit_of(function(name)
            return vxa.read_file(mount .. path .. "/" .. name, MOST_BYTES) or ""
        end)
        if limit and (not least or limit < least) then least = limit end
        path = path:match("^(.*)/[^/]*$")
    end
    return least
end

-- Returns the limits of this process in processors and bytes, nil for none. A controller that is
-- not in a hierarchy of version 1 is in the one of version 2.
local function limits(vxa)
    local cpu, memory
    local groups = vxa.read_file(resources.PROC .. "/self/cgroup", MOST_BYTES) or ""
    for controllers, path in groups:gmatch("%d+:([^:\n]*):([^\n]*)") do
        local mount, list = resources.CGROUPS .. "/" .. controllers, "," .. controllers .. ","
        if list == ",," then
            cpu = cpu or tightest(vxa, resources.CGROUPS, path, cpu_v2)
            memory = memory or tightest(vxa, resources.CGROUPS, path, memory_v2)
        end
        if list:find(",cpu,", 1, true) then cpu = tightest(vxa, mount, path, cpu_v1) or cpu end
        if list:find(",memory,", 1, true) then
            memory = tightest(vxa, mount, path, memory_v1) or memory
        end
    end
    return cpu, memory
end

-- Returns what is known of these, each nil if the kernel does not report it; or nil for a simulated
-- machine:
--
-- cpu_pressure, memory_pressure, io_pressure   % of the last 10 seconds in which at least one
--                                              process waited for it
-- memory_available_bytes                       MemAvailable: free, or in caches that can shrink
-- cpu_limit                                    processors that this process may use, if limited
-- memory_limit_bytes                           memory that it may use, if limited
function resources.read(vxa)
    if vxa.simulated_machine() then return nil end
    local cpu_limit, memory_limit = limits(vxa)
    return { cpu_pressure = stalled(vxa, "cpu"), memory_pressure = stalled(vxa, "memory"),
             io_pressure = stalled(vxa, "io"), memory_available_bytes = available_bytes(vxa),
             cpu_limit = cpu_limit, memory_limit_bytes = memory_limit }
end

return resources
