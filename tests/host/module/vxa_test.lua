-- The module `vxa` as scripts see it.

local t = require "testing"
local vxa = require "vxa"
require "fc"

-- What is preloaded is for this process and its interpreters: a sanitizer breaks the shell.
local LUA = ("LD_PRELOAD='%s' %s"):format(os.getenv("LD_PRELOAD") or "", arg[-1])
vxa.setenv("LD_PRELOAD", nil)

local same = t.equal

local function check(condition, what) t.equal(not not condition, true, what, 1) end

-- Checks the results nil and a message that contains `text`.
local function refused(text, result, message)
    t.equal(result == nil and tostring(message):find(text, 1, true) and text or tostring(message),
        text, "error", 1)
end

local function collect()
    for _ = 1, 4 do collectgarbage() end
end

local function shell(...) return os.execute(string.format(...)) end

local scratch = os.tmpname()
os.remove(scratch)
assert(vxa.mkdir(scratch))

-- ---- versions --------------------------------------------------------------------------

local versions = vxa.versions()
for i, name in ipairs { "fc.so", "vxa.so", "libvxi.so", "libvxa_core.so" } do
    local row = table.remove(versions, 1)
    same({ row.name, row.version, row.build_id, row.path:match("[^/]*/[^/.]*.so") },
        { name, vxa.version, vxa.build_id(name), "lib/" .. name }, "row " .. i)
    check(row.build_id:find("^%x+$"), "build ID")
