-- Fills a diagnostic package: the driver's tables, the files of the state directory, the log, and
-- the manifest.

local json = require "dkjson"

local facts = require "vxa.machine.facts"
local json_records = require "vxa.output.json_records"
local manifest = require "vxa.packages.manifest"
local package_problems = require "vxa.packages.problems"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local session = require "vxa.session"
local state_files = require "vxa.packages.state_files"
local step_log = require "vxa.output.step_log"
local timestamps = require "vxa.output.timestamps"

local writer = {}

local Writer = {}
Writer.__index = Writer

local array = json_records.array

-- `attached`: {vxa, engine, dom, messages} of the session, with `document_error` if the document
-- of the state directory could not be opened, and `is_document_in_use` if that is because another
-- process has it open. `options`: those of the command.
function writer.new(attached, options)
    local self = setmetatable({
        vxa = attached.vxa, attached = attached, options = options,
        log = step_log.new(attached.vxa), started = attached.vxa.time(), unknown = array {},
        driver = { failures = {}, dropped = 0, capabilities = {} }, state = {},
    }, Writer)
    self.log:step("version %s, engine %s", attached.vxa.version, attached.engine)
    return self
end

-- Notes why a member of the manifest is null, and returns null.
function Writer:without(member, reason)
    self.unknown[#self.unknown + 1] = { member = member, reason = printable(reason) }
    self.log:step("%s is not known: %s", member, reason)
    return json.null
end

-- ---- what the manifest says ---------------------------------------------------------------

-- A policy that the user names must be right; a configuration file that is wrong is a finding.
function Writer:choose_policy()
    local function choose()
        return policy_source.choose(self.options, self.vxa, session.cpu_count)
    end
    if self.options.policy then
        self.policy = choose()
        return
    end
    local ok, chosen = pcall(choose)
    if ok then
        self.policy = chosen
    elseif type(chosen) == "table" and chosen.message then
        self.policy_error = chosen.message
    else
        error(chosen, 0)
    end
end

-- Returns the policy of a record of `vxa run --state`, which may be anything.
local function recorded_policy(record)
    local function text(value) return type(value) == "string" and printable(value) or json.null end
    local settings = json_records.object {}
    for key, value in pairs(type(record.settings) == "table" and record.settings or {}) do
        if type(value) == "number" then settings[key] = value end
    end
    return { source = text(record.policy_source), settings = settings,
             recorded = text(record.time), warnings = array {} }
end

-- The run that keeps the directory has recorded what is in force, or was when it ended.
function Writer:policy_member()
    local options, chosen = self.options, self.policy
    local record = self.state.policy
    if record and not options.policy and not options.port then return recorded_policy(record) end
    if not chosen then return self:without("policy", self.policy_error) end
    local warnings = array {}
    for i, warning in ipairs(chosen.warnings) do warnings[i] = printable(warning) end
    return { source = printable(chosen.source), warnings = warnings, recorded = json.null,
             settings = json_records.object(chosen.values) }
end

function Writer:fail_open()
    local attached, directory = self.attached, self.options.state
    if attached.document_error then return state_files.fail_open(self.vxa, directory) end
    local state, message = attached.dom:get(state_files.FAIL_OPEN_KEY)
    if type(state) == "string" then return state end
    return nil, message or "no cycle was run"
end

function Writer:state_member()
    local directory = self.options.state
    if not directory then return self:without("state", "no --state DIR was given") end
    local function known(member, value, reason)
        if type(value) == "string" then return printable(value) end
        return value or self:without("state." .. member, reason)
    end
    return {
        directory = printable(directory), in_use = self.attached.is_document_in_use == true,
        fail_open = known("fail_open", self:fail_open()),
        run_ended = self.state.run_ended or json.null,
        last_transition = known("last_transition", self.state.transition,
            self.state_entries[1].reason or "no transition was recorded"),
        last_cycle = known("last_cycle", state_files.last_cycle(self.vxa, directory)),
    }
end

function Writer:capabilities_member()
    local driver = self.driver
    if not driver.rows then return self:without("capabilities", driver.capabilities_error) end
    local rows = array {}
    for i, row in ipairs(driver.rows) do
        rows[i] = { name = row.name, available = row.available, detail = printable(row.detail) }
    end
    return rows
end

local function failed_calls(failures)
    local rows = array {}
    for i, failure in ipairs(failures) do
        rows[i] = { call = failure.call, status = failure.status or json.null,
                    message = printable(failure.message) }
    end
    return rows
end

function Writer:events_member()
    if self.events_error then return self:without("events", self.events_error) end
    local rows = array {}
    for i, event in ipairs(self.events) do
        rows[i] = { time = timestamps.with_offset(event.time), id = event.id,
                    text = printable(event.text) }
    end
    return rows
end

local function entry_row(row)
    local written, reason = row.written, table.concat(row.problems, "; ")
    return {
        name = row.name, state = row.state,
        reason = reason ~= "" and printable(reason) or json.null,
        bytes = written and written.bytes or json.null,
        sha256 = written and written.sha256 or json.null,
        milliseconds = written and json_records.duration(written.seconds * 1000) or json.null,
    }
end

function Writer:manifest()
    local vxa, found = self.vxa, facts.collect(self.vxa, function(...) self:without(...) end)
    local entries = array {}
    for i, row in ipairs(self.rows) do entries[i] = entry_row(row) end
    local content = {
        manifest = manifest.FORMAT, version = vxa.version, build_ids = found.build_ids,
        start = timestamps.with_offset(self.started), time_zone = printable(os.date("%Z")),
        host = found.host, user = found.user, engine = self.attached.engine,
        profile_s = self.options.profile or json.null,
        capabilities = self:capabilities_member(), policy = self:policy_member(),
        state = self:state_member(), events = self:events_member(),
        failed_calls = failed_calls(self.driver.failures),
        failed_calls_dropped = self.driver.dropped, entries = entries, unknown = self.unknown,
    }
    content["end"] = timestamps.with_offset(vxa.time())
    return content
end

-- ---- entries ------------------------------------------------------------------------------

-- Opens the driver; a package is written also without it.
function Writer:open_driver()
    local driver = self.driver
    local message
    driver.handle, message = session.open_driver(self.vxa)
    if driver.handle then return self.log:step("opened the driver") end
    driver.open_error, driver.capabilities_error = message, message
    driver.failures[1] = { call = "vxi_open", message = message }
    self.log:step("cannot open the driver: %s", message)
end

local function by_name(list)
    local found = {}
    for _, item in ipairs(list) do found[item.name] = found[item.name] or item end
    return found
end

-- Keeps the events that the function writes. A document kept in a directory also has those of
-- earlier runs.
function Writer:collect_events(write)
    local dom = self.attached.dom
    local earlier, message = dom:events()
    write()
    if earlier then
        local all
        all, message = dom:events()
        self.events = all and { table.unpack(all, #earlier + 1) }
    end
    self.events_error, self.events = not self.events and message or nil, self.events or {}
end

function Writer:log_row(row)
    local written = row.written
    local parts = { row.state }
    if written then
        parts[2] = ("%.0f bytes in %.1f ms"):format(written.bytes, written.seconds * 1000)
    end
    for _, problem in ipairs(row.problems) do parts[#parts + 1] = problem end
    self.log:step("%s: %s", row.name, table.concat(parts, "; "))
end

function Writer:add_driver_tables(archive)
    local driver = self.driver
    self:collect_events(function()
        if not driver.handle then return end
        driver.rows, driver.capabilities_error = driver.handle:capabilities()
        driver.capabilities = by_name(driver.rows or {})
        SLB.filter.AddDriverDiagnostics(self.attached.dom, driver.handle, archive)
        driver.failures, driver.dropped = driver.handle:failures()
    end)
    self.rows = package_problems.entries(by_name(archive:entries()), driver)
    for _, row in ipairs(self.rows) do self:log_row(row) end
    for _, failure in ipairs(driver.failures) do
        self.log:step("failed with %s: %s", failure.status or "null", failure.message)
    end
    return true
end

-- Adds an entry of the command itself, {name, text, reason, is_expected} as state_files.read
-- returns them.
function Writer:add(archive, entry)
    local text, reason = entry.text, entry.reason
    local row = { name = entry.name, problems = { reason }, is_expected = entry.is_expected }
    row.state = not text and "missing" or text == "" and "empty" or reason and "incomplete" or "ok"
    self.rows[#self.rows + 1] = row
    if not text then return true end
    local added, message = archive:add(entry.name, text)
    if not added then return nil, message end
    local entries = archive:entries()
    row.written = entries[#entries]
    return true
end

function Writer:add_state_files(archive)
    if not self.options.state then return true end
    self.state_entries = state_files.read(self.vxa, self.options.state)
    self.state = state_files.summary(self.vxa, self.state_entries)
    for _, entry in ipairs(self.state_entries) do
        local added, message = self:add(archive, entry)
        if not added then return nil, message end
        self:log_row(self.rows[#self.rows])
    end
    return true
end

-- The manifest comes first in time, since the log has what was not known, but last in the archive.
function Writer:add_own_entries(archive)
    local content = self:manifest()
    local log = self.log:text(self.attached.messages:take())
    local added, message = self:add(archive, { name = "diag.log", text = log })
    if not added then return nil, message end
    table.insert(content.entries, entry_row(self.rows[#self.rows]))
    content["end"] = timestamps.with_offset(self.vxa.time())
    return archive:add(manifest.NAME, manifest.encode(content))
end

-- Fills the file. Returns true, or nil and a message; then there is no package. After it, the
-- writer has
--   rows     one for each entry of the manifest, as package_problems.entries returns them
--   driver   see there
--   events   the agent events that were written meanwhile, as far as they could be read
--   added    the archive's entries, as archive:entries() returns them
function Writer:fill(file)
    local archive, message = self.vxa.ZipOutputStream(file)
    if not archive then return nil, message end
    for _, part in ipairs { "add_driver_tables", "add_state_files", "add_own_entries" } do
        local done
        done, message = self[part](self, archive)
        if not done then return nil, message end
    end
    self.added = archive:entries()
    return archive:close()
end

return writer
