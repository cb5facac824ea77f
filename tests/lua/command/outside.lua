-- Calls of the command from outside, on the simulated engine, in a scratch folder that
-- goes away with the sandbox.

local cases = require "cases"
local testing = require "testing"

local outside = {}

local ROOT = assert(os.getenv("VXA_ROOT"), "VXA_ROOT names the source tree")

function outside.shell(command)
    local pipe = io.popen(command)
    local text = pipe:read("*a")
    local _, _, status = pipe:close()
    return text, status
end

outside.ROOT = ROOT
outside.SCRATCH = outside.shell("mktemp -d -p /var/opt"):gsub("%s+$", "")

function outside.write(name, text)
    testing.write(name:find("^/") and name or outside.SCRATCH .. "/" .. name, text)
end

-- What the command would run or load from the current folder, which is also the caller's
-- environment.
for _, name in ipairs { "vxa", "fc", "filter", "argparse", "dkjson" } do
    outside.write(name .. ".lua", "error('code of the current folder')")
end
for _, name in ipairs { "uptime", "nproc" } do
    outside.write(name, "#!/bin/sh\necho run >hostile\n")
    outside.shell("chmod +x " .. outside.SCRATCH .. "/" .. name)
end
outside.shell(("ln -s %s/bin/vxa '/var/opt/it is'"):format(ROOT))
local HOSTILE = "PATH=.:$PATH LUA_INIT='error()' LUA_PATH='./?.lua' LUA_CPATH='/nonexistent/?.so'"

-- `hook`: code to run in the interpreter first.
function outside.vxa(arguments, environment, hook)
    if hook then testing.write(outside.SCRATCH .. "/hook.lua", hook) end
    local text, status = outside.shell(
        ("cd %s && env %s VXI_ENGINE=sim %s %s '/var/opt/it is' %s 2>err")
            :format(outside.SCRATCH, HOSTILE, environment or "",
                hook and [[lua5.2 -E -e "dofile('hook.lua')"]] or "", arguments))
    return text, status, testing.read(outside.SCRATCH .. "/err")
end

-- Each pattern after the one before; one that begins with ^ at the very start.
function outside.match_in_order(text, patterns, what)
    local from = 1
    for _, pattern in ipairs(patterns) do
        local _, last = text:find(pattern, pattern:find("^%^") and 1 or from)
        if not last then cases.matches(text:sub(from), pattern, what) end
        from = last or from
    end
end

return outside
