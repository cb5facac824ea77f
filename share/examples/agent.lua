-- A small agent that runs filter_script.lua on this machine, with the module vxa as its host:
--
--     lua5.2 agent.lua POLICY.json PACKAGE.zip [CYCLES [SECONDS]]
--
-- A tick every 10 SECONDS. SIGHUP reads the policy again and writes a diagnostic package; SIGINT
-- or SIGTERM ends it, and so do CYCLES ticks.

local folder = arg[0]:match("^(.*/)") or ""
local vxa = require "vxa"
local script = dofile(folder .. "filter_script.lua")

local policy_path, package_path = arg[1], arg[2]
local cycles, interval_s = tonumber(arg[3] or math.huge), tonumber(arg[4] or 10)
if not (policy_path and package_path and cycles and interval_s) then
    io.stderr:write("usage: lua5.2 agent.lua POLICY.json PACKAGE.zip [CYCLES [SECONDS]]\n")
    os.exit(2)
end

local function log(message)
    print(os.date "%H:%M:%S " .. vxa.printable(message))
end

local agent = { dom = assert(vxa.Dom()), open = vxa.open, log = log }

function agent.enforce(on, unload)
    log(on and "enforcing" or "not enforcing" .. (unload and ", driver unloaded" or ""))
end

function agent.send(report)
    log(("report: %d observations of %d services"):format(report.observations, #report.rows))
end

local function read_policy()
    local text, message = vxa.read_file(policy_path, 2 ^ 20)
    if text then script.set_policy(text) else log(message) end
end

-- A package gets its name once it is complete.
local function write_package()
    local file, message = vxa.temporary(package_path)
    local archive
    if file then archive, message = vxa.ZipOutputStream(file) end
    if not archive then return log(message) end
    script.add_diagnostics(archive)
    local done
    done, message = archive:close()
    if done then done, message = file:publish(true) end
    log(done and "wrote " .. package_path or message)
end

vxa.catch_signals()
vxa.reload_on_hangup()
script.start(agent)
read_policy()
local ticks = 0
while ticks < cycles and not vxa.interrupted() do
    ticks = ticks + 1
    log(script.tick().text)
    if ticks < cycles then vxa.sleep(interval_s) end
    if vxa.reload_asked() then
        read_policy()
        write_package()
    end
end
write_package()
