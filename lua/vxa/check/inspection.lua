-- What the module reads in a policy or a configuration file, and what it ignores there.
--
-- An inspection is a table:
--
-- file         the name to show
-- format       "policy" or "conf"
-- readable     false if there is nothing to judge: no text, or one that the module ignores
-- settings     the numbers in force by policy key
-- positions    where the text has them, by policy key
-- findings     see health_policy.lua

local conf_text = require "vxa.check.conf_text"
local health_policy = require "health_policy"
local policy_source = require "vxa.policy_source"

local inspection = {}

-- ---- formats ------------------------------------------------------------------------------

-- Files that people mistake for one of the two: beginning, name.
local MAGIC = {
    { "PK\3\4", "a zip archive" }, { "\127ELF", "a program" }, { "\31\139", "a gzip file" },
    { "BZh", "a bzip2 file" }, { "\253" .. "7zXZ", "an xz file" }, { "%PDF", "a PDF document" },
    { "\137PNG", "a picture" },
}

local function magic_of(text)
    for _, row in ipairs(MAGIC) do
        if text:sub(1, #row[1]) == row[1] then return row[2] end
    end
end

-- Recognizes the format by the first line that is neither empty nor a comment, and if that is not
-- clear by the file's name.
function inspection.format_of(text, path)
    local plain = text:gsub("^[\239\255\254]?[\187\255\254]\191?", ""):gsub("%z", "")
    for line in plain:gmatch("[^\n]+") do
        line = line:match("^%s*(.*)")
        if line:find('^[{%[]') or line:find('^"[^"]*"%s*:') then return "policy" end
        if line:find("^[%w_]+%s*=") then return "conf" end
        if line ~= "" and not line:find("^[#;/]") then break end
    end
    return path:find("%.json$") and "policy" or "conf"
end

-- ---- texts --------------------------------------------------------------------------------

local function inspect_conf(vxa, text)
    local findings = health_policy.findings(true)
    local settings, positions = conf_text.read(vxa, text, findings)
    return settings, findings, positions
end

function inspection.of_text(vxa, text, format, file)
    local settings, findings, positions
    if format == "policy" then
        settings, findings, positions = health_policy.inspect(text)
    else
        settings, findings, positions = inspect_conf(vxa, text)
    end
    return { file = file, text = text, format = format, readable = settings ~= nil,
             settings = settings or {}, positions = positions or {}, findings = findings }
end

-- ---- files --------------------------------------------------------------------------------

local function unreadable(file, format, message)
    local findings = health_policy.findings(true)
    findings:add { message = message }
    return { file = file, format = format, readable = false, settings = {}, positions = {},
             findings = findings }
end

local ENOENT, EFBIG = 2, 27  -- errno values

-- Returns a system's message about a path without the path.
function inspection.reason(path, message)
    return message:sub(1, #path + 2) == path .. ": " and message:sub(#path + 3) or message
end

-- Returns why a file cannot be read, and what the module does then.
local function explain(vxa, path, message, code)
    message = inspection.reason(path, message)
    local status = vxa.file_status(path)
    if status and status.kind ~= "file" then
        return ("is a %s, not a file; the module finds no settings in it"):format(status.kind)
    end
    if code == EFBIG then message = message .. "; vxa does not read it, the module does" end
    return "cannot be read: " .. message
end

-- Reads and inspects a file. `format`: nil to recognize it.
function inspection.of_file(vxa, path, format)
    local text, message, code = vxa.read_file(path, policy_source.MOST_BYTES)
    if not text then
        return unreadable(path, format, explain(vxa, path, message, code))
    end
    local magic = not format and magic_of(text)
    if magic then
        return unreadable(path, format, ("this is %s, not a policy or %s"):format(magic,
            policy_source.CONF_PATH))
    end
    -- The module reads this file as a configuration, whatever is in it.
    local is_conf = path == policy_source.CONF_PATH and "conf"
    return inspection.of_text(vxa, text, format or is_conf or inspection.format_of(text, path),
        path)
end

-- ---- the policy of vxa run ----------------------------------------------------------------

-- Inspects the policy that vxa run would use with these options. `cpus`: for the default policy.
function inspection.in_use(vxa, options, cpus)
    local subject
    if options.policy then
        subject = inspection.of_file(vxa, options.policy, "policy")
    elseif select(3, vxa.file_status(policy_source.CONF_PATH)) ~= ENOENT then
        subject = inspection.of_file(vxa, policy_source.CONF_PATH, "conf")
    else
        subject = inspection.of_text(vxa, policy_source.built_in(cpus).text, "policy",
            "built-in default")
        subject.positions = {}
    end
    if not options.port or not subject.readable then return subject end
    local additions = policy_source.port_settings(subject.settings, options.port, options.outbound)
    for key, value in pairs(additions) do
        subject.settings[key], subject.positions[key] = value, nil
    end
    return subject
end

return inspection
