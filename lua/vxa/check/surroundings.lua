-- What around this process changes what vxa or an agent does: environment, files of other users,
-- clock.

local environment = require "vxa.machine.environment"
local health_policy = require "health_policy"
local inspection = require "vxa.check.inspection"
local messages = require "vxa.messages"
local policy_source = require "vxa.policy_source"

local surroundings = {}

local MOST_BYTES = 65536

-- Call it before session.load_host, which changes the environment. Returns what inspect() needs.
function surroundings.remember()
    os.setlocale("", "numeric")
    local has_comma = ("%.1f"):format(0.5) == "0,5"
    os.setlocale("C", "numeric")
    local before = { has_comma = has_comma, PATH = os.getenv("PATH") }
    for _, name in ipairs(environment.NPROC_VARIABLES) do before[name] = os.getenv(name) end
    return before
end

local Surroundings = {}
Surroundings.__index = Surroundings

function Surroundings:add(severity, file, key, format, ...)
    self.findings:add { file = file, severity = severity, key = key, message = format:format(...) }
end

-- ---- environment --------------------------------------------------------------------------

local VARIABLES = {
    { "VXI_ENGINE", "it chooses the engine where --engine does not" },
    { "VXI_SIM", "it describes the simulated machine, which only the engine sim has" },
    { "VXI_FAULT", "it makes calls of the driver fail" },
    { "VXA_LIB", "vxa loads its modules from there" },
    { "LD_PRELOAD", "it changes every command that vxa or an agent runs" },
    { "LD_LIBRARY_PATH", "other libraries than the installed ones may be loaded" },
    { "LD_AUDIT", "it changes every command that vxa or an agent runs" },
}

-- What vxa removes for itself.
local function check_removed_variables(self, before)
    for _, name in ipairs(environment.NPROC_VARIABLES) do
        if before[name] then
            self:add("warning", "environment", name, "'%s' changes what nproc prints; vxa removes "
                .. "it, an agent has to", before[name])
        end
    end
    if before.has_comma then
        self:add("warning", "environment", "LC_NUMERIC", "the locale has a decimal comma: the "
            .. "module reads no load from uptime and 0.5 in %s as 0; vxa sets LC_ALL=C.UTF-8, an "
            .. "agent has to", policy_source.CONF_PATH)
    end
end

local function check_engine_name(self)
    local name, known = os.getenv "VXI_ENGINE" or "", self.vxa.engines()
    for _, engine in ipairs(known) do
        if engine == name then return end
    end
    if name ~= "" then
        self:add("error", "environment", "VXI_ENGINE", "unknown engine '%s'; known engines: %s",
            name, table.concat(known, ", "))
    end
end

local function check_variables(self, before)
    for _, row in ipairs(VARIABLES) do
        local value = os.getenv(row[1]) or ""
        if value ~= "" then
            self:add("warning", "environment", row[1], "'%s': %s", value, row[2])
        end
    end
    check_engine_name(self)
    local valid, message = self.vxa.check_environment()
    if not valid then
        self:add("error", "environment", message:match("^VXI_%u+"), "%s", message)
    end
    check_removed_variables(self, before)
    local preloaded = self.vxa.read_file("/etc/ld.so.preload", MOST_BYTES)
    if preloaded and preloaded:find("%S") then
        self:add("warning", "/etc/ld.so.preload", nil, "it changes every command of this machine")
    end
end

-- ---- PATH ---------------------------------------------------------------------------------

-- An agent runs both commands through the shell in the environment that it was started in. Without
-- PATH, the shell uses the standard directories.
local function check_path(self, before)
    if not before.PATH then return end
    for _, name in ipairs { "uptime", "nproc" } do
        if not environment.has_command(self.vxa, before.PATH, name) then
            self:add("warning", "environment", "PATH", "no directory in it has %s: an agent with "
                .. "this PATH cannot read the load, and the shell reports \"%s: not found\" at "
                .. "every cycle", name, name)
        end
    end
    for directory in (before.PATH .. ":"):gmatch("([^:]*):") do
        if directory:sub(1, 1) ~= "/" then
            self:add("warning", "environment", "PATH", "'%s' in it is relative: whoever can write "
                .. "to the current directory chooses what an agent runs", directory)
        end
    end
end

-- What the module reads from the two commands here.
local function check_commands(self, measured)
    if measured.simulated then return end
    for _, row in ipairs { { "uptime", measured.uptime_path, measured.load, "load average" },
                           { "nproc", measured.nproc_path, measured.cpus, "number" } } do
        local name, path, value, what = table.unpack(row)
        if not path then
            self:add("error", name, nil, "not found in PATH=%s: no cycle can read the load",
                os.getenv("PATH"))
        elseif not value or value < 0 then
            self:add("error", path, nil, "prints no %s: no cycle can read the load", what)
        end
    end
    if not measured.total_kb or not measured.free_kb then
        self:add("error", "/proc/meminfo", nil, "has no MemTotal and MemFree: no cycle can read "
            .. "the memory")
    end
