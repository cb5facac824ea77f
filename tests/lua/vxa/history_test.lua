-- What runs leave behind: history, logs and hooks.

local json = require "dkjson"
local scratch = require "scratch"
local testing = require "testing"
local vxa_module = require "vxa"

local equal, matches = testing.equal, testing.matches
local ROOT, SCRATCH = os.getenv "VXA_ROOT", scratch.path
os.execute("mkdir " .. SCRATCH .. "lived")

local function shell(...)
    return scratch.shell(string.format(...))
end

local function decode(text)
    local list = {}
    for line in text:gmatch("[^\n]+") do
        if line:find("^{") then list[#list + 1] = assert(json.decode(line), line) end
    end
    return list
end

-- ---- lives made up ------------------------------------------------------------------------

local START = 1616803200      -- 2021-03-27T00:00:00Z, the day before a day of 23 hours
local SUMMER_TIME = 1616893200
local ZONE = "TZ=CET-1CEST,M3.5.0,M10.5.0/3"

local function utc(at) return os.date("!%Y-%m-%dT%H:%M:%S.000Z", at) end

local function day_of(at)
    local days = math.floor((at + (at < SUMMER_TIME and 3600 or 7200) - START) / 86400)
    return ("2021-%s"):format(({ "03-27", "03-28", "03-29", "03-30", "03-31", "04-01" })[days + 1])
end

-- Returns the lines of the records of four days, what was recorded of each second, and the times
-- of the entries.
local function live()
    local lines, truth, entries, state, since, at = {}, {}, {}, nil, nil, START + math.random(9e4)
    local function write(kind, members) -- luacheck: no unused
        lines[#lines + 1] = ('{"record":"%s","time":"%s"%s}\n'):format(kind, utc(at), members or "")
    end
    local function mark(to)
        for second = since or to, to - 1 do truth[second] = state end
        since = at
    end
    while at < START + 4 * 86400 do
        local event = math.random(8)
        if not state then
            write("started")
            state, since = "enforced", at
        elseif event <= 4 then
            mark(at)
            local is_open = state == "fail_open"
            write(is_open and "left" or "entered")
            state = is_open and "enforced" or "fail_open"
            if not is_open then entries[#entries + 1] = at end
        elseif event == 5 then
            mark(at)
            write("ended")
            state = nil
        elseif event == 6 then  -- killed some time before this start
            local seen = at - math.min(30, at - since)
            mark(seen)
            lines[#lines + 1] = ('{"record":"lost","time":"%s"}\n'):format(utc(seen))
            write("started")
            state, since = "enforced", at
        else  -- the machine slept, or the clock was set back
            local before, is_back = at, event == 8
            mark(before)
            at = is_back and math.max(START + 9e4, at - math.random(5000)) or at + math.random(9000)
            write("jump", (',"from":"%s"'):format(utc(before)))
            since = at
        end
        at = at + math.random(event == 7 and 100 or 15000)
    end
    if state then mark(at) write("ended") end
    return table.concat(lines), truth, entries
end

-- A clock that was not set, a line that is no record, one cut short.
local NOISE = '{"record":"started","time":"1970-01-01T00:00:09.000Z"}\n'
    .. '{"record":"ended","time":"1970-01-01T00:01:09.000Z"}\nnoise\n'
local TORN = '{"record":"started","time":"2021-01-01T00:00:00.000Z"}'

for seed = 1, 6 do
    math.randomseed(seed)
    local text, truth, entries = live()
    testing.write(SCRATCH .. "lived/transitions.jsonl", NOISE .. text .. TORN)
    local expected = {}
    local function day(at)
        local name = day_of(at)
        expected[name] = expected[name] or { enforced = 0, fail_open = 0, entered = 0 }
        return expected[name]
    end
    for second, kind in pairs(truth) do day(second)[kind] = day(second)[kind] + 1 end
    for _, at in ipairs(entries) do day(at).entered = day(at).entered + 1 end

    local output = shell("%s %s/bin/vxa history --state lived --json", ZONE, ROOT)
    matches(output, "vxa: lived/transitions.jsonl:3: not a record of vxa run; 1 such line ignored")
    local found, total, times = {}, nil, {}
    for _, record in ipairs(decode(output)) do
        local sum = { enforced = record.enforced_s, fail_open = record.fail_open_s,
                      entered = record.entered }
        if record.record == "day" then found[record.day] = sum end
        if record.record == "total" then total = sum end
        if record.record == "fail_open" then times[#times + 1] = record.entered end
        if sum.enforced then
            equal(record.seconds, sum.enforced + sum.fail_open + record.not_running_s, "a whole")
        end
    end
    for i, at in ipairs(entries) do entries[i] = utc(at) end
    equal(found, expected, "days of life " .. seed)
    equal(times, entries, "entries of life " .. seed)
    local sum = { enforced = 0, fail_open = 0, entered = 0 }
    for _, one in pairs(expected) do
        for name, value in pairs(one) do sum[name] = sum[name] + value end
    end
    equal(total, sum, "total of life " .. seed)
end

-- ---- a clock that is set --------------------------------------------------------------------

local wall, monotonic = START, 0
local stub = setmetatable({ time = function() return wall end,
                            clock = function() return monotonic end }, { __index = vxa_module })
os.execute("mkdir " .. SCRATCH .. "stepped")
local listener = require("vxa.listeners.history").new({
    vxa = stub, messages = { warn_once = function(_, message) error(message) end },
    policy = { text = "", values = {}, source = "" }, monitor = { state = "Deactivated" },
}, { state = SCRATCH .. "stepped", interval = 10 })
listener:start()
local function jumps()
    return select(2, testing.read(SCRATCH .. "stepped/transitions.jsonl"):gsub('"jump"', ""))
end
-- Seconds that pass, how far the clock is set, and whether that is recorded.
for _, step in ipairs { { 10, 0 }, { 75, 0.5 }, { 10, -0.9 }, { 90, 0, true }, { 10, 3600, true },
                        { 10, -3600, true }, { 9, -2, true }, { 10, 0 } } do
    wall, monotonic = wall + step[1] + step[2], monotonic + step[1]
    local before = jumps()
    listener:cycle { time = wall - 3 }
    equal(jumps() > before, step[3] or false, ("%d s, set by %g s"):format(step[1], step[2]))
end
matches(testing.read(SCRATCH .. "stepped/running.json"), '"time":"2021%-03%-27T', "sign of life")

-- While the disk is full.
local file = listener.file
listener.file = { write = function() end }
listener:cycle { time = wall, transition = "entered", causes = {} }
listener.file = file
listener:cycle { time = wall }
matches(testing.read(SCRATCH .. "stepped/transitions.jsonl"), '"entered"', "once it has room")

-- ---- a life with log and hook ---------------------------------------------------------------

for name, minutes in pairs { ["p.json"] = 0, ["long.json"] = 1 } do
    local text = '{"SYS_THR_RUNQ": {"value": 8}, "SYS_CONF_MIN_ACT_DURATION": %d}'
    testing.write(SCRATCH .. name, text:format(minutes))
end
local RUN = "VXI_ENGINE=sim VXI_SIM=scenario=busy:2/overloaded:%s "
    .. ROOT .. "/bin/vxa run --policy %s --state kept --interval %s --log r.log --log-keep 2 "

-- The first run is killed in fail-open, while its hook hangs; the second ends.
shell(RUN .. [[--hook 'exec >/dev/null 2>&1; trap "" TERM; sleep 9' >/dev/null & pid=$!
    until grep -qs entered kept/transitions.jsonl; do sleep 0.01; done
    ]] .. ROOT .. [[/bin/vxa history --state kept >going; kill -9 $pid; wait]],
    "9", "long.json", "0.05")
matches(testing.read(SCRATCH .. "going"), "ongoing +rqpct ", "a run that goes on")
local second, status = shell(RUN .. [[--cycles 6 --json --hook '
    tee hooked | grep -q left && exit 7; exec sleep 9']], "1/idle:9", "p.json", "1")
equal(status, 0, second)
-- Each takes the time of the records at start and end itself.
local function without_times(text)
    return (text:gsub("vxa: [^\n]*\n", ""):gsub('({"record":"%l+","time":)"[^"]*"', "%1T"))
end
local printed, log = without_times(second), without_times(testing.read(SCRATCH .. "r.log"))
equal(log:sub(-#printed) == printed, true, "a log of what was printed")

local history = decode(shell("%s/bin/vxa history --state kept --json", ROOT))
equal({ history[1].ended, history[2].ended, history[1].causes[1].name, history[2].left ~= nil,
        history[2].policy_sha256 }, { "unknown", "left", "rqpct", true,
        vxa_module.sha256(testing.read(SCRATCH .. "p.json")) }, "two runs")
matches(testing.read(SCRATCH .. "kept/transitions.jsonl"), '\n{"record":"lost",', "the first run")
matches(shell("%s/bin/vxa history --state kept", ROOT), "unknown: unclean exit  rqpct ")

-- The hook of the entry hangs: its limit and the next transition come at the same time. That of the
-- end of fail-open fails.
local hooks, cycles = {}, decode(second)
for _, cycle in ipairs(cycles) do
    local hook = cycle.hook
    if hook then
        hooks[#hooks + 1] = { hook.transition, hook.status or hook.signal, hook.ended ~= nil }
    end
end
table.sort(hooks, function(a, b) return a[1] < b[1] end)
equal(hooks, { { "entered", "SIGTERM", true }, { "left", 7, false } }, "hooks")
local given = json.decode(testing.read(SCRATCH .. "hooked"))
equal({ given.record, given.transition, cycles[given.cycle + 1].time },
    { "cycle", "left", given.time }, "a hook's input")
for _, line in ipairs { "'left' failed: exit status 7 after ",
                      "'entered' failed: SIGTERM after .*: %l+" } do
    matches(second, "vxa: the hook for fail%-open " .. line)
end

-- What ignores SIGTERM, with what it started.
local stubborn = assert(vxa_module.start_process("trap '' TERM; >" .. SCRATCH
    .. "trapped; sleep 9; sleep 9", "", 99))
while not testing.read(SCRATCH .. "trapped") do vxa_module.sleep(0.01) end
equal(stubborn:wait(0), nil, "still running")
stubborn:stop()
equal(stubborn:wait(99).signal, "SIGKILL", "stopped")
stubborn:close()

-- ---- rotation, killed at any moment -----------------------------------------------------------

local LUA = ("LD_PRELOAD='%s' %s"):format(os.getenv("LD_PRELOAD") or "", arg[-1])
vxa_module.setenv("LD_PRELOAD", nil)
testing.write(SCRATCH .. "write.lua", [[local vxa, n = require "vxa", 0
    local file = assert(vxa.rotated_file("n.log", '{"n":', 3000, 900, true))
    local tail = io.popen("tail -c 60 n.log n.log.1 2>/dev/null"):read("*a")
    for last in tail:gmatch('{"n":(%d+),') do n = math.max(n, tonumber(last)) end
    io.open("up", "w"):close()
    while true do
        n = n + 1
        assert(file:write(('{"n":%d,"%s"}\n'):format(n, ("x"):rep(40))))
        file:compress()
    end]])
for round = 1, 8 do
    shell([[rm -f up; %s write.lua & pid=$!
        until [ -e up ] && [ -e n.log.2.gz ]; do sleep 0.01; done
        sleep 0.0%02d; kill -9 $pid; wait]], LUA, round * 4)
end
local numbers = shell([[for n in $(seq 900 -1 1); do gzip -dcq n.log.$n.gz 2>/dev/null ||
    cat n.log.$n 2>/dev/null; done | cat - n.log]])
local expected = 0
for number in numbers:gmatch('{"n":(%d+),"x+"}\n') do
    expected = expected + 1
    if tonumber(number) ~= expected then break end
end
equal(select(2, numbers:gsub('{"n":', "")), expected, "all records once and in order")

testing.finish()
