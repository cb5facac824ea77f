-- Calls of the command from outside, on the simulated engine, in a scratch folder that
-- goes away with the sandbox. Commands in its folder "bin" come before those of the system.

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

function outside.vxa(arguments, environment)
    local text, status = outside.shell(
        ("cd %s && env PATH=%s/bin:$PATH VXI_ENGINE=sim %s %s/bin/vxa %s 2>err")
            :format(outside.SCRATCH, outside.SCRATCH, environment or "", ROOT, arguments))
    return text, status, testing.read(outside.SCRATCH .. "/err")
end

-- Each pattern behind the one before; one that begins with ^ at the very start.
function outside.match_in_order(text, patterns, what)
    local from = 1
    for _, pattern in ipairs(patterns) do
        local _, last = text:find(pattern, pattern:find("^%^") and 1 or from)
        if not last then cases.matches(text:sub(from), pattern, what) end
        from = last or from
    end
end

return outside
