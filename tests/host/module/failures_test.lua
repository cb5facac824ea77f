-- Each function of the module `vxa` that can fail returns nil, a message and a documented number.

local t = require "testing"
local vxa = require "vxa"
require "fc"

local scratch = os.getenv "FAKE_MACHINE" .. "/failures/"
os.execute(([[d=%s; mkdir $d && cd $d && mkdir state dir && echo x >file && ln file hard &&
    ln -s file link && ln -s loop loop && printf 'no record\n' >text &&
    printf '{"list":[]}' >state/document.json]]):format(scratch))
vxa.engine "sim"

local document, closed = assert(vxa.Dom(scratch .. "state")), vxa.Dom()
closed:close()
local archive, ended = vxa.ZipOutputStream(scratch .. "a.zip"), vxa.ZipOutputStream(scratch .. "e")
archive:add("a", "bytes")
assert(archive:close() and ended:close())
local written, full = vxa.ZipOutputStream(scratch .. "w"), vxa.ZipOutputStream "/dev/full"
written:add("a", "")
local handle, redaction = assert(vxa.open()), assert(vxa.redaction())
local temporary, appended = vxa.temporary(scratch .. "file"), vxa.append_file(scratch .. "long")
assert(appended:write(("x"):rep(2 ^ 20 + 1)))
local rotated = assert(vxa.rotated_file(scratch .. "dir/r", "", 1, 1, false))
local unsaved = assert(vxa.Dom(scratch .. "gone"))
os.execute("rm -r " .. scratch .. "dir " .. scratch .. "gone")
unsaved:set("key", 1)
local output, reader = vxa.temporary(scratch .. "out"), vxa.zip_reader(scratch .. "a.zip")

local function fault(script, call, ...)
    vxa.fault(script)
    local results = table.pack(call(...))
    vxa.fault()
    return table.unpack(results)
end

-- The number, a part of the message, the function and its arguments; paths are in `scratch`.
for _, case in ipairs {
    { 2, "cannot make directory /proc/nothing", vxa.Dom, "/proc/nothing/here" },
    { 11, "in use by this process", vxa.Dom, scratch .. "state" },
    { 22, "the value is a list", document.get, document, "list" },
    { 9, "the document is closed", closed.set, closed, "key", 1 },
    { 9, "the document is closed", closed.events, closed },
    { 2, "No such file", unsaved.close, unsaved },
    { -13, "Permission denied", fault, "vxi_open=-13", vxa.open },
    { -5, "vxi_get_conntrack", fault, "vxi_get_conntrack=-5", handle.connections, handle },
    { -5, "vxi_capabilities", fault, "vxi_capabilities=-5", handle.capabilities, handle },
    { -7, "broken", fault, "vxi_set_var=-7:broken", handle.set_variable, handle, 62, 1 },
    { 2, "No such file", vxa.ZipOutputStream, "/nonexistent/a.zip" },
    { 9, "the archive is closed", ended.add, ended, "name", "" },
    { 17, "there is one of that name", written.add, written, "a", "" },
    { 22, "it is absolute", written.add, written, "/a", "" },
    { 28, "No space left", full.close, full },
    { 21, "Is a directory", vxa.temporary, "/" },
    { 17, "File exists", temporary.publish, temporary },
    { 2, "No such file", vxa.zip_entries, "/nonexistent/a.zip" },
    { 2, "has no entry b", vxa.zip_read, scratch .. "a.zip", "b" },
    { 27, "more than 1 bytes", vxa.zip_read, scratch .. "a.zip", "a", 1 },
    { 22, "not a zip archive", vxa.zip_reader, scratch .. "file" },
    { 22, "no entry to read", reader.sha256, reader },
    { 40, "symbolic link", vxa.append_file, scratch .. "link" },
    { 31, "hard link", vxa.append_file, scratch .. "hard" },
    { 11, "another process", vxa.append_file, scratch .. "long" },
    { 22, "does not consist of lines", appended.cut_partial_line, appended },
    { 40, "symbolic link", vxa.is_appended_to, scratch .. "link" },
    { 22, "does not begin with", vxa.rotated_file, scratch .. "text", "head", 1, 1, false },
    { 2, "No such file", rotated.write, rotated, "x" },
    { 2, "No such file", vxa.chart, "/nonexistent/r.csv" },
    { 22, "not a JSON object", vxa.chart, scratch .. "text", "1" },
    { 2, "No such file", vxa.replay, "/nonexistent/r.csv", {} },
    { 2, "No such file", vxa.tune, "/nonexistent/r.csv", 1 },
    { 22, "can be accessed by other users", vxa.redaction, scratch .. "text" },
    { 2, "has no entry b", redaction.survey, redaction, scratch .. "a.zip", "b", "text" },
    { 2, "has no entry b", redaction.copy, redaction, scratch .. "a.zip", "b", "text", written },
    { -22, "unknown engine", vxa.engine, "none" },
    { -22, "from character 1 on", vxa.fault, "?" },
    { -22, "from character 1 on", vxa.simulate, "?" },
    { 2, "No such file", vxa.log_to, "/nonexistent/log" },
    { 2, "nonexistent", vxa.run_program, { "/nonexistent/program" }, "", output },
    { 22, "status 1", vxa.run_program, { "false" }, "", output },
    { 20, "is not a directory", vxa.mkdir, scratch .. "file/x" },
    { 40, "Too many levels", vxa.same_file, scratch .. "loop", "a" },
    { 20, "Not a directory", vxa.file_kind, scratch .. "file/x" },
    { 27, "more than 1 bytes", vxa.read_file, scratch .. "file", 1 },
    { 2, "No such file", vxa.read_tail, scratch .. "none", 1 },
    { 40, "symbolic link", vxa.read_tail, scratch .. "link", 1 },
    { 22, "not a regular file", vxa.replace_file, scratch .. "state", "" },
    { 22, "not a regular file", vxa.remove_file, scratch .. "state" },
} do
    local result, message, number = case[3](table.unpack(case, 4))
    local found = tostring(message):find(case[2], 1, true)
    t.equal({ result, found and case[2] or message, number }, { nil, case[2], case[1] }, case[2])
end

t.finish()
