-- The examples run as their README shows, and the rehearsal notices when the script goes wrong.

local t = require "testing"
local scratch = require "scratch"

local examples = os.getenv "VXA_ROOT" .. "/share/examples/"

-- Runs an example in this folder. What is preloaded is not for the commands that it runs: with a
-- limit on file sizes, a sanitizer breaks the shell.
local function run(folder, command)
    return scratch.shell(("lua5.2 -e 'require(\"vxa\").setenv(\"LD_PRELOAD\", nil)' %s%s")
        :format(folder, command))
end

local output, status = run(examples, "rehearsal.lua")
t.equal(status, 0, output)
t.matches(output, { "^situation", "\nbusy ", "\noverload ", "\ndriver gone ", "\nclock set back ",
                    "\ndisk full ", "\nwrong policy ", ", 0 of %d+ not as expected\n$" }, "table")

-- Each change of the script makes one situation end in another way.
os.execute(("cp -r %s %s../simulated %s"):format(examples, examples, scratch.path))
local copy = scratch.path .. "examples/"
local source = t.read(copy .. "filter_script.lua")
for _, case in ipairs {
    { "overload", "enforce = agent.enforce", "enforce = nil" },
    { "disk full", 'agent.log("state not stored: " .. result.unpublished)', "" },
    { "wrong policy", "if not settings then", "if not settings then monitor:set_policy(text)" },
} do
    local from, to = source:find(case[2], 1, true)
    t.write(copy .. "filter_script.lua", source:sub(1, from - 1) .. case[3] .. source:sub(to + 1))
    output, status = run(copy, "rehearsal.lua")
    t.equal(status, 1, case[1])
    t.matches(output, "\n" .. case[1] .. ".-<%-%-", "table")
end

t.write(scratch.path .. "p.json", '{ "SYS_THR_RUNQ": { "value": 0.1 } }')
output, status = scratch.shell("VXI_ENGINE=sim lua5.2 " .. examples
    .. "agent.lua p.json p.zip 2 0")
t.equal(status, 0, output)
t.matches(output, { "enter fail%-open %(rqpct 0, threshold 0.1%)", "stay fail%-open",
                    "wrote p.zip" }, "agent")
t.matches(scratch.shell("unzip -l p.zip"), { "vxa_stats.txt", "script.txt" }, "package")
t.matches(run(examples, "agent.lua 2>&1"), "^usage: ", "usage")

t.matches(scratch.shell(("$VXA_ROOT/bin/vxa replay %soverload.csv --policy %soverload.json")
    :format(examples, examples)), "/overload.json +3 .- rqpct 3, refusalpct 1\n", "record")

t.finish()
