-- A rehearsal of filter_script.lua: how it behaves on a busy and on an overloaded machine, without
-- its driver, after the clock was set back, with a full disk and with a policy that has a mistake.
--
--     lua5.2 rehearsal.lua
--
-- The script and the module fc are those that an agent runs. Simulated are the machine and its
-- driver (the engine "sim"), time (a tick is twenty seconds, but nothing waits) and the failures.
-- Time needs Debian's package libfaketime. Run it as an ordinary user: as root, the module would
-- write its log of the settings in force. Nothing is left behind. Copy it, and add what your own
-- script must do.

-- Runs this script again with libfaketime, whose clock stands at the environment variable FAKETIME,
-- in seconds since the epoch. The loader replaces $LIB by the folder of the system's libraries.
if not os.getenv "FAKETIME" then
    local _, _, status = os.execute("FAKETIME=" .. os.time() .. " FAKETIME_NO_CACHE=1 "
        .. "FAKETIME_FMT=%s FAKETIME_DONT_FAKE_MONOTONIC=1 "
        .. "LD_PRELOAD='/usr/$LIB/faketime/libfaketime.so.1' exec lua5.2 '"
        .. arg[0]:gsub("'", "'\\''") .. "'")
    os.exit(status)
end

local folder = arg[0]:match("^(.*/)") or ""
local vxa = require "vxa"
local script = dofile(folder .. "filter_script.lua")

local SECONDS_PER_TICK = 20
local POLICY = [[{ "SYS_CONF_CONN_REFUSAL_PORT": 443, "SYS_CONF_MIN_ACT_DURATION": 1,
    "SYS_THR_RUNQ": { "value": 8 }, "SYS_THR_CONN_EST_PER_CPU": { "value": 100 } }]]

-- ---- what the script did ----------------------------------------------------------------

local seen  -- in this situation
local rows, failures, ticks = { { "situation", "the script", "expected", "did" } }, 0, 0

