-- The module `vxa` as scripts see it.

local t = require "testing"
local vxa = require "vxa"

-- A sanitizer's runtime is for this process alone: it breaks the shell.
local sanitizer = os.getenv("LD_PRELOAD") or ""
vxa.setenv("LD_PRELOAD", nil)

local same, read_file = t.equal, t.read

local function check(condition, what, callers)
    t.equal(not not condition, true, what, 1 + (callers or 0))
end

-- The call must fail as `nil, message` with a message that holds `text`.
local function refused(text, result, message)
    check(result == nil and tostring(message):find(text, 1, true),
        ("expected nil and '%s', got %s, %s"):format(text, tostring(result), tostring(message)), 1)
end

local scratch = os.tmpname()
os.remove(scratch)
assert(vxa.mkdir(scratch))

-- ---- wrong arguments -------------------------------------------------------------------

local document, archive = vxa.Dom(), vxa.ZipOutputStream(scratch .. "/unused.zip")
local handle = assert(vxa.open())

for _, case in ipairs {
    { "#1 to '?' (SLB.Dom object expected)", document.get, archive, "k" },
    { "#1 to '?' (SLB.Dom object expected)", document.get, io.stdout, "k" },
    { "#1 to '?' (SLB.Dom object expected)", document.events },
    { "#1 to '?' (SLB.wx.ZipOutputStream object expected)", archive.close, document },
    { "#1 to '?' (vxi_handle_t* expected, got userdata)", handle.close, document },
    { "#2 to '?' (string expected, got no value)", document.get, document },
    { "#2 to '?' (UTF-8 text without zero bytes expected)", document.get, document, "a\0b" },
    { "#3 to '?' (UTF-8 text without zero bytes expected)", document.set, document, "k", "\255" },
    { "#3 to '?' (boolean, number, text or nil expected)", document.set, document, "k", {} },
    { "#3 to '?' (finite number expected)", document.set, document, "k", 1 / 0 },
    { "(the name of a file or directory is empty)", vxa.Dom, "" },
    { "(the name of a file or directory holds a zero byte)", vxa.ZipOutputStream, "a\0b" },
    { "#1 to '?' (string expected, got no value)", vxa.ZipOutputStream },
    { "#1 to '?' (a trace category or pattern expected)", vxa.trace, "", true },
    { "#2 to '?' (boolean expected, got no value)", vxa.trace, "SysHealth.*" },
    { "#1 to '?' (boolean expected, got number)", vxa.verbose, 1 },
    { "#1 to '?' (boolean expected, got nil)", vxa.capture, nil, 1 },
    { "(seconds, a number not below 0, expected)", vxa.sleep, -1 },
    { "(seconds, a number not below 0, expected)", vxa.sleep, 0 / 0 },
    { "(the name of a variable, without '=', expected)", vxa.setenv, "a=b", "c" },
    { "(the value holds a zero byte)", vxa.setenv, "a", "b\0c" },
    { "(a number of bytes from 0 to 268435456 expected)", vxa.zip_read, "a", "b", 2 ^ 40 },
    { "(a number from 0 to 2^32-1 expected)", handle.set_variable, handle, 62, -1 },
} do
    t.raises(table.unpack(case))
end

-- ---- documents -------------------------------------------------------------------------

local state = scratch .. "/state/of/agent"
local kept = assert(vxa.Dom(state))
local values = { on = true, off = false, number = 0.1, big = 2 ^ 53 + 2, Case = 1, case = 2,
                 empty = "", text = 'ü "q"\n' }
kept:set("gone", 1)
for key, value in pairs(values) do same(kept:set(key, value), true, key) end
same(kept:set("gone", nil), true, "removal")
refused("is in use by this process", vxa.Dom(state))
same({ kept:close(), kept:close() }, { true, true }, "closed twice")
for key, value in pairs(values) do same(kept:get(key), value, key .. " of a closed document") end
refused("the document is closed", kept:set("key", 1))
refused("the document is closed", kept:events())
do
    local file = assert(io.open(state .. "/events.jsonl", "a"))
    file:write('{"time":1.25,"id":1001,"text":"GET_STATS"}\n{"tim')
    file:close()
