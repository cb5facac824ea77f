-- vxa diag: a diagnostic package with the driver's tables, and what it lacks.
--
-- The module adds all entries in one call, and its result says nothing of failures. Its
-- traces show when each table began, so how long it took, and why one that raised no
-- event is missing; sizes are read from the finished package itself.

local console = require "command.console"
local fail = require "command.fail"
local printable = require "command.printable"
local session = require "command.session"
local text = require "command.text"

-- In the order in which the module adds them. `operation` begins the event's message,
-- `capability` is the engine's row about the table. Tables that can fail without an event
-- have the driver's `call` and what its silence means.
local TABLES = {
    { entry = "vxa_stats.txt", by = "AddDriverStatistics", operation = "GET_STATS",
      capability = "statistics" },
    { entry = "vxa_variables.txt", by = "AddDriverVariables", operation = "GET_VARIABLE",
      capability = "variables", call = "vxi_get_varv",
      silent = "the driver does not know all of the variables" },
    { entry = "vxa_conn_track.txt", by = "AddDriverConnTrack", operation = "GET_CONN_TRACK",
      capability = "conntrack" },
    { entry = "vxa_blacklist.txt", by = "AddDriverBlacklist", operation = "BLACKLIST_ADD",
      capability = "blacklist" },
    { entry = "vxa.tpf", by = "AddDriverRuleStats", operation = "vxi_get_profile_stats()",
      capability = "rule-profile", call = "vxi_get_profile_stats",
      silent = "the driver has no rule profile" },
}

-- ---- the file -----------------------------------------------------------------------------

local in_the_way = { directory = "a directory", link = "a symbolic link",
                     other = "not a regular file" }

-- Only a regular file may be replaced: not a device, which a rename would take away from all
-- others.
local function check_target(vxa, path, force)
    local kind, message = vxa.file_kind(path)
    if not kind then fail(1, "cannot write %s", message) end
    if kind == "none" then return end
    if kind ~= "file" then fail(2, "%s is %s: it is not replaced", path, in_the_way[kind]) end
    if not force then fail(2, "%s is there already; --force replaces it", path) end
end

-- Lets `build` fill a file that gets its name only when it is complete: whatever goes wrong,
-- nothing is left behind. Nothing may be written to the standard streams meanwhile: a reader
-- of theirs that is gone would end the process at once.
local function write_file(vxa, options, build)
    local file, message = vxa.temporary(options.archive)
    if not file then fail(1, "%s", message) end
    local ok, result, reason = pcall(build, file)
    if ok and result and vxa.interrupted() then
        result, reason = nil, "ended by " .. vxa.interrupted() .. ": no package was made"
    end
    if ok and result then
        local published
        published, reason = file:publish(options.force)
        if published then return result end
    end
    file:close()
    if not ok then error(result, 0) end
    fail(1, "%s", reason)
end

-- ---- what happened ------------------------------------------------------------------------

