-- The module `vxa` as scripts see it.

local t = require "testing"
local vxa = require "vxa"
require "fc"

-- A sanitizer's runtime is for this process and its interpreters alone: it breaks the shell.
local LUA = ("LD_PRELOAD='%s' %s"):format(os.getenv("LD_PRELOAD") or "", arg[-1])
vxa.setenv("LD_PRELOAD", nil)

local same, read_file = t.equal, t.read

local function check(condition, what, callers)
    t.equal(not not condition, true, what, 1 + (callers or 0))
end

local function refused(text, result, message)
    check(result == nil and tostring(message):find(text, 1, true),
        ("expected nil and '%s', got %s, %s"):format(text, tostring(result), tostring(message)), 1)
end

local function collect()
    for _ = 1, 4 do collectgarbage() end
end

local scratch = os.tmpname()
os.remove(scratch)
assert(vxa.mkdir(scratch))

-- ---- wrong arguments -------------------------------------------------------------------

local document, archive = vxa.Dom(), vxa.ZipOutputStream(scratch .. "/left.zip")
same(vxa.engine("sim"), "sim", "engine")
local handle = assert(vxa.open())

for _, case in ipairs {
    { "#1 to '?' (SLB.Dom object expected)", document.get, archive, "k" },
    { "#1 to '?' (SLB.wx.ZipOutputStream object expected)", archive.close, document },
    { "#1 to '?' (vxi_handle_t* expected, got userdata)", handle.close, document },
    { "#2 to '?' (UTF-8 string without NUL bytes expected)", document.get, document, "a\0b" },
    { "#3 to '?' (UTF-8 string without NUL bytes expected)", document.set, document, "k", "\255" },
    { "#3 to '?' (boolean, number, string or nil expected)", document.set, document, "k", {} },
    { "#3 to '?' (finite number expected)", document.set, document, "k", 1 / 0 },
    { "(file name is empty)", vxa.Dom, "" },
    { "(file name contains a NUL byte)", vxa.ZipOutputStream, "a\0b" },
    { "#1 to '?' (a trace category or pattern expected)", vxa.trace, "", true },
    { "(a number of seconds, 0 or more, expected)", vxa.sleep, 0 / 0 },
    { "(a number of bytes from 0 to 268435456 expected)", vxa.zip_read, "a", "b", 2 ^ 40 },
    { "(a number from 0 to 2^32-1 expected)", handle.set_variable, handle, 62, -1 },
} do
    t.raises(table.unpack(case))
end

-- ---- documents and logs ------------------------------------------------------------------

local state, log = scratch .. "/state/of/agent", scratch .. "/log.jsonl"
local kept = assert(vxa.Dom(state))
local values = { on = true, off = false, number = 0.1, big = 2 ^ 53 + 2, Case = 1, case = 2,
                 empty = "", text = 'ü "q"\n' }
kept:set("gone", 1)
for key, value in pairs(values) do same(kept:set(key, value), true, key) end
same(kept:set("gone", nil), true, "removal")
refused("is in use by this process", vxa.Dom(state))
local holder = io.popen(("%s -e \"print(select(2, require('vxa').Dom('%s')))\""):format(LUA, state))
check(holder:read("*a"):find("is in use by process %d+ %(lua"), "who holds it")
same({ kept:close(), kept:close() }, { true, true }, "closed twice")
refused("the document is closed", kept:events())

-- A record without an end goes, others that cannot be read stay.
local whole = 'nonsense\n{"time":1.25,"id":1001,"text":"GET_STATS"}\n{"id":3}\n'
t.write(state .. "/events.jsonl", whole .. '{"tim')
same(vxa.log_to(log), true, "log_to")
refused("cannot write log file /nonexistent/log", vxa.log_to("/nonexistent/log"))
vxa.capture(true)
vxa.fault "vxi_get_stats=-5"
SLB.filter.AddDriverDiagnostics(kept, handle, archive)  -- no way to return what failed
vxa.fault()
local failed, forgotten = handle:failures()
same({ failed[1].call, failed[1].status, failed[1].message, forgotten },
    { "vxi_get_stats", -5, "engine sim: vxi_get_stats: Input/output error", 0 }, "failures")
kept = assert(vxa.Dom(state))
vxa.capture(false)
local records, messages = vxa.captured(), {}
for i, record in ipairs(records) do messages[i] = record.level .. ": " .. record.message end
messages = table.concat(messages, "\n")
check(messages:find("^error: host document: event 1001 not stored %(the document is closed%)"),
    messages)
