-- vxa diag: writes a diagnostic package with the driver's tables and reports what it lacks.
--
-- The module adds all entries in one call that does not return failures. The archive knows how
-- long each entry took, the driver handle which calls failed and why.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local option = require "vxa.options"
local package_entries = require "vxa.package_entries"
local printable = require "vxa.output.printable"
local session = require "vxa.session"

local function define(command)
    command:description("Write a diagnostic package with the driver's tables.")
    command:argument("OUT.zip", "The package to write."):target("archive")
        :convert(option.file_name("OUT.zip"))
    command:flag("--force", "Replace an existing file.")
    command:option("--profile", "Profile the rules for SECONDS and include per-rule counters in "
        .. "the package."):argname("SECONDS"):convert(option.seconds("--profile"))
    option.add_driver(command)
    option.add_state(command)
end

-- ---- the file ---------------------------------------------------------------------------

local not_replaced = { directory = "a directory", link = "a symbolic link",
                       other = "not a regular file" }

-- Only a regular file may be replaced: renaming over a device would remove it for everyone.
local function check_target(vxa, path, force)
    local kind, message = vxa.file_kind(path)
    if not kind then exit.fail(1, "cannot write %s", message) end
    if kind == "none" then return end
    if kind ~= "file" then
        exit.fail(2, "%s is %s and is not replaced", path, not_replaced[kind])
    end
    if not force then exit.fail(2, "%s already exists; use --force to replace it", path) end
end

-- Calls `build` with a file that gets its name only when it is complete; on any error nothing is
-- left behind. Do not write to the standard streams meanwhile: on EPIPE the command ends at once.
local function write_file(vxa, options, build)
    local file, message = vxa.temporary(options.archive)
    if not file then exit.fail(1, "%s", message) end
    local ok, result, reason = pcall(build, file)
    if ok and result and vxa.interrupted() then
        result, reason = nil, ("interrupted by %s: no package was written")
            :format(vxa.interrupted())
    end
    if ok and result then
        local published
        published, reason = file:publish(options.force)
        if published then return result end
    end
    file:close()
    if not ok then error(result, 0) end
    exit.fail(1, "%s", reason)
end

-- ---- what happened ----------------------------------------------------------------------