end

-- ---- files --------------------------------------------------------------------------------

local ENOENT = 2  -- errno value
local STICKY, GROUP_WRITE, OTHERS_WRITE = 512, 16, 2

local function has_bit(mode, bit)
    return math.floor(mode / bit) % 2 == 1
end

-- Returns who else can change a file, or replace what a directory has; nil if nobody can.
local function writers(status, euid)
    if status.owner ~= 0 and status.owner ~= euid then
        return ("user ID %d, its owner,"):format(status.owner)
    end
    if has_bit(status.mode, STICKY) then return nil end
    if has_bit(status.mode, OTHERS_WRITE) then return "every user" end
    if has_bit(status.mode, GROUP_WRITE) then return "its group" end
end

local function check_configuration(self)
    local path = policy_source.CONF_PATH
    local status = self.vxa.file_status(path)
    if not status and self.vxa.file_kind(path) == "link" then
        self:add("warning", path, nil, "is a link to nothing: the module finds no settings")
    end
    if not status or status.kind ~= "file" then return end
    local root = 0
    if writers(status, root) then
        self:add("warning", path, nil, "%s can change when the filter stops enforcing",
            writers(status, root))
    end
end

local function check_state(self, path)
    if not path then return end
    local status, message, code = self.vxa.file_status(path)
    if not status then
        if code ~= ENOENT then
            self:add("error", path, nil, "cannot be used: %s", inspection.reason(path, message))
        end
    elseif status.kind ~= "directory" then
        self:add("error", path, nil, "is a %s, not a directory", status.kind)
    elseif writers(status, self.vxa.euid()) then
        self:add("warning", path, nil, "%s can replace what vxa keeps in it",
            writers(status, self.vxa.euid()))
    end
end

-- ---- signals and clock --------------------------------------------------------------------

-- SIGHUP is signal 1, the lowest bit of the mask.
local function check_signals(self)
    local status = self.vxa.read_file("/proc/self/status", MOST_BYTES) or ""
    local ignored = tonumber(status:match("\nSigIgn:%s*%x*(%x)\n") or "0", 16)
    if ignored % 2 == 1 then
        self:add("warning", "signals", "SIGHUP", "is ignored (nohup): vxa run cannot reload its "
            .. "policy")
    end
end

local EARLIEST = 1704067200  -- 2024-01-01

local function check_clock(self)
    local now = os.date("!%Y-%m-%d %H:%M:%S UTC")
    if self.vxa.time() < EARLIEST then
        self:add("warning", "clock", nil, "it is not set (%s): setting it later ends fail-open or "
            .. "counts as a long interval", now)
    end
end

-- ---- module and engine --------------------------------------------------------------------

-- The module logs the settings in force there.
local function check_log_directory(self)
    local path = messages.LOG_DIRECTORY
    local status, message, code = self.vxa.file_status(path)
    if status and status.kind ~= "directory" or not status and code ~= ENOENT then
        local reason = message or "it is a " .. status.kind
        self:add("warning", path, nil, "the settings in force are not logged: %s", reason)
    end
end

-- `load_filter`: loads the module fc, or raises an error.
local function check_module(self, load_filter)
    local loaded, err = pcall(load_filter)
    if loaded then return end
    self:add("error", "fc", nil, "%s", type(err) == "table" and err.message or tostring(err))
end

local function check_engine(self, measured)
    local file = "engine " .. measured.engine
    if measured.driver_error then
        self:add("error", file, nil, "does not answer: %s", measured.driver_error)
    end
    for _, row in ipairs(measured.capabilities) do
        if not row.available then
            self:add("warning", file, row.name, "is not available: %s", row.detail)
        end
    end
end

-- Returns findings, each with the `file` that it is about. `before` is what remember() returned,
-- `measured` what machine.measure did, `state` the directory of --state or nil, `load_filter` a
-- function that loads the module fc or raises an error.
function surroundings.inspect(vxa, before, measured, state, load_filter)
    local self = setmetatable({ vxa = vxa, findings = health_policy.findings(true) }, Surroundings)
    check_variables(self, before)
    check_path(self, before)
    check_commands(self, measured)
    check_configuration(self)
    check_state(self, state)
    check_signals(self)
    check_clock(self)
    check_log_directory(self)
    check_module(self, load_filter)
    check_engine(self, measured)
    return self.findings
end

return surroundings
