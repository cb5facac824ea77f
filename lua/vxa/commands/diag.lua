-- vxa diag: writes a diagnostic package with the driver's tables and reports what it lacks.
--
-- The module adds all entries in one call that does not return failures. Its traces show when
-- each table began, hence how long it took, and why an entry without an event is missing. Sizes
-- are read from the finished package.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local package_entries = require "vxa.package_entries"
local printable = require "vxa.output.printable"
local session = require "vxa.session"

-- ---- the file ---------------------------------------------------------------------------

local not_replaced = { directory = "a directory", link = "a symbolic link",
                       other = "not a regular file" }

-- Only a regular file may be replaced: renaming over a device would take it away from everyone.
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

local function starts_with(text, start)
    return text:sub(1, #start) == start
end

-- Splits the traces at the first line of each table; the bundle's last line ends the last one.
local function split_traces(records)
    local traces, current = {}, nil
    for _, record in ipairs(records) do
        if record.kind == "trace" then
            local is_end = starts_with(record.message, "AddDriverContent returned")
            if is_end or record.message == record["function"] .. "()" then
                if is_end or starts_with(record["function"], "AddDriver") then
                    if current then current.seconds = record.time - current.started end
                    current = { started = record.time, lines = {} }
                    traces[record["function"]] = current
                end
            end
            if current then current.lines[#current.lines + 1] = record.message end
        end
    end
    return traces
end

local function has_line(trace, pattern)
    for _, line in ipairs(trace and trace.lines or {}) do
        if line:find(pattern) then return true end
    end
    return false
end

-- Describes an event such as "GET_STATS|fffffffb (engine sim: vxi_get_stats: …)"; an event of
-- another form is returned unchanged.
local function describe_event(event)
    local operation, code, cause = event.text:match("^(.-)|(%x%x%x%x%x%x%x%x) %((.*)%)$")
    if not operation then return event.text end
    local status = tonumber(code, 16)
    if status >= 2 ^ 31 then status = status - 2 ^ 32 end
    return ("%s failed with %d: %s"):format(operation, status, cause)
end

-- Returns descriptions of the entry's events, each once.
local function events_of(events, entry)
    local causes, times = {}, {}
    for _, event in ipairs(events) do
        if starts_with(event.text, entry.operation .. "|") then
            local cause = describe_event(event)
            if not times[cause] then causes[#causes + 1] = cause end
            times[cause] = (times[cause] or 0) + 1
        end
    end
    for i, cause in ipairs(causes) do
        if times[cause] > 1 then causes[i] = ("%s (%d times)"):format(cause, times[cause]) end
    end
    return causes
end

-- The driver's message about its last failed call, if that was one of this entry's.
local function driver_message(entry, built)
    return entry.call and built.driver_error:find(entry.call, 1, true) and built.driver_error
end

-- Returns why an entry without an event is missing or empty.
local function reason_without_event(entry, built, trace)
    local capability = built.capabilities[entry.capability]
    if has_line(trace, "^IsDriverOpen [%-0]") then return "the driver is not available" end
    if has_line(trace, "^totConn%.entry_ct was 0$") then return "the driver has no connections" end
    if has_line(trace, "^malloc") then return "out of memory" end
    if capability and not capability.available then return capability.detail end
    return driver_message(entry, built) or entry.without_event or "the driver returned nothing"
end

-- Returns a row for each entry: its size and time if it is there, and what is wrong with it.
local function judge(built)
    local traces, rows = split_traces(built.records), {}
    for i, entry in ipairs(package_entries) do
        local written, trace = built.entries[entry.name], traces[entry.by]
        local row = { name = entry.name, bytes = written and written.bytes,
                      seconds = trace and trace.seconds, problems = events_of(built.events, entry) }
        local is_empty = not written or written.bytes == 0
        if is_empty and #row.problems == 0 then
            row.problems[1] = reason_without_event(entry, built, trace)
        end
        row.state = not written and "missing" or is_empty and "empty" or "incomplete"
        rows[i] = row
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

-- Fills the archive. Returns {entries, list, records, events, …}, or nil and a message.
local function build(attached, handle, file)
    local vxa, dom = attached.vxa, attached.dom
    local _, earlier_events = events_after(dom, 0)
    local archive, message = vxa.ZipOutputStream(file)
    if not archive then return nil, message end
    attached.messages:take()
    SLB.filter.AddDriverDiagnostics(dom, handle, archive)
    local driver_error, records = handle:error(), attached.messages:take()
    local closed
    closed, message = archive:close()
    if not closed then return nil, message end
    local list
    list, message = vxa.zip_entries(file)
    if not list then return nil, message end
    return { list = list, entries = by_name(list), records = records, driver_error = driver_error,
             events = events_after(dom, earlier_events),
             capabilities = by_name(handle:capabilities()) }
end

-- ---- output -----------------------------------------------------------------------------

local function milliseconds(seconds)
    -- Times come from the system's clock, which may have been set back.
    return seconds and seconds >= 0 and ("%.1f"):format(seconds * 1000) or "-"
end

local function show_entries(rows)
    local cells = { { "entry", "bytes", "ms" } }
    for _, row in ipairs(rows) do
        if row.bytes then
            cells[#cells + 1] = { row.name, ("%.0f"):format(row.bytes), milliseconds(row.seconds) }
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

local function is_explained(event)
    for _, entry in ipairs(package_entries) do
        if starts_with(event.text, entry.operation .. "|") then return true end
    end
    return false
end

-- Counts the events and lists those that show_problems does not.
local function show_events(events, directory)
    if #events == 0 then return end
    console.line("%s in the host document%s", format.count(#events, "event"),
        directory and ", kept in " .. printable(directory) or " (--state DIR keeps them)")
    for _, event in ipairs(events) do
        if not is_explained(event) then
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

return function(options)
    check_target(session.load_host(), options.archive, options.force)
    local attached = session.attach(options)
    local vxa = attached.vxa
    session.capture_logs(attached, options)
    for _, category in ipairs { "filter", "diagnostics" } do vxa.trace(category, true) end
    session.open_document(attached, options)
    local handle, message = session.open_driver(vxa)
    if not handle then exit.fail(1, "cannot open the driver: %s", message) end
    profile_rules(vxa, handle, options.profile)

    local started = vxa.clock()
    local built = write_file(vxa, options, function(file) return build(attached, handle, file) end)
    local seconds = vxa.clock() - started
    handle:close()
    attached.messages:show()
    local rows = judge(built)
    console.line("vxa %s, engine %s", vxa.version, attached.engine)
    show_entries(rows)
    show_problems(rows)
    show_events(built.events, options.state)
    local bytes = show_total(built, options.archive, seconds)
    session.close_document(attached)
    if bytes > 0 then return 0 end
    console.complain("the driver returned nothing")
    return 1
end
