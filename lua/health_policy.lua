-- The settings of a health policy, and a check for mistakes in one.
--
-- The module silently ignores unknown names and values out of bounds, and reads a number in
-- quotes as 0. So check a policy before the module gets it:
--
--     local health_policy = require "health_policy"
--     local settings, warnings = health_policy.check(text)
--     if not settings then log("policy refused: " .. warnings) end
--
-- Needs only strict_json.lua.

local strict_json = require "strict_json"

local health_policy = {}

-- All settings. `key` is the name in a policy, `conf` in /etc/vx_filter.conf, `max` the largest
-- value. In a policy a `threshold` is an object, {"SYS_THR_RUNQ": {"value": 8}}, and any other
-- setting a plain number. A threshold with `needs_port` disables monitoring if no port is set.
health_policy.settings = {
    { key = "SYS_CONF_CONN_REFUSAL_PORT", conf = "SYSTEM_CONNECTION_REFUSAL_PORT", max = 65535 },
    { key = "SYS_CONF_CONN_REFUSAL_OUTBOUND", conf = "SYSTEM_CONNECTION_REFUSAL_OUTBOUND",
      max = 1 },
    { key = "SYS_CONF_RECOVER_FACTOR", conf = "SYSTEM_RECOVERY_FACTOR", max = 100 },
    { key = "SYS_CONF_MIN_ACT_DURATION", conf = "SYSTEM_MIN_ACT_DURATION", max = 60 },
    { key = "SYS_THR_CONN_REFUSAL_PCT", conf = "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD", max = 100,
      threshold = true, needs_port = true },
    { key = "SYS_THR_RUNQ", conf = "SYSTEM_RUNQ_PCT_THRESHOLD", max = 200, threshold = true },
    { key = "SYS_THR_CONN_EST_PER_CPU", conf = "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU",
      max = 10000000, threshold = true, needs_port = true },
    { key = "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", conf = "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU",
      max = 100000, threshold = true, needs_port = true },
    { key = "SYS_THR_FREE_MEM", conf = "SYSTEM_MIN_FREE_MEM_PCT", max = 25, threshold = true },
    { key = "SYS_THR_MAX_ITERATION_INVL", conf = "SYSTEM_MAX_ITERATION_INTERVAL", max = 60,
      threshold = true },
    { key = "SYS_CONF_UNLOAD_DRIVER", conf = "SYSTEM_UNLOAD_DRIVER", max = 1 },
}

-- The module ignores the case of member names.
local by_lower_key = {}
for _, setting in ipairs(health_policy.settings) do by_lower_key[setting.key:lower()] = setting end

-- ---- lists of complaints ----------------------------------------------------------------

-- A policy can have a hundred thousand members, so a list ends with "and N more".
local MOST_COMPLAINTS = 20

local Complaints = {}
Complaints.__index = Complaints

function health_policy.complaints()
    return setmetatable({ count = 0 }, Complaints)
end

function Complaints:has_room()
    return self.count < MOST_COMPLAINTS
end