end
local log = scratch .. "/log.jsonl"
same(vxa.log_to(log), true, "log_to")
refused("cannot write log file /nonexistent/log", vxa.log_to("/nonexistent/log"))
vxa.capture(true)
kept = assert(vxa.Dom(state))
vxa.capture(false)
local records, dropped = vxa.captured()
same({ #records, dropped }, { 1, 0 }, "captured")
same(records[1].kind .. " " .. records[1].level, "log warning", "record")
check(records[1].message:find("unfinished last record of 5 bytes", 1, true), records[1].message)
check(math.abs(records[1].time - os.time()) < 60, "time of a record")
check(read_file(log):find('"kind":"log","level":"warning"', 1, true), "record in the file")
same(#vxa.captured(), 0, "captured twice")
require "fc"
vxa.capture(true)
vxa.trace("SysHealth.eng", true)
for _ = 1, 5003 do SLB.filter.GetSysHealthEnabled() end  -- two records each
vxa.trace("*", false)
vxa.capture(false)
records, dropped = vxa.captured()
same({ #records, dropped, select(2, vxa.captured()) }, { 10000, 6, 0 }, "the newest are kept")
same(records[1].message .. records[10000].message,
    "GetSysHealthEnabled() calledGetSysHealthEnabled() returning 0", "oldest and newest")
same(vxa.log_to(nil), true, "log_to nil")
for key, value in pairs(values) do same(kept:get(key), value, key .. " read again") end
same(kept:get("gone"), nil, "removed key")
local events, unreadable = kept:events()
same({ #events, unreadable }, { 1, 0 }, "events kept, unreadable lines")
same(events[1].id .. events[1].text .. events[1].time, "1001GET_STATS1.25", "event")
kept = nil
collectgarbage()
collectgarbage()
check(vxa.Dom(state), "a collected document gives its directory free")

-- The document in `state` after these shell commands in the empty directory.
local function open_with(commands)
    kept = nil
    collectgarbage()
    collectgarbage()
    local prepare = ("d=%s; rm -rf $d && mkdir $d && cd $d && %s"):format(state, commands)
    check(os.execute(prepare), commands, 1)
    return vxa.Dom(state)
end

-- Refused with nothing written and nothing of the content in the message.
t.write(scratch .. "/other", "root:secret")
for commands, reason in pairs {
    ["printf '{\\n \"a\": tru }' >document.json"] = ": not valid JSON at line 2, column 7",
    ["printf ' ' >document.json"] = ": not valid JSON at line 1, column 2",
    ["printf '[1]' >document.json"] = " holds no JSON object",
} do
    same(select(2, open_with(commands)), state .. "/document.json" .. reason, commands)
end
for _, name in ipairs { "lock", "events.jsonl", "document.json" } do
    for command, reason in pairs {
        ["ln -s ../../../other "] = ": it is a symbolic link",
        ["ln ../../../other "] = ": it has more than one hard link",
        ["mkfifo "] = ": it is not a regular file",
    } do
        refused(state .. "/" .. name .. reason, open_with(command .. name))
        check(name == "lock" or read_file(state .. "/lock") == "", "written before")
    end
    check(name == "lock" or select(2, open_with("truncate -s 1T " .. name)):find("too large"), name)
end
same(read_file(scratch .. "/other"), "root:secret", "linked file")
refused("/other is not a directory", vxa.Dom(scratch .. "/other/state"))
refused("cannot make directory /proc/nothing", vxa.Dom("/proc/nothing/here"))
if os.execute(("cd %s && mkdir linked && ln -s linked theirs && chown -h 65534 theirs 2>&-")
        :format(scratch)) then
    local why = "/theirs is a symbolic link that another user (uid 65534) made"
    refused(why, vxa.Dom(scratch .. "/theirs/state"))
    refused(why, vxa.temporary(scratch .. "/theirs/a.zip"))
end

-- A leftover is replaced without following it.
for _, command in ipairs { "ln -s ../../../other ", "mkfifo ", "mkdir " } do
    kept = assert(open_with(command .. "document.json.tmp"))
    same(kept:set("a", 1), true, command)
    same(vxa.file_kind(state .. "/document.json.tmp"), "none", command)
    same(vxa.file_kind(state .. "/document.json"), "file", command)
end
same(read_file(scratch .. "/other"), "root:secret", "link that was a leftover")

-- What others wrote into the document is kept.
kept = assert(open_with [[printf '{"list":[0.1,{"x":12345678901234567}],"a":1}' >document.json]])
refused("the value is a list or an object", kept:get("list"))
same(kept:set("a", 2), true, "set")
check(read_file(state .. "/document.json"):find("%[0.1, {.*12345678901234568"), "list")
kept = nil

-- Objects live as long as scripts can reach them, and no longer.
local weak = setmetatable({}, { __mode = "k" })
for i = 1, 100 do weak[vxa.Dom()] = i end
for _ = 1, 4 do collectgarbage() end
same(next(weak), nil, "collected documents")

-- ---- archives --------------------------------------------------------------------------

same(archive:close(), true, "close")
same(archive:close(), true, "second close")
refused("cannot write /nonexistent/a.zip: No such file or directory",
    vxa.ZipOutputStream("/nonexistent/a.zip"))
refused("No space left on device", vxa.ZipOutputStream("/dev/full"):close())
archive = vxa.ZipOutputStream(scratch .. "/left.zip")
archive = nil
collectgarbage()
collectgarbage()
same(read_file(scratch .. "/left.zip"):sub(1, 4), "PK\5\6", "archive finished by the collector")

same(#assert(vxa.zip_entries(scratch .. "/left.zip")), 0, "entries of an empty archive")
refused("left.zip: has no entry a.txt", vxa.zip_read(scratch .. "/left.zip", "a.txt"))
refused("/dev/zero is not a file", vxa.zip_entries("/dev/zero"))

-- ---- loading ---------------------------------------------------------------------------

do -- a second load leaves the first one's objects alone
    local live = vxa.Dom()
    package.loaded.vxa = nil
    require "vxa"
    collectgarbage()
    collectgarbage()
    live:set("key", "kept")
    same(live:get("key"), "kept", "document after a second load")
end

do -- without standard streams, logs must not end up in the next file opened
    local script = ([[local vxa = require "vxa" local dom = vxa.Dom("%s/streams")
        vxa.trace("*", true) vxa.verbose(true) vxa.log_to(nil)
        assert(not (io.stdout:write("lost") and io.stdout:flush()))
        dom:set("a", 1) io.stderr:write("stray") dom:close()]]):format(scratch)
    check(os.execute(("LD_PRELOAD='%s' exec lua5.2 -e '%s' <&- >&- 2>&-"):format(sanitizer, script)),
        "script without standard streams")
    same(read_file(scratch .. "/streams/events.jsonl"), "", "events")
end

-- ---- engines and handles ---------------------------------------------------------------

handle:close()
handle:close()
t.raises("(vxi handle already closed)", handle.available, handle)
same(table.concat(vxa.engines(), " "), "linux sim", "engines")
refused("unknown engine 'bsd'; known are: linux, sim", vxa.engine("bsd"))
same(vxa.engine("sim"), "sim", "engine")
same(vxa.engine(), "sim", "engine")
refused("simulation settings: cannot be read from character 1 on: 'weather=fine'",
    vxa.simulate("weather=fine"))
same(vxa.simulate(), true, "simulate")
check(vxa.simulated_machine().memory_total_kb > 0, "simulated machine")

handle = assert(vxa.open())
same(handle:available(), true, "available")
same(handle:error(), "", "error before any failure")
local offered = handle:capabilities()
check(#offered > 0 and type(offered[1].name) == "string" and type(offered[1].detail) == "string"
    and offered[1].available == true, "capabilities")
same(handle:set_variable(62, 1), true, "set_variable")
refused("vxi_set_var", handle:set_variable(0, 1))
local flows, existing = handle:connections()
check(#flows > 0 and existing >= #flows, "connections")
refused("fault script: cannot be read from character 1 on: 'nonsense'", vxa.fault("nonsense"))
same(vxa.fault("vxi_get_conntrack=-5"), true, "fault")
refused("", handle:connections())
check(#handle:error() > 0, "text of the failure")
same(vxa.fault(), true, "no fault")
check(handle:connections(), "connections after the fault")
same(vxa.fault("vxi_open=-1"), true, "fault")
local none, reason = vxa.open()
check(none == nil and #reason > 0, "open fails with a reason: " .. tostring(reason))
vxa.fault()

-- ---- texts, files, environment ---------------------------------------------------------

local object = { __jsontype = "object" }
local after, parsed = vxa.parse_json('[7, {"a": [null, "b"]}]', 5, "none", object)
same({ after, parsed, getmetatable(parsed) }, { 23, { a = { "none", "b" } }, object }, "parse_json")
same(vxa.parse_json("[7, }]", 5, "none", object), nil, "no value")
same(vxa.parse_json("", 1, "none", object), nil, "end of the text")
same(vxa.hexdump(("a"):rep(17) .. "\0", 255), "000000ff  " .. ("61 "):rep(16) .. " "
    .. ("a"):rep(16) .. "\n0000010f  61 00 " .. (" "):rep(43) .. "a.\n", "hexdump")
same(vxa.mkdir(scratch .. "/a/b/c/"), true, "mkdir")
for _, umask in ipairs { "000", "077" } do
    local made = scratch .. "/umask" .. umask
    os.execute(("umask %s; LD_PRELOAD='%s' %s -e \"require('vxa').mkdir('%s')\"")
        :format(umask, sanitizer, arg[-1], made))
    check(os.execute(("test $(stat -c %%a %s) = 755"):format(made)), made)
end
same(vxa.mkdir(scratch .. "/a/b"), true, "mkdir of what stands")
refused(log .. " is not a directory", vxa.mkdir(log .. "/x"))
local function temporary(name)
    local file = assert(vxa.temporary(scratch .. name))
    assert(vxa.ZipOutputStream(file)):close()
    same(#vxa.zip_entries(file), 0, "entries of a file without a name")
    return file
end
local made, again = temporary("/a/z"), temporary("/a/z")
same(vxa.file_kind(scratch .. "/a/z"), "none", "before it is published")
same(made:publish(), true, "publish")
refused("File exists", again:publish())
t.raises("(the file is closed)", again.publish, again)
t.raises("(the file is closed)", vxa.ZipOutputStream, again)
same(temporary("/a/z"):publish(true), true, "publish over another")
refused("cannot write /nonexistent/a: /nonexistent: No such file or directory", vxa.temporary("/nonexistent/a"))
refused("cannot write /: Is a directory", vxa.temporary("/"))
for path, kind in pairs { ["/"] = "directory", ["/dev/null"] = "other", ["/nonexistent"] = "none",
                          [scratch .. "/a/z"] = "file" } do
    same(vxa.file_kind(path), kind, path)
end
refused("Not a directory", vxa.file_kind("/dev/null/x"))
vxa.setenv("VXA_TEST", "ü")
same(os.getenv("VXA_TEST"), "ü", "setenv")
vxa.setenv("VXA_TEST", nil)
same(os.getenv("VXA_TEST"), nil, "setenv nil")
same(vxa.isatty(-1), false, "isatty")
check(vxa.euid() >= 0 and #vxa.version > 0, "euid, version")

-- ---- sleep and signals -----------------------------------------------------------------

local function own_pid()
    local file = assert(io.open("/proc/self/stat"))
    local pid = file:read("*n")
    file:close()
    return pid
end

-- Sends the signals some time from now, one after another.
local function send_later(...)
    local steps = {}
    for _, signal in ipairs { ... } do
        steps[#steps + 1] = ("sleep 0.2; kill -%s %d"):format(signal, own_pid())
    end
    os.execute("(" .. table.concat(steps, "; ") .. ") >/dev/null 2>&1 &")
end

local LONG = 20  -- ends the test if nothing interrupts it
local started = vxa.clock()
same(vxa.sleep(0.05), true, "sleep")
check(vxa.clock() - started >= 0.05, "sleep lasts")
same(vxa.sleep(0), true, "sleep 0")

-- Another signal does not end a sleep. The interpreter's own handling of SIGINT does.
send_later("WINCH", "CONT", "INT")
local ok, message = pcall(vxa.sleep, LONG)
check(not ok and message:find("interrupted!"), "lua's own interrupt: " .. tostring(message))

vxa.catch_signals()
vxa.catch_signals()
same(vxa.interrupted(), false, "interrupted before any signal")
send_later("TERM")
same(vxa.sleep(LONG), false, "interrupted sleep")
same(vxa.interrupted(), "SIGTERM", "interrupted")
same(vxa.sleep(LONG), false, "sleep with the flag set")
same(coroutine.wrap(vxa.sleep)(LONG), false, "sleep in a coroutine")
for _, name in ipairs { "HUP", "QUIT" } do
    send_later(name)
    while vxa.interrupted() ~= "SIG" .. name and vxa.clock() - started < LONG do end
    same(vxa.interrupted(), "SIG" .. name, "interrupted once more")
end
check(vxa.clock() - started < LONG, "nothing slept to its end")

os.execute("rm -rf '" .. scratch .. "'")
t.finish()