local function begins_with(text_, start)
    return text_:sub(1, #start) == start
end

-- Splits the traces at the first line of each table; the bundle's own last line ends all.
local function trace_tables(records)
    local traced, current = {}, nil
    for _, record in ipairs(records) do
        if record.kind == "trace" then
            local is_end = begins_with(record.message, "AddDriverContent returned")
            if is_end or record.message == record["function"] .. "()" then
                if is_end or begins_with(record["function"], "AddDriver") then
                    if current then current.seconds = record.time - current.started end
                    current = { started = record.time, lines = {} }
                    traced[record["function"]] = current
                end
            end
            if current then current.lines[#current.lines + 1] = record.message end
        end
    end
    return traced
end

local function has_line(traced, pattern)
    for _, line in ipairs(traced and traced.lines or {}) do
        if line:find(pattern) then return true end
    end
    return false
end

-- "GET_STATS|fffffffb (engine sim: vxi_get_stats: …)" in words; events of another form as
-- they are.
local function describe_event(event)
    local operation, code, cause = event.text:match("^(.-)|(%x%x%x%x%x%x%x%x) %((.*)%)$")
    if not operation then return event.text end
    local status = tonumber(code, 16)
    if status >= 2 ^ 31 then status = status - 2 ^ 32 end
    return ("%s failed with %d: %s"):format(operation, status, cause)
end

-- The causes in the table's events, each once.
local function events_of(events, table_)
    local causes, times = {}, {}
    for _, event in ipairs(events) do
        if begins_with(event.text, table_.operation .. "|") then
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

-- The driver's message about its last failed call, where that was one of this table's.
local function driver_text(table_, built)
    return table_.call and built.driver_error:find(table_.call, 1, true) and built.driver_error
end

local function silent_reason(table_, built, traced)
    local capability = built.capabilities[table_.capability]
    if has_line(traced, "^IsDriverOpen [%-0]") then return "the driver is not available" end
    if has_line(traced, "^totConn%.entry_ct was 0$") then
        return "the driver knows no connection"
    end
    if has_line(traced, "^malloc") then return "out of memory" end
    if capability and not capability.available then return capability.detail end
    return driver_text(table_, built) or table_.silent or "the driver gave nothing"
end

-- What became of each table: its entry if it has one, the time it took, what is wrong.
local function judge(built)
    local traced, rows = trace_tables(built.records), {}
    for i, table_ in ipairs(TABLES) do
        local entry = built.entries[table_.entry]
        local row = { name = table_.entry, entry = entry, wrong = events_of(built.events, table_),
                      seconds = traced[table_.by] and traced[table_.by].seconds }
        local is_empty = not entry or entry.bytes == 0
        if is_empty and #row.wrong == 0 then
            row.wrong[1] = silent_reason(table_, built, traced[table_.by])
        end
        row.state = not entry and "missing" or is_empty and "empty" or "incomplete"
        rows[i] = row
    end
    return rows
end

-- ---- building -----------------------------------------------------------------------------

local function by_name(list)
    local found = {}
    for _, item in ipairs(list or {}) do found[item.name] = found[item.name] or item end
    return found
end

-- Events that were written since; earlier ones are of the document's past.
local function events_since(dom, count)
    local events, message = dom:events()
    if not events then fail(1, "the events cannot be read: %s", message) end
    return { table.unpack(events, count + 1) }, #events
end

-- Fills the archive. Returns {entries, list, records, events}, or nil and what is wrong.
local function build(attached, handle, file)
    local vxa, dom = attached.vxa, attached.dom
    local _, events_before = events_since(dom, 0)
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
             events = events_since(dom, events_before),
             capabilities = by_name(handle:capabilities()) }
end

-- ---- telling ------------------------------------------------------------------------------

local function milliseconds(seconds)
    -- From the system's clock: no number when it was set back.
    return seconds and seconds >= 0 and ("%.1f"):format(seconds * 1000) or "-"
end

local function show_entries(rows)
    local cells = { { "entry", "bytes", "ms" } }
    for _, row in ipairs(rows) do
        if row.entry then
            cells[#cells + 1] = { row.name, ("%.0f"):format(row.entry.bytes),
                                  milliseconds(row.seconds) }
        end
    end
    for _, line in ipairs(text.columns(cells, { [2] = true, [3] = true })) do
        console.line("%s", line)
    end
end

local function show_problems(rows)
    local cells = {}
    for _, row in ipairs(rows) do
        for _, wrong in ipairs(row.wrong) do
            cells[#cells + 1] = { row.state, row.name, printable(wrong) }
        end
    end
    for _, line in ipairs(text.columns(cells, {})) do console.line("%s", line) end
end

-- Lists the events that the table above does not explain: those of another operation.
local function show_events(events, folder)
    if #events == 0 then return end
    console.line("%s in the host document%s", text.count(#events, "event"),
        folder and ", kept in " .. printable(folder) or " (--state DIR keeps them)")
    for _, event in ipairs(events) do
        local known = false
        for _, table_ in ipairs(TABLES) do
            known = known or begins_with(event.text, table_.operation .. "|")
        end
        if not known then console.line("  %d  %s", event.id, printable(event.text)) end
    end
end

local function show_total(built, path, seconds)
    local bytes, packed = 0, 0
    for _, entry in ipairs(built.list) do
        bytes, packed = bytes + entry.bytes, packed + entry.packed_bytes
    end
    console.line("%s: %s, %s packed into %s, in %s", printable(path),
        text.count(#built.list, "entry", "entries"), text.size(bytes), text.size(packed),
        text.duration(seconds))
    return bytes
end

local RULE_PROFILING = 62  -- the driver's variable; the module sets it back

local function profile_rules(vxa, handle, seconds)
    if not seconds then return end
    local switched, message = handle:set_variable(RULE_PROFILING, 1)
    if not switched then fail(1, "the rules cannot be profiled: %s", message) end
    if not vxa.sleep(seconds) then
        fail(1, "ended by %s: no package was made", vxa.interrupted())
    end
end

return function(options)
    check_target(session.host(), options.archive, options.force)
    local attached = session.attach(options)
    local vxa = attached.vxa
    session.listen(attached, options)
    for _, category in ipairs { "filter", "diagnostics" } do vxa.trace(category, true) end
    session.document(attached, options)
    local handle, message = session.open(vxa)
    if not handle then fail(1, "the driver cannot be opened: %s", message) end
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
    session.finish(attached)
    if bytes > 0 then return 0 end
    console.complain("the driver delivered nothing")
    return 1
end