check(messages:find("warning: [^\n]*unfinished last record of 5 bytes$"), messages)
check(math.abs(records[1].time - os.time()) < 60, "time of a record")
same(read_file(state .. "/events.jsonl"), whole, "events file")
local events, unreadable = kept:events()
same({ #events, unreadable }, { 1, 2 }, "events kept, unreadable lines")
same(events[1].id .. events[1].text .. events[1].time, "1001GET_STATS1.25", "event")
for key, value in pairs(values) do same(kept:get(key), value, key .. " read again") end
same(kept:get("gone"), nil, "removed key")

vxa.capture(true)
vxa.trace("SysHealth.eng", true)
for _ = 1, 5003 do SLB.filter.GetSysHealthEnabled() end  -- two records each
vxa.trace("*", false)
vxa.capture(false)
local dropped
records, dropped = vxa.captured()
same({ #records, dropped, #vxa.captured(), select(2, vxa.captured()) }, { 10000, 6, 0, 0 }, "kept")
same(records[10000].message, "GetSysHealthEnabled() returning 0", "newest")
vxa.log_to(nil)

-- The document in `state` after these shell commands in the empty directory.
local function open_with(commands)
    kept = nil
    collect()
    local prepare = ("d=%s; rm -rf $d && mkdir $d && cd $d && %s"):format(state, commands)
    check(os.execute(prepare), commands, 1)
    return vxa.Dom(state)
end

-- Refused with nothing written and nothing of the content in the message.
t.write(scratch .. "/other", "root:secret")
for commands, reason in pairs {
    ["printf '{\\n \"a\": tru }' >document.json"] = ": not valid JSON at line 2, column 7",
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
    same(vxa.file_kind(state .. "/document.json.tmp") .. vxa.file_kind(state .. "/document.json"),
        "nonefile", command)
end
same(read_file(scratch .. "/other"), "root:secret", "linked file")

-- What others wrote into the document is kept.
kept = assert(open_with [[printf '{"list":[0.1,{"x":12345678901234567}],"a":1}' >document.json]])
refused("the value is a list or an object", kept:get("list"))
same(kept:set("a", 2), true, "set")
check(read_file(state .. "/document.json"):find("%[0.1, {.*12345678901234568"), "list")

os.execute(("cd %s && rm document.json && mkdir document.json"):format(state))
refused("cannot replace " .. state, kept:set("a", 3))
same(os.remove(state .. "/document.json") and kept:set("b", 1), true, "tried again")

-- Objects live as long as scripts can reach them, and no longer; also after a second load.
local weak = setmetatable({}, { __mode = "k" })
for i = 1, 100 do weak[vxa.Dom()] = i end
package.loaded.vxa = nil
require "vxa"
collect()
same(next(weak), nil, "collected documents")
document:set("key", "kept")
same(document:get("key"), "kept", "document after a second load")

do -- without standard streams, logs must not end up in the next file opened
    local script = ([[local vxa = require "vxa" local dom = vxa.Dom("%s/streams")
        vxa.trace("*", true) vxa.verbose(true) vxa.log_to(nil)
        assert(not (io.stdout:write("lost") and io.stdout:flush()))
        dom:set("a", 1) io.stderr:write("stray") dom:close()]]):format(scratch)
    check(os.execute(("%s -e '%s' <&- >&- 2>&-"):format(LUA, script)), "no standard streams")
    same(read_file(scratch .. "/streams/events.jsonl"), "", "events")
end

-- ---- archives and files ------------------------------------------------------------------

local added, seconds = archive:entries(), 0
archive = nil
collect()
for i, entry in ipairs(assert(vxa.zip_entries(scratch .. "/left.zip"))) do
    same({ added[i].name, added[i].bytes, added[i].ok }, { entry.name, entry.bytes, true }, i)
    seconds = seconds + added[i].seconds
end
check(#added == 4 and seconds > 0 and seconds < 60, "entries of the archive")
refused("No space left on device", vxa.ZipOutputStream("/dev/full"):close())

local made, again = vxa.temporary(scratch .. "/z"), vxa.temporary(scratch .. "/z")
assert(vxa.ZipOutputStream(made)):close()
same(#vxa.zip_entries(made), 0, "entries of a file without a name")
same(made:publish(), true, "publish")
refused("File exists", again:publish())
t.raises("(the file is closed)", vxa.ZipOutputStream, again)
same(vxa.temporary(scratch .. "/z"):publish(true), true, "publish over another")
refused("cannot write /: Is a directory", vxa.temporary("/"))

for _, umask in ipairs { "000", "077" } do
    local folder = ("%s/umask%s/b/"):format(scratch, umask)
    local make = ("umask %s; %s -e \"require('vxa').mkdir('%s')\"; test $(stat -c %%a %s) = 755")
    check(os.execute(make:format(umask, LUA, folder, folder)), folder)
end
refused(log .. " is not a directory", vxa.mkdir(log .. "/x"))

-- ---- engines, handles, bytes ---------------------------------------------------------------

refused("vxi_set_var", handle:set_variable(0, 1))
same(vxa.fault("vxi_get_conntrack=-5,vxi_open=-1"), true, "fault")
refused("engine sim: vxi_get_conntrack", handle:connections())
refused("engine sim", vxa.open())
vxa.fault()
handle:close()
handle:close()
t.raises("(vxi handle already closed)", handle.available, handle)
same(vxa.hexdump(("a"):rep(17) .. "\0", 255), "000000ff  " .. ("61 "):rep(16) .. " "
    .. ("a"):rep(16) .. "\n0000010f  61 00 " .. (" "):rep(43) .. "a.\n", "hexdump")

-- ---- sleep and signals -----------------------------------------------------------------

local LONG = 20  -- ends the test if nothing interrupts it
local started = vxa.clock()
check(vxa.sleep(0.05) and vxa.clock() - started >= 0.05, "sleep lasts")

-- Another signal does not end a sleep. The interpreter's own handling of SIGINT does.
os.execute("for s in WINCH CONT INT; do sleep 0.2; kill -$s $PPID; done &")
local ok, message = pcall(vxa.sleep, LONG)
check(not ok and message:find("interrupted!"), "lua's own interrupt: " .. tostring(message))

-- Runs the script in an interpreter of its own. `event()` writes one to the document `dom`.
local function run(prefix, script)
    local before = [[local vxa = require "vxa" require "fc"
        vxa.setenv("LD_PRELOAD", nil)
        vxa.engine "sim"
        vxa.fault "vxi_get_stats=-5"
        local handle, zip = vxa.open(), vxa.ZipOutputStream "/dev/null"
        local function event(dom) SLB.filter.AddDriverDiagnostics(dom, handle, zip) end ]]
    return os.execute(("%s %s -e '%s' 2>>%s"):format(prefix, LUA, before .. script, log))
end

-- Also where the caller has the signal blocked, and in a coroutine.
check(run("env --block-signal=TERM", [[
    vxa.catch_signals()
    assert(vxa.interrupted() == false)
    os.execute "(sleep 0.2; kill -TERM $PPID) &"
    assert(coroutine.wrap(vxa.sleep)(20) == false and vxa.sleep(20) == false)
    assert(vxa.interrupted() == "SIGTERM")]]), "interrupted sleep: " .. read_file(log))
check(vxa.clock() - started < LONG, "nothing slept to its end")

-- No file may grow beyond 20 bytes: what a full disk does, in the middle of a record.
check(run("", ([[vxa.catch_signals()
    local dom = vxa.Dom "%s/full"
    os.execute "prlimit --pid $PPID --fsize=20:"
    vxa.capture(true)
    event(dom)
    assert(vxa.captured()[1].message:find "events.jsonl: File too large")
    assert(io.open("%s/full/events.jsonl"):read("*a") == "")
    local _, message = dom:set("a", ("x"):rep(50))
    assert(message:find "document.json.tmp: File too large", message)
    os.execute "prlimit --pid $PPID --fsize=unlimited:"
    assert(#dom:events() == 1 and #dom:get("a") == 50)
    event(dom)
    assert(dom:close())]]):format(scratch, scratch)), "full disk: " .. read_file(log))
kept = assert(vxa.Dom(scratch .. "/full"))
same({ #kept:events(), #kept:get("a") }, { 2, 50 }, "kept and stored again")

-- A process that is killed at any moment has stored all that it had been told was stored.
local total = 0
for round = 1, 20 do
    local path, out = scratch .. "/killed" .. round, scratch .. "/out"
    run("", ([[io.output("%s"):setvbuf "no"
        local dom = vxa.Dom "%s"
        os.execute "(sleep 0.0%02d; kill -KILL $PPID) &"
        for i = 1, 1e5 do event(dom) dom:set("number", i) io.write(i .. "\n") end]])
        :format(out, path, round))
    local last = tonumber(read_file(out):match("(%d+)\n$") or 0)
    kept = assert(vxa.Dom(path))  -- fails on half a document
    local list, broken = kept:events()
    local number = kept:get("number") or 0
    check(broken == 0 and (#list == last or #list == last + 1), #list .. " events of " .. last)
    check(number == last or number == last + 1, number .. " of " .. last)
    total = total + last
end
check(total > 0, "no round lasted long enough to write anything")

os.execute("rm -rf '" .. scratch .. "'")
t.finish()
