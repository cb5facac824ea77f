-- The machine around the simulated engine, so that an overload can be rehearsed: the module
-- reads load and processors from the commands in share/simulated and the memory from a
-- file in the place of /proc/meminfo. The module itself knows nothing of it.

local console = require "command.console"

local simulation = {}

local machine  -- what the module sees until the next update

local function show_machine(vxa)
    machine = vxa.simulated_machine()
    vxa.setenv("VXA_SIMULATED_LOAD", ("%.2f"):format(machine.run_queue_length))
    vxa.setenv("VXA_SIMULATED_CPUS", ("%d"):format(machine.cpu_count))
    return vxa.simulate_memory(machine.memory_total_kb, machine.memory_free_kb)
end

function simulation.start(vxa)
    local root = package.path:match("^(.-)/lua/%?%.lua;")
    vxa.setenv("PATH", root .. "/share/simulated:" .. os.getenv("PATH"))
    local simulated, message = show_machine(vxa)
    if not simulated then
        console.complain("warning: the memory is this machine's, not simulated: " .. message)
    end
end

-- Before each cycle. Time goes on by a tick a cycle; the module's own fetch of the counters
-- makes the tick when a port is monitored.
function simulation.update(vxa)
    if not machine then return end
    if machine.shown and vxa.simulated_machine().tick == machine.tick then vxa.simulated_tick() end
    show_machine(vxa)
    machine.shown = true
end

return simulation
