-- The settings of a health policy, and a check for mistakes in one.
--
-- The module silently ignores unknown names and values out of bounds, and reads a number in
-- quotes as 0. So check a policy before the module gets it:
--
--     local health_policy = require "health_policy"
--     local settings, warnings = health_policy.check(text)
--     if not settings then log("policy refused: " .. warnings) end
--
-- For an editor or a build, `inspect` returns every finding with its place.
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

-- Returns the setting with this name in a policy, or nil.
function health_policy.find(name)
    return by_lower_key[name:lower()]
end

-- ---- findings ---------------------------------------------------------------------------

-- A finding is a table:
--
-- severity     "error": the module ignores it or reads something else than is written;
--              "warning": it is read, but probably not as meant
-- at           its position in the text; place() adds `line` and `column`, which counts characters
-- key          the name of the setting or member; nil if it is about something else
-- lead         the beginning of its sentence, which names the key, or ""
-- message      the rest of the sentence
-- effect       what the module does then, or ""
-- hint         the reason, or what to write instead, or ""
-- suggestion   the name that was probably meant, or nil
-- detail       true for what inspect() finds and check() does not
-- wrong_type   true if check() refuses it unless it is lenient

-- A text can have a hundred thousand members, so check() ends its list with "and N more".
local MOST_WARNINGS = 20
local MOST_FINDINGS = 200

local Findings = {}
Findings.__index = Findings

-- Returns an empty list, which keeps the first findings and counts the others; without details
-- unless `detailed`.
function health_policy.findings(detailed)
    return setmetatable({ most = detailed and MOST_FINDINGS or MOST_WARNINGS, detailed = detailed,
                          error = 0, warning = 0, wrong_types = 0 }, Findings)
end

function Findings:count()
    return self.error + self.warning
end

-- An error has room in a full list that has a warning, which it displaces.
function Findings:has_room(severity)
    return #self < self.most or severity == "error" and self.error < self.most
end

local function remove_last_warning(findings)
    local last = #findings
    while findings[last].severity ~= "warning" do last = last - 1 end
    table.remove(findings, last)
end

