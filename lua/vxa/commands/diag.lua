-- vxa diag: writes a diagnostic package and reports what it lacks.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local new_file = require "vxa.output.new_file"
local option = require "vxa.options"
local package_problems = require "vxa.packages.problems"
local package_writer = require "vxa.packages.writer"
local printable = require "vxa.output.printable"
local session = require "vxa.session"
local simulation = require "vxa.machine.simulation"

local function define(command)
    command:description("Write a diagnostic package: the driver's tables, and what they are from.")
    command:argument("OUT.zip", "The package to write."):target("archive")
        :convert(option.file_name("OUT.zip"))
    command:flag("--force", "Replace an existing file.")
    command:option("--profile", "Profile the rules for SECONDS and include per-rule counters in "
        .. "the package."):argname("SECONDS"):convert(option.seconds("--profile"))
    option.add_policy(command)
    option.add_driver(command)
    option.add_state(command, "Include the transitions and events of this directory of vxa run, "
        .. "and keep the events of the package there.")
end

-- ---- output -----------------------------------------------------------------------------

local function show_entries(added)
    local cells = { { "entry", "bytes", "ms" } }
    for i, entry in ipairs(added) do
        cells[i + 1] = { entry.name, ("%.0f"):format(entry.bytes),
                         ("%.1f"):format(entry.seconds * 1000) }
    end
    console.lines(format.columns(cells, { [2] = true, [3] = true }))
end

local function show_problems(rows)
    local cells = {}
    for _, row in ipairs(rows) do
        for _, problem in ipairs(row.is_expected and {} or row.problems) do
            cells[#cells + 1] = { row.state, row.name, printable(problem) }
        end
    end
    console.lines(format.columns(cells, {}))
end

local function with_failed_calls(rows, failures)
    local all = { table.unpack(rows) }
    for _, row in ipairs(package_problems.calls(failures)) do all[#all + 1] = row end
    return all
end

-- The module writes an event for a failed call, with the driver's message.
local function is_explained(event, failures)
    for _, failure in ipairs(failures) do
        if event.text:find("(" .. failure.message .. ")", 1, true) then return true end
    end
    return false
end

-- Counts the events and lists those that show_problems does not.
local function show_events(writer, directory)
    local events, failures = writer.events, writer.driver.failures
    if #events == 0 then return end
    console.line("%s in the host document%s", format.count(#events, "event"),
        directory and ", kept in " .. printable(directory) or " (--state DIR keeps them)")
    for _, event in ipairs(events) do
        if not is_explained(event, failures) then
            console.line("  %d  %s", event.id, printable(event.text))
        end
    end
end

local function show_total(list, path, seconds)
    local bytes, packed = 0, 0
    for _, entry in ipairs(list) do
        bytes, packed = bytes + entry.bytes, packed + entry.packed_bytes
    end
    console.line("%s: %s, %s packed into %s, in %s", printable(path),
        format.count(#list, "entry", "entries"), format.size(bytes), format.size(packed),
        format.duration(seconds))
end

-- ---- the command ------------------------------------------------------------------------

local RULE_PROFILING = 62  -- a variable of the driver; the module sets it back to 0

local function profile_rules(vxa, handle, seconds)
    if not seconds or not handle then return end
    local enabled, message = handle:set_variable(RULE_PROFILING, 1)
    if not enabled then exit.fail(1, "cannot profile the rules: %s", message) end
    if not vxa.sleep(seconds) then
        exit.fail(1, "interrupted by %s: no package was written", vxa.interrupted())
    end
end

-- A directory that cannot be opened is only read: the package is wanted most while a `vxa run`
-- has it open.
local function open_document(attached, options)
    local message
    attached.dom, message = attached.vxa.Dom(options.state)
    if attached.dom then return end
    console.complain(message .. "; the events of this package are not kept there")
    attached.document_error = message
    attached.is_document_in_use = message:find(" is in use by ", 1, true) ~= nil
    attached.dom, message = attached.vxa.Dom()
    if not attached.dom then exit.fail(1, "%s", message) end
end

-- Returns the exit status.
local function judge(writer)
    if writer.driver.open_error then
        console.complain("cannot open the driver: " .. writer.driver.open_error)
        return 1
    end
    for _, row in ipairs(writer.rows) do
        if row.is_of_driver and row.written and row.written.bytes > 0 then return 0 end
    end
    console.complain("the driver returned nothing: the package has none of its tables")
    return 1
end

-- Returns the writer of the package, with everything that it needs.
local function prepare(attached, options)
    local vxa = attached.vxa
    simulation.show_processors(vxa)
    session.capture_logs(attached, options)
    vxa.trace("*", true)  -- for the log of the package
    local writer = package_writer.new(attached, options)
    writer:choose_policy()
    open_document(attached, options)
    writer:open_driver()
    profile_rules(vxa, writer.driver.handle, options.profile)
    return writer
end

-- Returns the entries of the package, and the seconds that it took to write it.
local function write(writer, options)
    local vxa = writer.vxa
    local started = vxa.clock()
    local list = new_file.write(vxa, options.archive, options.force, "package", function(file)
        local filled, message = writer:fill(file)
        if not filled then return nil, message end
        return vxa.zip_entries(file)
    end)
    if writer.driver.handle then writer.driver.handle:close() end
    return list, vxa.clock() - started
end

local function run(options)
    new_file.check(session.load_host(), options.archive, options.force)
    local attached = session.attach(options)
    local writer = prepare(attached, options)
    local list, seconds = write(writer, options)
    attached.messages:show()
    console.line("vxa %s, engine %s", attached.vxa.version, attached.engine)
    show_entries(writer.added)
    show_problems(with_failed_calls(writer.rows, writer.driver.failures))
    show_events(writer, not attached.document_error and options.state)
    show_total(list, options.archive, seconds)
    session.close_document(attached)
    if attached.document_error and not attached.is_document_in_use then return 1 end
    return judge(writer)
end

return { define = define, run = run }