-- Returns descriptions of the failures of a driver call, each once.
local function describe_failures(failures, call)
    local descriptions, times = {}, {}
    for _, failure in ipairs(failures) do
        if failure.call == call then
            local description = ("%s failed with %d: %s")
                :format(call, failure.status, failure.message)
            if not times[description] then descriptions[#descriptions + 1] = description end
            times[description] = (times[description] or 0) + 1
        end
    end
    for i, description in ipairs(descriptions) do
        local count = times[description]
        if count > 1 then descriptions[i] = ("%s (%d times)"):format(description, count) end
    end
    return descriptions
end

local function has_failure(failures, call)
    for _, failure in ipairs(failures) do
        if failure.call == call then return true end
    end
    return false
end

-- Returns why an entry is missing or empty although its own call did not fail.
local function other_reason(entry, written, built)
    local capability = built.capabilities[entry.capability]
    if not written and has_failure(built.failures, "vxi_driver_available") then
        return "the driver is not available"
    end
    return capability and not capability.available and capability.detail or entry.otherwise
end

-- Returns a row for an entry: its size and time if it is there, and what is wrong with it.
local function judge(entry, built)
    local written = built.written[entry.name]
    local row = { name = entry.name, bytes = written and written.bytes,
                  seconds = written and written.seconds,
                  problems = describe_failures(built.failures, entry.call) }
    local is_empty = not written or written.bytes == 0
    if is_empty and #row.problems == 0 then
        row.problems[1] = other_reason(entry, written, built)
    end
    row.state = not written and "missing" or is_empty and "empty" or "incomplete"
    return row
end

-- Returns the rows of all entries, and of failed calls that belong to none, such as switching
-- rule profiling off.
local function judge_all(built)
    local rows, known = {}, { vxi_driver_available = true }
    for _, entry in ipairs(package_entries) do
        if entry.call then
            rows[#rows + 1] = judge(entry, built)
            known[entry.call] = true
        end
    end
    for _, failure in ipairs(built.failures) do
        if not known[failure.call] then
            known[failure.call] = true
            rows[#rows + 1] = { name = failure.call, state = "failed",
                                problems = describe_failures(built.failures, failure.call) }
        end
    end
    return rows
end

-- ---- building ---------------------------------------------------------------------------

local function by_name(list)
    local found = {}
    for _, item in ipairs(list or {}) do found[item.name] = found[item.name] or item end
    return found
end

-- Returns the events after the first `count`, and the number of all. A document kept in a
-- directory has those of earlier runs.
local function events_after(dom, count)
    local events, message = dom:events()
    if not events then exit.fail(1, "cannot read the events: %s", message) end
    return { table.unpack(events, count + 1) }, #events
end

-- Fills the archive. Returns {list, written, failures, events, capabilities}, or nil and a message.
local function build(attached, handle, file)
    local vxa, dom = attached.vxa, attached.dom
    local _, earlier_events = events_after(dom, 0)
    local archive, message = vxa.ZipOutputStream(file)
    if not archive then return nil, message end
    SLB.filter.AddDriverDiagnostics(dom, handle, archive)
    attached.messages:take()
    local written, failures = by_name(archive:entries()), handle:failures()
    local closed
    closed, message = archive:close()
    if not closed then return nil, message end
    local list
    list, message = vxa.zip_entries(file)
    if not list then return nil, message end
    return { list = list, written = written, failures = failures,
             events = events_after(dom, earlier_events),
             capabilities = by_name(handle:capabilities()) }
end

-- ---- output -----------------------------------------------------------------------------

local function show_entries(rows)
    local cells = { { "entry", "bytes", "ms" } }
    for _, row in ipairs(rows) do
        if row.bytes then
            cells[#cells + 1] = { row.name, ("%.0f"):format(row.bytes),
                                  ("%.1f"):format(row.seconds * 1000) }
        end
    end
    console.lines(format.columns(cells, { [2] = true, [3] = true }))
end

local function show_problems(rows)
    local cells = {}
    for _, row in ipairs(rows) do
        for _, problem in ipairs(row.problems) do
            cells[#cells + 1] = { row.state, row.name, printable(problem) }
        end
    end
    console.lines(format.columns(cells, {}))
end

-- The module writes an event for a failed call, with the driver's message.
local function is_explained(event, failures)
    for _, failure in ipairs(failures) do
        if event.text:find("(" .. failure.message .. ")", 1, true) then return true end
    end
    return false
end

-- Counts the events and lists those that show_problems does not.
local function show_events(built, directory)
    if #built.events == 0 then return end
    console.line("%s in the host document%s", format.count(#built.events, "event"),
        directory and ", kept in " .. printable(directory) or " (--state DIR keeps them)")
    for _, event in ipairs(built.events) do
        if not is_explained(event, built.failures) then
            console.line("  %d  %s", event.id, printable(event.text))
        end
    end
end

local function show_total(built, path, seconds)
    local bytes, packed = 0, 0
    for _, entry in ipairs(built.list) do
        bytes, packed = bytes + entry.bytes, packed + entry.packed_bytes
    end
    console.line("%s: %s, %s packed into %s, in %s", printable(path),
        format.count(#built.list, "entry", "entries"), format.size(bytes), format.size(packed),
        format.duration(seconds))
    return bytes
end

-- ---- the command ------------------------------------------------------------------------

local RULE_PROFILING = 62  -- a variable of the driver; the module sets it back to 0

local function profile_rules(vxa, handle, seconds)
    if not seconds then return end
    local enabled, message = handle:set_variable(RULE_PROFILING, 1)
    if not enabled then exit.fail(1, "cannot profile the rules: %s", message) end
    if not vxa.sleep(seconds) then
        exit.fail(1, "interrupted by %s: no package was written", vxa.interrupted())
    end
end

local function run(options)
    check_target(session.load_host(), options.archive, options.force)
    local attached = session.attach(options)
    local vxa = attached.vxa
    session.capture_logs(attached, options)
    session.open_document(attached, options)
    local handle, message = session.open_driver(vxa)
    if not handle then exit.fail(1, "cannot open the driver: %s", message) end
    profile_rules(vxa, handle, options.profile)

    local started = vxa.clock()
    local built = write_file(vxa, options, function(file) return build(attached, handle, file) end)
    local seconds = vxa.clock() - started
    handle:close()
    attached.messages:show()
    local rows = judge_all(built)
    console.line("vxa %s, engine %s", vxa.version, attached.engine)
    show_entries(rows)
    show_problems(rows)
    show_events(built, options.state)
    local bytes = show_total(built, options.archive, seconds)
    session.close_document(attached)
    if bytes > 0 then return 0 end
    console.complain("the driver returned nothing")
    return 1
end

return { define = define, run = run }
