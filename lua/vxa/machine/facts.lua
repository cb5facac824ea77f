-- What a package says about the machine and the process that made it.
--
-- `unknown(member, reason)` is called for each member that cannot be had; the member is null then.

local json_records = require "vxa.output.json_records"
local printable = require "vxa.output.printable"

local facts = {}

-- ---- distribution -------------------------------------------------------------------------

-- In the order of os-release(5).
local OS_RELEASE = { "/etc/os-release", "/usr/lib/os-release" }
local MOST_OS_RELEASE_BYTES = 65536
local LONGEST_VALUE = 256

-- Undoes the quoting of the shell, as far as os-release(5) allows it.
local function unquote(value)
    local quoted = value:match('^"(.*)"$')
    if quoted then return (quoted:gsub('\\([\\"$`])', "%1")) end
    return value:match("^'(.*)'$") or value
end

local function parse_os_release(text)
    local values = {}
    for line in text:gmatch("[^\n]+") do
        local name, value = line:match("^%s*([%u%d_]+)=(.-)%s*$")
        if name then values[name] = unquote(value) end
    end
    return values
end

-- Returns an empty table and the reason if there is no such file.
local function os_release(vxa)
    local first_message
    for _, path in ipairs(OS_RELEASE) do
        local text, message = vxa.read_file(path, MOST_OS_RELEASE_BYTES)
        if text then return parse_os_release(text), path .. " does not have it" end
        first_message = first_message or message
    end
    return {}, first_message
end

-- ---- capabilities -------------------------------------------------------------------------

-- By number, from 0; linux/capability.h.
local CAPABILITIES = {
    "chown", "dac_override", "dac_read_search", "fowner", "fsetid", "kill", "setgid", "setuid",
    "setpcap", "linux_immutable", "net_bind_service", "net_broadcast", "net_admin", "net_raw",
    "ipc_lock", "ipc_owner", "sys_module", "sys_rawio", "sys_chroot", "sys_ptrace", "sys_pacct",
    "sys_admin", "sys_boot", "sys_nice", "sys_resource", "sys_time", "sys_tty_config", "mknod",
    "lease", "audit_write", "audit_control", "setfcap", "mac_override", "mac_admin", "syslog",
    "wake_alarm", "block_suspend", "audit_read", "perfmon", "bpf", "checkpoint_restore",
}

local MOST_STATUS_BYTES = 65536

-- Returns the names of the bits of a hexadecimal number.
local function capability_names(hexadecimal)
    local names = json_records.array {}
    local digits = hexadecimal:reverse()
    for i = 1, #digits do
        local digit = tonumber(digits:sub(i, i), 16)
        for bit = 0, 3 do
            local number = 4 * (i - 1) + bit
            if digit % 2 == 1 then
                names[#names + 1] = "cap_" .. (CAPABILITIES[number + 1] or number)
            end
            digit = math.floor(digit / 2)
        end
    end
    return names
end

local function effective_capabilities(vxa)
    local text, message = vxa.read_file("/proc/self/status", MOST_STATUS_BYTES)
    if not text then return nil, message end
    local hexadecimal = text:match("\nCapEff:%s*(%x+)")
    if not hexadecimal then return nil, "/proc/self/status does not have CapEff" end
    return capability_names(hexadecimal)
end

-- ---- all ----------------------------------------------------------------------------------

-- Each gets `known(member, value, reason)`, which returns the value, or null with a note why.

local LIBRARIES = { "fc.so", "libvxa_core.so", "libvxi.so", "vxa.so" }

local function build_ids(vxa, known)
    local ids = json_records.object {}
    for _, name in ipairs(LIBRARIES) do
        ids[name] = known("build_ids." .. name, vxa.build_id(name),
            "the library was built without one")
    end
    return ids
end

local function host(vxa, known)
    local system, release, reason = vxa.uname(), os_release(vxa)
    local function released(member, name)
        local value = release[name] and printable(release[name]:sub(1, LONGEST_VALUE))
        return known("host." .. member, value, reason)
    end
    return {
        name = printable(system.host),
        kernel = printable(system.system .. " " .. system.release),
        kernel_build = printable(system.version), architecture = printable(system.machine),
        distribution = released("distribution", "PRETTY_NAME"),
        distribution_id = released("distribution_id", "ID"),
        distribution_version = released("distribution_version", "VERSION_ID"),
    }
end

-- Returns the user as the manifest has it; without `capabilities` if they are unknown.
function facts.user(vxa)
    return { uid = vxa.euid(), capabilities = effective_capabilities(vxa) }
end

-- Returns the members `build_ids`, `host` and `user` of the manifest.
function facts.collect(vxa, unknown)
    local function known(member, value, reason)
        if value then return value end
        unknown(member, printable(reason))
        return json_records.null
    end
    return {
        build_ids = build_ids(vxa, known), host = host(vxa, known),
        user = { uid = vxa.euid(),
                 capabilities = known("user.capabilities", effective_capabilities(vxa)) },
    }
end

return facts
