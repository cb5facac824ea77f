-- The simulated engine's machine, as the module sees it, so that an overload can be rehearsed
-- with the unmodified module: uptime and nproc come from share/simulated, /proc/meminfo is a
-- file mounted over the real one.

local console = require "vxa.output.console"

local simulation = {}

local machine  -- what the module sees until the next update

local function show_machine(vxa)
    machine = vxa.simulated_machine()
    vxa.setenv("VXA_SIMULATED_LOAD", ("%.2f"):format(machine.run_queue_length))
    vxa.setenv("VXA_SIMULATED_CPUS", ("%d"):format(machine.cpu_count))
    return vxa.simulate_memory(machine.memory_total_kb, machine.memory_free_kb)
end

-- From now on uptime and nproc are those of the simulated machine.
local function replace_commands(vxa)
    local layout = require "vxa.layout"  -- bin/vxa defines it
    vxa.setenv("PATH", layout.shared .. "/simulated:" .. os.getenv("PATH"))
end

-- For commands that run no cycle. Does nothing if the engine is not simulated.
function simulation.show_processors(vxa)
    local simulated = vxa.simulated_machine()
    if not simulated then return end
    replace_commands(vxa)
    vxa.setenv("VXA_SIMULATED_CPUS", ("%d"):format(simulated.cpu_count))
end

function simulation.start(vxa)
    replace_commands(vxa)
    local simulated, message = show_machine(vxa)
    if not simulated then
        console.complain("warning: memory is this machine's, not simulated: " .. message)
    end
end

-- Call before each cycle: simulated time advances by one tick per cycle. When a port is
-- monitored, the module's own fetch of the counters has already done that.
function simulation.update(vxa)
    if not machine then return end
    if machine.shown and vxa.simulated_machine().tick == machine.tick then vxa.simulated_tick() end
    show_machine(vxa)
    machine.shown = true
end

-- Returns the machine that the module saw in this cycle, or nil if it is not simulated.
function simulation.machine_shown()
    return machine
end

return simulation