-- Makes room for more findings, however many there are.
function Findings:make_room(count)
    self.most = math.max(self.most, #self + count)
end

local DEFAULTS = { __index = { severity = "error", lead = "", effect = "", hint = "" } }

function Findings:add(finding)
    if finding.detail and not self.detailed then return end
    setmetatable(finding, DEFAULTS)
    local is_listed = self:has_room(finding.severity)
    self[finding.severity] = self[finding.severity] + 1
    if finding.wrong_type then
        self.wrong_types = self.wrong_types + 1
        self.first_wrong_type = self.first_wrong_type or finding
    end
    if not is_listed then return end
    if #self == self.most then remove_last_warning(self) end
    self[#self + 1] = finding
end

-- Returns a finding's sentence, as check() has it. It ends with the suggestion.
function health_policy.sentence(finding)
    local meant = finding.suggestion
    return finding.lead .. finding.message .. finding.effect
        .. (meant and (" (did you mean '%s'?)"):format(meant) or "")
end

-- Returns the sentences as an array; with `numbered`, after the numbers of their lines.
function Findings:sentences(numbered)
    local sentences = {}
    for i, finding in ipairs(self) do
        sentences[i] = (numbered and ("line %d: "):format(finding.line) or "")
            .. health_policy.sentence(finding)
    end
    local rest = self:count() - #self
    if rest > 0 then sentences[#sentences + 1] = ("and %d more"):format(rest) end
    return sentences
end

-- Sorts the findings by position, those without one last, and adds their lines and columns.
function Findings:place(text)
    for i, finding in ipairs(self) do finding.order = i end
    table.sort(self, function(a, b)
        local first, second = a.at or math.huge, b.at or math.huge
        if first == second then return a.order < b.order end
        return first < second
    end)
    local place = strict_json.places(text)
    for _, finding in ipairs(self) do
        if finding.at then finding.line, finding.column = place(finding.at) end
    end
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
            local most = math.min(math.max(#name, #candidate) / 4, (best_distance or 100) - 1)
            -- At least as many changes as the lengths differ by.
            local changes = math.abs(#name - #candidate) <= most
                and distance(name:upper(), candidate)
            if changes and changes <= most then best, best_distance = setting, changes end
        end
    end
    return best
end

-- Adds a finding about an unknown name and suggests a setting. `field` is how settings are named
-- in this text: "key" in a policy, "conf" in the configuration file.
function Findings:add_unknown(name, at, field, hint)
    local similar = self:has_room("error") and #name <= LONGEST_SHOWN and most_similar(name)
    self:add { at = at, key = shorten(name), lead = ("'%s' "):format(shorten(name)),
               message = "is not a setting; it is ignored", hint = hint,
               suggestion = similar and similar[field] or nil }
end

-- ---- members ----------------------------------------------------------------------------

-- Returns the first member "value", which the module takes, and the next one.
local function value_of(threshold)
    local found
    for _, member in ipairs(threshold.members or {}) do
        if member.key:lower() == "value" then
            if found then return found.value, member end
            found = member
        end
    end
    return found and found.value
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

-- Returns the values that a setting can have: "above 0 to 200".
function health_policy.range(setting)
    return ("%s to %d"):format(setting.threshold and "above 0" or "0", setting.max)
end

-- Returns the reason for which a number is out of bounds, as far as it is not plain.
function health_policy.why_out_of_bounds(number)
    if number ~= number then return "'nan' is not a value" end
    if number == math.huge then return "infinite, or too large a number" end
    if number < 0 then return "a value is not negative" end
    if number == 0 then return "to switch a setting off, leave it out" end
end

-- Returns what the module makes of a number within bounds: plain numbers lose their fraction.
function health_policy.effective(setting, number, findings, name, at)
    if setting.threshold or number == math.floor(number) then return number end
    findings:add { at = at, key = name, lead = name .. ": ",
                   message = ("%.14g counts as %d"):format(number, math.floor(number)) }
    return math.floor(number)
end

-- The module looks for nothing but "value" in a threshold.
local function check_other_members(key, threshold, findings)
    for _, member in ipairs(findings.detailed and threshold.members or {}) do
        local name = member.key:lower()
        if name ~= "value" then
            findings:add { detail = true, at = member.at, key = key .. "." .. shorten(member.key),
                           message = "is not read: a threshold has nothing but \"value\"",
                           suggestion = distance(name, "value") <= 2 and "value" or nil }
        end
    end
end

local function add_wrong_type(setting, value, findings)
    findings:add { wrong_type = true, at = value.at, key = setting.key, lead = setting.key .. " ",
                   message = ("must be %s, not %s"):format(expected(setting, value),
                       describe_member(value)),
                   effect = setting.threshold and "; it is ignored" or "; it counts as 0",
                   hint = "allowed: " .. health_policy.range(setting) }
end

-- Returns the number that the module takes for this setting, or nil.
local function check_member(setting, value, findings)
    local source, again = value, nil
    if setting.threshold then
        check_other_members(setting.key, value, findings)
        source, again = value_of(value)
    end
    if not source or source.type ~= "number" then
        add_wrong_type(setting, value, findings)
        return not setting.threshold and 0 or nil
    end
    if again then
        findings:add { at = again.at, key = setting.key, lead = setting.key .. " ",
                       message = "has its value repeated; the first counts" }
    end
    if health_policy.in_bounds(setting, source.value) then
        return health_policy.effective(setting, source.value, findings, setting.key, source.at)
    end
    findings:add { at = source.at, key = setting.key, lead = setting.key .. ": ",
                   message = ("%.14g is out of bounds (%s); it is ignored"):format(
                       source.value, health_policy.range(setting)),
                   hint = health_policy.why_out_of_bounds(source.value) }
end

-- Returns a hint for a member with an unknown name.
local function why_unknown(member)
    if member.key:find("^%s") or member.key:find("%s$") then
        return "the blanks belong to the name"
    end
    for _, inner in ipairs(member.value.members or {}) do
        if health_policy.find(inner.key) then
            return ("'%s' in it belongs to the top level of the policy"):format(shorten(inner.key))
        end
    end
end

-- Returns the settings, and the positions of their names by key.
local function check_members(members, findings)
    local settings, positions = {}, {}
    for _, member in ipairs(members) do
        local setting = health_policy.find(member.key)
        if not setting then
            findings:add_unknown(member.key, member.at, "key", why_unknown(member))
        elseif positions[setting.key] then
            findings:add { at = member.at, key = setting.key,
                           lead = ("'%s' "):format(member.key),
                           message = "is repeated; the first counts" }
        else
            positions[setting.key] = member.at
            settings[setting.key] = check_member(setting, member.value, findings)
        end
    end
    return settings, positions
end

-- ---- the whole policy -------------------------------------------------------------------

-- Recognizes the syntax of /etc/vx_filter.conf: returns a message, line, column and position, or
-- nothing.
local function find_conf_syntax(text)
    local at, name = ("\n" .. text):match("\n[ \t]*()([%w_]+)[ \t]*=")
    if not at or not (name:find("^SYSTEM_") or name:find("^SYS_")) then return end
    local line, column = strict_json.place(text, at - 1)
    return "a policy is JSON; NAME=NUMBER is the syntax of /etc/vx_filter.conf", line, column,
        at - 1
end

-- Returns the members; or nil, a message, line, column and position.
local function parse(text, tolerate)
    local policy, message, line, column, at = strict_json.parse(text, tolerate)
    if not policy then
        local found, other_line, other_column, other_at = find_conf_syntax(text)
        if found then return nil, found, other_line, other_column, other_at end
        return nil, message, line, column, at
    end
    if policy.type == "object" then return policy.members end
    return nil, "a policy is a JSON object: {...}", 1, 1, 1
end

-- Returns the settings that will be in force, numbers by their keys, and an array of warnings,
-- one for each member that is ignored (at most 20 and "and N more"). Returns nil and a message if
-- the policy is not JSON or a member has the wrong type. The module reads a plain number of the
-- wrong type as 0 and ignores such a threshold; with `lenient`, so does this, with a warning.
function health_policy.check(text, lenient)
    local members, message, line, column = parse(text)
    if not members then return nil, ("line %d, column %d: %s"):format(line, column, message) end
    local findings = health_policy.findings()
    local settings = check_members(members, findings)
    if lenient or findings.wrong_types == 0 then return settings, findings:sentences() end
    local first, rest = findings.first_wrong_type, findings.wrong_types - 1
    return nil, first.lead .. first.message .. (rest > 0 and (" (and %d more)"):format(rest) or "")
end

-- Returns what the module reads, even from a text that check() refuses: the settings, nil if it
-- ignores the whole text; the list of findings, in the order of the text (at most 200, errors
-- rather than warnings; `error` and `warning` are the numbers of all); and the positions of the
-- settings by key.
function health_policy.inspect(text)
    local findings = health_policy.findings(true)
    local members, message, _, _, at = parse(text, function(place, deviation)
        findings:add { detail = true, at = place, message = deviation,
                       effect = "; the module accepts it, vxa refuses it" }
    end)
    local settings, positions
    if members then
        settings, positions = check_members(members, findings)
    else
        findings = health_policy.findings(true)
        findings:add(text == "" and { at = 1, message = "the text is empty: for an empty policy "
            .. "the module reads /etc/vx_filter.conf" }
            or { at = at, message = message, effect = "; the module ignores the whole policy" })
    end
    findings:place(text)
    return settings, findings, positions
end

return health_policy