function Complaints:add(format, ...)
    if self:has_room() then self[#self + 1] = format:format(...) end
    self.count = self.count + 1
end

-- Ends the list and returns it as a plain array.
function Complaints:close()
    local rest = self.count - MOST_COMPLAINTS
    if rest > 0 then self[#self + 1] = ("and %d more"):format(rest) end
    self.count = nil
    return setmetatable(self, nil)
end

-- ---- names ------------------------------------------------------------------------------

-- Returns the Levenshtein distance of two names.
local function distance(from, to)
    local row = {}
    for j = 0, #to do row[j] = j end
    for i = 1, #from do
        local diagonal = row[0]
        row[0] = i
        for j = 1, #to do
            local changed = diagonal + (from:byte(i) == to:byte(j) and 0 or 1)
            diagonal, row[j] = row[j], math.min(changed, row[j] + 1, row[j - 1] + 1)
        end
    end
    return row[#to]
end

local LONGEST_SHOWN = 60

local function shorten(text)
    return #text <= LONGEST_SHOWN and text or text:sub(1, LONGEST_SHOWN) .. "..."
end

-- Returns the setting with the name most similar to `name`, or nil if none is similar.
local function most_similar(name)
    local best, best_distance
    for _, setting in ipairs(health_policy.settings) do
        for _, candidate in ipairs { setting.key, setting.conf } do
            local changes = distance(name:upper(), candidate)
            local most = math.min(math.max(#name, #candidate) / 4, (best_distance or 100) - 1)
            if changes <= most then best, best_distance = setting, changes end
        end
    end
    return best
end

-- Adds a warning about an unknown name and suggests a setting. `field` is how settings are named
-- at this place: "key" in a policy, "conf" in the configuration file.
function Complaints:add_unknown(place, name, field)
    local similar = self:has_room() and #name <= LONGEST_SHOWN and most_similar(name)
    self:add("%s'%s' is not a setting; it is ignored%s", place, shorten(name),
        similar and (" (did you mean '%s'?)"):format(similar[field]) or "")
end

-- ---- members ----------------------------------------------------------------------------

-- Returns the first member "value", which the module takes, and whether there are several.
local function value_of(threshold)
    local found, again = nil, false
    for _, member in ipairs(threshold.members or {}) do
        if member.key:lower() == "value" then
            found, again = found or member.value, found ~= nil
        end
    end
    return found, again
end

local function as_number(value)
    return value.type == "number" and value.value
        or value.type == "string" and tonumber(value.value:match("^%s*(%d+%.?%d*)%s*$"))
end

-- Returns the correct form of a member, with the author's number if there is one.
local function expected(setting, value)
    local number = as_number(value_of(value) or value)
    local text = number and ("%.14g"):format(number)
    return setting.threshold and ('{"value": %s}'):format(text or "NUMBER") or text or "a number"
end

local TYPE_NAMES = { object = "an object", array = "an array" }

local function describe(value)
    if value.type == "number" then return ("%.14g"):format(value.value) end
    if value.type == "string" then return '"' .. shorten(value.value) .. '"' end
    return TYPE_NAMES[value.type] or value.type
end

local function describe_member(value)
    local inner = value_of(value)
    if inner then return ('{"value": %s}'):format(describe(inner)) end
    return describe(value) .. (value.type == "object" and ' without "value"' or "")
end

function health_policy.in_bounds(setting, number)
    if setting.threshold then return number > 0 and number <= setting.max end
    return number >= 0 and number <= setting.max
end

-- Returns what the module makes of a number within bounds: plain numbers lose their fraction.
function health_policy.effective(setting, number, warnings, name)
    if setting.threshold or number == math.floor(number) then return number end
    warnings:add("%s: %.14g counts as %d", name, number, math.floor(number))
    return math.floor(number)
end

-- Returns the number that the module takes for this setting, or nil. A member of the wrong type
-- is an error if `errors` is given, otherwise a warning that says what the module makes of it.
local function check_member(setting, value, errors, warnings)
    local source, again = value, false
    if setting.threshold then source, again = value_of(value) end
    if not source or source.type ~= "number" then
        local effect = setting.threshold and "; it is ignored" or "; it counts as 0"
        local list = errors or warnings
        list:add("%s must be %s, not %s%s", setting.key, expected(setting, value),
            describe_member(value), errors and "" or effect)
        return not setting.threshold and 0 or nil
    end
    if again then warnings:add("%s has its value repeated; the first counts", setting.key) end
    if health_policy.in_bounds(setting, source.value) then
        return health_policy.effective(setting, source.value, warnings, setting.key)
    end
    warnings:add("%s: %.14g is out of bounds (%s to %d); it is ignored", setting.key, source.value,
        setting.threshold and "above 0" or "0", setting.max)
end

local function check_members(members, lenient)
    local settings, seen, warnings = {}, {}, health_policy.complaints()
    local errors = not lenient and health_policy.complaints() or nil
    for _, member in ipairs(members) do
        local setting = by_lower_key[member.key:lower()]
        if not setting then
            warnings:add_unknown("", member.key, "key")
        elseif seen[setting] then
            warnings:add("'%s' is repeated; the first counts", member.key)
        else
            seen[setting] = true
            settings[setting.key] = check_member(setting, member.value, errors, warnings)
        end
    end
    if lenient or errors.count == 0 then return settings, warnings:close() end
    local rest = errors.count > 1 and (" (and %d more)"):format(errors.count - 1) or ""
    return nil, errors[1] .. rest
end

-- ---- the whole policy -------------------------------------------------------------------

-- Recognizes the syntax of /etc/vx_filter.conf: returns a message, line and column, or nothing.
local function find_conf_syntax(text)
    local at, name = ("\n" .. text):match("\n[ \t]*()([%w_]+)[ \t]*=")
    if not at or not (name:find("^SYSTEM_") or name:find("^SYS_")) then return end
    return "a policy is JSON; NAME=NUMBER is the syntax of /etc/vx_filter.conf",
        strict_json.place(text, at - 1)
end

local function parse(text)
    local policy, message, line, column = strict_json.parse(text)
    if policy then
        if policy.type == "object" then return policy end
        message, line, column = "a policy is a JSON object: {...}", 1, 1
    elseif find_conf_syntax(text) then
        message, line, column = find_conf_syntax(text)
    end
    return nil, ("line %d, column %d: %s"):format(line, column, message)
end

-- Returns the settings that will be in force, numbers by their keys, and an array of warnings,
-- one for each member that is ignored (at most 20 and "and N more"). Returns nil and a message if
-- the policy is not JSON or a member has the wrong type. The module reads a plain number of the
-- wrong type as 0 and ignores such a threshold; with `lenient`, so does this, with a warning.
function health_policy.check(text, lenient)
    local policy, message = parse(text)
    if not policy then return nil, message end
    return check_members(policy.members, lenient)
end

return health_policy