local function expect(what, expected, did)
    expected, did = tostring(expected), tostring(did)
    failures = failures + (did == expected and 0 or 1)
    rows[#rows + 1] = { seen.situation, what, expected, did .. (did == expected and "" or "  <--") }
    seen.situation = ""
end

-- Whether a log message has this part.
local function has_logged(part)
    return table.concat(seen.log, "\n"):find(part, 1, true) ~= nil
end

-- ---- the agent --------------------------------------------------------------------------

local state = os.tmpname()
os.remove(state)
local agent = { dom = assert(vxa.Dom(state)), open = vxa.open }

function agent.log(message)
    seen.log[#seen.log + 1] = message
end

function agent.enforce(on)
    seen.enforced[#seen.enforced + 1] = on and "on" or "off"
end

function agent.send(report)
    seen.reported = seen.reported + report.observations
end

local function write_package()
    local file = assert(vxa.temporary(state .. "/package.zip"))
    local archive = assert(vxa.ZipOutputStream(file))
    script.add_diagnostics(archive)
    local done, message, number = archive:close()
    if done then done, message, number = file:publish(true) end
    return done, message, number
end

-- ---- the machine ------------------------------------------------------------------------

local now = os.time()

-- A tick of the script. If it does not read the driver's counters, the simulated machine would
-- stand still.
local function run(count)
    for _ = 1, count do
        now, ticks = now + SECONDS_PER_TICK, ticks + 1
        vxa.setenv("FAKETIME", ("%d"):format(now))
        assert(os.time() == now, "the clock cannot be set: install Debian's package libfaketime")
        local machine = vxa.simulated_machine()
        vxa.setenv("VXA_SIMULATED_LOAD", ("%.2f"):format(machine.run_queue_length))
        vxa.setenv("VXA_SIMULATED_CPUS", ("%d"):format(machine.cpu_count))
        seen.result = script.tick()
        if vxa.simulated_machine().tick == machine.tick then vxa.simulated_tick() end
    end
end

-- ---- situations -------------------------------------------------------------------------

-- Each has the phases of the simulated machine with their lengths in ticks, and runs that many.
local situations = {
    { "busy", "busy:5", function()
        run(5)
        expect("switches enforcement", "never", seen.enforced[1] or "never")
        expect("reports connections", 200, seen.reported)
        expect("writes a package", true, (write_package()))
        expect("  with entries", 6, #assert(vxa.zip_entries(state .. "/package.zip")))
    end },
    { "overload", "overloaded:2/busy:3", function()
        run(2)
        local over = {}
        for i, row in ipairs(seen.result.over) do over[i] = row.name end
        expect("switches enforcement", "off", table.concat(seen.enforced, " "))
        expect("  because of", "rqpct", table.concat(over, " "))
        expect("  stored as", "Activated", agent.dom:get "vxp.filter.FailOpenState")
        run(3)
        expect("  when it is over", "off on", table.concat(seen.enforced, " "))
    end },
    { "driver gone", "busy:6", function()
        vxa.fault "vxi_open=-19"
        run(3)
        expect("judges the other metrics", "normal", seen.result.text)
        expect("logs it, times", 3, #seen.log)
        vxa.fault()
        run(1)
        expect("takes the backlog for a burst", "wait one cycle", seen.result.text)
        run(2)
        expect("switches enforcement", "never", seen.enforced[1] or "never")
    end },
    { "clock set back", "overloaded:3/busy:3", function()
        run(1)
        now = now - 3600
        run(1)
        expect("switches enforcement", "off on", table.concat(seen.enforced, " "))
        run(1)
        expect("  still overloaded", "off on off", table.concat(seen.enforced, " "))
        run(3)
        expect("  when it is over", "off on off on", table.concat(seen.enforced, " "))
    end },
    { "disk full", "overloaded:2/busy:3", function()
        vxa.limit_file_size(0)
        run(2)
        local written, message, number = write_package()
        vxa.limit_file_size()
        expect("switches enforcement", "off", table.concat(seen.enforced, " "))
        expect("logs that its state is not stored", true, has_logged "File too large")
        expect("writes a package", "nil 27", ("%s %s"):format(written, number))
        expect("  because", true, message:find("File too large", 1, true) ~= nil)
        run(3)
        expect("stores its state later", "Deactivated",
            vxa.read_file(state .. "/document.json", 1e6):match 'FailOpenState":%s*"(%a+)"')
    end },
    { "wrong policy", "busy:1", function()
        expect("accepts it", false, script.set_policy '{ "SYS_THR_RUNQ": 8 }' ~= nil)
        expect("  logs where it is wrong", true, has_logged "SYS_THR_RUNQ must be")
        run(1)
        expect("monitors as before", "normal", seen.result.text)
    end },
}

local function print_table()
    local widths = { 0, 0, 0 }
    for _, row in ipairs(rows) do
        for i = 1, 3 do widths[i] = math.max(widths[i], #row[i]) end
    end
    local format = ("%%-%ds  %%-%ds  %%-%ds  %%s"):format(table.unpack(widths))
    for _, row in ipairs(rows) do print(format:format(table.unpack(row))) end
end

vxa.capture(true)  -- what the module logs of the failures
-- The commands uptime and nproc, which the module runs, are those of the simulated machine.
vxa.setenv("PATH", folder .. "../simulated:" .. os.getenv "PATH")
assert(vxa.engine "sim")
local phases = {}
for i, situation in ipairs(situations) do phases[i] = situation[2] end
assert(vxa.simulate(("interval_s=%d,scenario=%s"):format(SECONDS_PER_TICK,
    table.concat(phases, "/"))))

local started = vxa.clock()
script.start(agent)
assert(script.set_policy(POLICY))
for _, situation in ipairs(situations) do
    seen = { situation = situation[1], log = {}, enforced = {}, reported = 0 }
    situation[3]()
end
local seconds = vxa.clock() - started
agent.dom:close()
for _, name in ipairs { "/package.zip", "/document.json", "/events.jsonl", "/lock", "" } do
    os.remove(state .. name)
end
print_table()
print(("%d ticks of %d s in %.2f s, %d of %d not as expected"):format(ticks, SECONDS_PER_TICK,
    seconds, failures, #rows - 1))
os.exit(failures == 0 and 0 or 1)