end
same(#versions, 0, "other libraries")

-- ---- wrong arguments -------------------------------------------------------------------

local document, archive = vxa.Dom(), vxa.ZipOutputStream(scratch .. "/left.zip")
same(vxa.engine("sim"), "sim", "engine")
local handle = assert(vxa.open())

for _, case in ipairs {
    { "#1 to '?' (SLB.Dom object expected)", document.get, archive, "k" },
    { "#1 to '?' (SLB.wx.ZipOutputStream object expected)", archive.close, document },
    { "#1 to '?' (vxi_handle_t* expected, got userdata)", handle.close, document },
    { "#2 to '?' (UTF-8 string without NUL bytes expected)", document.get, document, "a\0b" },
    { "#3 to '?' (boolean, number, string or nil expected)", document.set, document, "k", {} },
    { "(file name is empty)", vxa.Dom, "" },
    { "(file name contains a NUL byte)", vxa.ZipOutputStream, "a\0b" },
    { "(a number of seconds, 0 or more, expected)", vxa.sleep, 0 / 0 },
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
local holder = io.popen(("%s -e \"print(select(2, require('vxa').Dom('%s')))\""):format(LUA, state))
check(holder:read("*a"):find("is in use by process %d+ %(lua"), "holder of the lock")
same({ kept:close(), kept:close() }, { true, true }, "closed twice")

-- An unfinished record is removed; other lines that are not events stay.
local whole = 'nonsense\n{"time":1.25,"id":1001,"text":"GET_STATS"}\n{"id":3}\n'
t.write(state .. "/events.jsonl", whole .. '{"tim')
same(vxa.log_to(log), true, "log_to")
vxa.capture(true)
vxa.fault "vxi_get_stats=-5"
SLB.filter.AddDriverDiagnostics(kept, handle, archive)  -- the event can only be logged
vxa.fault()
same({ handle:failures() }, { { { call = "vxi_get_stats", status = -5,
    message = "engine sim: vxi_get_stats: Input/output error" } }, 0 }, "failures")
vxa.fault "vxi_open=-13"
vxa.open()
vxa.fault()
local failed = ""
for _, row in ipairs(vxa.driver_failures()) do failed = failed .. row.count end
same(failed, "1010000000000", "failures of the process")
kept = assert(vxa.Dom(state))
vxa.capture(false)
local records = vxa.captured()
same(#records, 2, "records")
t.matches(records[1].message, "^host document: event 1001 not stored %(the document is closed%)")
t.matches(records[2].message, "unfinished last record of 5 bytes$")
same(records[1].level .. records[2].level, "errorwarning", "levels")
check(math.abs(records[1].time - os.time()) < 60, "time of a record")
same(t.read(state .. "/events.jsonl"), whole, "events file")
same({ kept:events() }, { { { id = 1001, text = "GET_STATS", time = 1.25 } }, 2 }, "events")
for key, value in pairs(values) do same(kept:get(key), value, key .. " read again") end
same(kept:get("gone"), nil, "removed key")

vxa.capture(true)
vxa.trace("SysHealth.eng", true)
for _ = 1, 5003 do SLB.filter.GetSysHealthEnabled() end  -- two records each
vxa.trace("*", false)
vxa.capture(false)
local captured, dropped = vxa.captured()
same({ #captured, dropped, #vxa.captured() }, { 10000, 6, 0 }, "captured")
same(captured[10000].message, "GetSysHealthEnabled() returning 0", "newest")
vxa.log_to(nil)

-- Opens `state` after these shell commands in the empty directory.
local function open_with(commands)
    kept = nil
    collect()
    check(shell("d=%s; rm -rf $d && mkdir $d && cd $d && %s", state, commands), commands)
    return vxa.Dom(state)
end

-- Refused with nothing written and nothing of the content in the message.
t.write(scratch .. "/other", "root:secret")
for commands, reason in pairs {
    ["printf '{\\n \"a\": tru }' >document.json"] = ": not valid JSON at line 2, column 7",
    ["printf '[1]' >document.json"] = " is not a JSON object",
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
        check(name == "lock" or t.read(state .. "/lock") == "", "nothing written")
    end
    check(name == "lock" or select(2, open_with("truncate -s 1T " .. name)):find("too large"), name)
end
refused("/other is not a directory", vxa.Dom(scratch .. "/other/state"))
refused("cannot make directory /proc/nothing", vxa.Dom("/proc/nothing/here"))
if shell("cd %s && mkdir linked && ln -s linked theirs && chown -h 65534 theirs 2>&-", scratch) then
    local why = "/theirs is a symbolic link that another user (uid 65534) made"
    refused(why, vxa.Dom(scratch .. "/theirs/state"))
    refused(why, vxa.temporary(scratch .. "/theirs/a.zip"))
end

-- Whatever has the name of the temporary file is replaced, not followed.
for _, command in ipairs { "ln -s ../../../other ", "mkfifo ", "mkdir " } do
    kept = assert(open_with(command .. "document.json.tmp"))
    same(kept:set("a", 1), true, command)
    same(vxa.file_kind(state .. "/document.json.tmp") .. vxa.file_kind(state .. "/document.json"),
        "nonefile", command)
end
same(t.read(scratch .. "/other"), "root:secret", "linked file")

-- What others wrote into the document is kept.
kept = assert(open_with [[printf '{"list":[0.1,{"x":12345678901234567}],"a":1}' >document.json]])
refused("the value is a list or an object", kept:get("list"))
same(kept:set("a", 2), true, "set")
t.matches(t.read(state .. "/document.json"), "%[0.1, {.*12345678901234568")
shell("cd %s && rm document.json && mkdir document.json", state)
refused("cannot replace " .. state, kept:set("a", 3))
same(os.remove(state .. "/document.json") and kept:set("b", 1), true, "stored the second time")

-- Objects live exactly as long as scripts can reach them, also after a second load.
local weak = setmetatable({}, { __mode = "k" })
for i = 1, 100 do weak[vxa.Dom()] = i end
package.loaded.vxa = nil
require "vxa"
collect()
same(next(weak), nil, "collected documents")
document:set("key", "kept")
same(document:get("key"), "kept", "document after a second load")

-- ---- archives and files ------------------------------------------------------------------

local added, seconds = archive:entries(), 0
archive = nil  -- luacheck: ignore 311
collect()
for i, entry in ipairs(assert(vxa.zip_entries(scratch .. "/left.zip"))) do
    same({ added[i].name, added[i].bytes, added[i].ok }, { entry.name, entry.bytes, true }, i)
    seconds = seconds + added[i].seconds
end
check(#added == 4 and seconds > 0 and seconds < 60, "entries of the archive")

local made, again = vxa.temporary(scratch .. "/z"), vxa.temporary(scratch .. "/z")
assert(vxa.ZipOutputStream(made)):close()
same(#vxa.zip_entries(made), 0, "entries of a file without a name")
same(made:publish(), true, "publish")
refused("File exists", again:publish())
t.raises("(the file is closed)", vxa.ZipOutputStream, again)
local folder = scratch .. "/made/b/"
check(shell("umask 077; %s -e \"require('vxa').mkdir('%s')\"; test $(stat -c %%a %s) = 755", LUA,
    folder, folder), "mode of a directory")

check(shell("cd %s; echo old >m; cp -p m n; mkfifo p; ln -s n l; mkdir d", scratch), "more files")
same(vxa.replace_file(scratch .. "/m", "new\n", true), true, "replace_file")
check(shell("cd %s; umask 077; echo new | cmp - m; test $(stat -c %%a m) = 644", scratch), "m")
for _, name in ipairs { "l", "p", "d" } do
    refused("it is not a regular file", vxa.replace_file(scratch .. "/" .. name, ""))
    refused("is not a regular file", vxa.remove_file(scratch .. "/" .. name))
end
for _ = 1, 2 do same(vxa.remove_file(scratch .. "/m"), true, "remove_file") end
same(t.read(scratch .. "/n"), "old\n", "another link of the file")

local grows = scratch .. "/grows"
check(shell("cd %s; mkfifo fifo; ln -s log.jsonl link; touch h; ln h hard", scratch), "files")
for name, reason in pairs { fifo = "a regular file", link = "link", hard = "hard link",
                            made = "regular", ["no/x"] = "No such" } do
    refused(reason, vxa.append_file(scratch .. "/" .. name))
end
local growing = assert(vxa.append_file(grows))
check(growing:write("whole\npart") and growing:sync(), "write")
same({ growing:cut_partial_line(), growing:size(), growing:head(3) }, { 4, 6, "who" }, "grows")
check(growing:has_name() and os.remove(grows) and not growing:has_name(), "has_name")
growing:close()
t.raises("(the file is closed)", growing.write, growing, "x")
same(vxa.sha256("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", "sum")

-- ---- engines, handles, bytes ---------------------------------------------------------------

handle:close()
handle:close()
t.raises("(vxi handle already closed)", handle.available, handle)
same(vxa.hexdump(("a"):rep(17) .. "\0", 255), "000000ff  " .. ("61 "):rep(16) .. " "
    .. ("a"):rep(16) .. "\n0000010f  61 00 " .. (" "):rep(43) .. "a.\n", "hexdump")

-- ---- sleep, signals, limits ----------------------------------------------------------------

local LONG = 20  -- ends the test if nothing interrupts it
local started = vxa.clock()
check(vxa.sleep(0.05) and vxa.clock() - started >= 0.05, "sleep lasts")
-- Only SIGINT ends a sleep, through the interpreter's own handler.
os.execute("for s in WINCH CONT INT; do sleep 0.1; kill -$s $PPID; done &")
local ok, message = pcall(vxa.sleep, LONG)
check(not ok and message:find("interrupted!"), "SIGINT: " .. tostring(message))

-- Runs the script in another interpreter, with `event()`, which writes one to the document `dom`.
local function run(prefix, script, ...)
    local before = [[local vxa = require "vxa" require "fc"
        vxa.setenv("LD_PRELOAD", nil)
        vxa.engine "sim"
        vxa.fault "vxi_get_stats=-5"
        local handle, zip = vxa.open(), vxa.ZipOutputStream "/dev/null"
        local function event(dom) SLB.filter.AddDriverDiagnostics(dom, handle, zip) end ]]
    return shell("%s %s -e '%s' 2>>%s", prefix, LUA, before .. script:format(...), log)
end

-- Without standard streams, log records must not be written to the next file opened.
check(shell([[%s -e '%s' <&- >&- 2>&-]], LUA, ([[local vxa = require "vxa"
    local dom = vxa.Dom "%s/streams"
    vxa.trace("*", true) vxa.verbose(true) vxa.log_to(nil)
    assert(not (io.stdout:write("lost") and io.stdout:flush()))
    dom:set("a", 1) io.stderr:write("stray") dom:close()]]):format(scratch)), "no streams")
same(t.read(scratch .. "/streams/events.jsonl"), "", "events")

-- Also if the caller has blocked the signal, and in a coroutine.
check(run("env --block-signal=TERM", [[
    vxa.catch_signals()
    assert(vxa.interrupted() == false)
    os.execute "(sleep 0.1; kill -TERM $PPID) &"
    assert(coroutine.wrap(vxa.sleep)(20) == false and vxa.sleep(20) == false)
    assert(vxa.interrupted() == "SIGTERM")]]), "interrupted sleep: " .. t.read(log))
check(vxa.clock() - started < LONG, "nothing slept to its end")

-- A limit on file sizes acts as a full disk in the middle of a record.
check(run("", [[vxa.catch_signals()
    local function read() return io.open("%s/full/events.jsonl"):read("*a") end
    local dom = vxa.Dom "%s/full"
    event(dom)
    local stored = read()
    os.execute("prlimit --pid $PPID --fsize=" .. #stored + 20 .. ":")
    vxa.capture(true)
    event(dom)
    assert(vxa.captured()[1].message:find "events.jsonl: File too large")
    assert(read() == stored)
    local _, message = dom:set("a", ("x"):rep(500))
    assert(message:find "document.json.tmp: File too large", message)
    local file = vxa.append_file("%s/full/lines")
    assert(file:write(("a"):rep(#stored)) and not file:write(("b"):rep(21)))
    assert(file:size() == #stored and file:write "\n")
    os.execute "prlimit --pid $PPID --fsize=unlimited:"
    assert(#dom:events() == 2 and #dom:get("a") == 500)
    event(dom)
    assert(dom:close())]], scratch, scratch, scratch), "full disk: " .. t.read(log))
kept = assert(vxa.Dom(scratch .. "/full"))
same({ #kept:events(), #kept:get("a") }, { 3, 500 }, "kept and stored again")

-- A process killed at any moment has stored everything whose call had returned.
local total = 0
for round = 1, 20 do
    local path, out = scratch .. "/killed" .. round, scratch .. "/out"
    run("", [[io.output("%s"):setvbuf "no"
        local dom = vxa.Dom "%s"
        os.execute "(sleep 0.0%02d; kill -KILL $PPID) &"
        for i = 1, 1e5 do event(dom) dom:set("number", i) io.write(i .. "\n") end]],
        out, path, round)
    local last = tonumber(t.read(out):match("(%d+)\n$") or 0)
    kept = assert(vxa.Dom(path))  -- fails on half a document
    local list, unreadable = kept:events()
    check(unreadable == 0 and (#list == last or #list == last + 1), #list .. " events of " .. last)
    local number = kept:get("number") or 0
    check(number == last or number == last + 1, number .. " of " .. last)
    total = total + last
end
check(total > 0, "no round lasted long enough to write anything")

os.execute("rm -rf '" .. scratch .. "'")
t.finish()
