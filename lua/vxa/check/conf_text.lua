-- Reads the text of /etc/vx_filter.conf as the module does, and finds what it ignores or misreads.
-- The kinds of findings are described in health_policy.lua.

local health_policy = require "health_policy"

local conf_text = {}

local by_name = {}  -- by either name in capitals
for _, setting in ipairs(health_policy.settings) do
    by_name[setting.conf], by_name[setting.key] = setting, setting
end

local LONGEST_QUOTED = 30

local function quote(text)
    text = text:match("^%s*(.-)%s*$")
    return "'" .. (#text <= LONGEST_QUOTED and text or text:sub(1, LONGEST_QUOTED) .. "...") .. "'"
end

-- Returns the setting whose line this is for the module.
local function setting_of(line)
    local setting = by_name[line:match("^([%u_]+)=")]
    return setting and line:find(setting.conf, 1, true) == 1 and setting or nil
end

-- ---- values -----------------------------------------------------------------------------

-- Why there is no number: pattern of the text after "=" in small letters, hint.
local NO_NUMBER = {
    { "^%s*$", "the value is missing" },
    { "^%s*[\"']", "write the number without quotes" },
    { "^%s*[{%[]", "JSON is for policies" },
    { "^%s*=", "write one '='" },
    { "^%s*[$`]", "there are no variables" },
    { "^%s*[#;]", "the value is missing" },
    { "^%s*[^%c%d]*[\128-\255]", "there are characters outside ASCII in front of the number" },
    { "^%s*true%f[%W]", "write 1" },
    { "^%s*yes%f[%W]", "write 1" },
    { "^%s*on%f[%W]", "write 1" },
    { "^%s*false%f[%W]", "leave the line out" },
    { "^%s*no%f[%W]", "leave the line out" },
    { "^%s*off%f[%W]", "leave the line out" },
    { "^%s*[<>]", "write the number alone" },
}

-- What follows a number: pattern, severity, hint.
local AFTER_NUMBER = {
    { "^,%d%d%d%f[%D]", "error", "numbers have no separators of thousands" },
    { "^,%d", "error", "the decimal mark is a point" },
    { "^[ '_]%d", "error", "numbers have no separators of thousands" },
    { "^[;,%s]*[%a_]+%s*=", "error", "each setting has its own line" },
    { "^%s*[#;/]", "warning", "write comments on lines of their own" },
    { "^%s*%%", "warning", "units are not read" },
    { "^%s*%a+%s*$", "warning", "units are not read" },
    { "^%s*[\"']", "warning", "write the number alone" },
}

-- A number in single precision.
local function shown(number)
    return (number == math.floor(number) and "%.0f" or "%.7g"):format(number)
end

-- Returns the first row whose pattern matches, else an empty one.
local function hint_for(rows, text)
    for _, row in ipairs(rows) do
        if text:find(row[1]) then return row end
    end
    return {}
end

-- Why a number is out of bounds, as far as that is not plain. `written`: its characters.
local function why_out_of_bounds(number, written, rest)
    local exact = tonumber(written)
    if number == 0 and rest:find("^,%d") then return "the decimal mark is a point" end
    if number == 0 and rest:find("^[xX]") then return "a hexadecimal number has digits after 0x" end
    if number == 0 and exact and exact ~= 0 then
        return "too small: the module reads numbers in single precision"
    end
    if number == math.huge and exact and exact ~= number then
        return "too large: the module reads numbers in single precision"
    end
    return health_policy.why_out_of_bounds(number)
end

-- ---- the reader ---------------------------------------------------------------------------

local Reader = {}
Reader.__index = Reader

function Reader:add(finding)
    finding.at = finding.at or self.at + #self.line:match("^%s*")
    self.findings:add(finding)
end

-- Adds what is worth mentioning about a number that the module accepts.
function Reader:check_notation(setting, number, written, rest, at)
    local after = hint_for(AFTER_NUMBER, rest)
    local function add(severity, message, hint)
        self:add { detail = true, severity = severity, at = at, key = setting.conf,
                   lead = setting.conf .. ": ", message = message, hint = hint }
    end
    if rest:find("%S") then
        add(after[2] or "error", ("%s is read as %s"):format(quote(written .. rest), shown(number)),
            after[3] or "the rest of the line is ignored")
    elseif written:find("[xX]") then
        add("warning", ("%s is hexadecimal, %s"):format(quote(written), shown(number)))
    elseif (tonumber(written) or number) > setting.max then
        add("warning", ("%s is read as %s"):format(quote(written), shown(number)),
            "the module reads numbers in single precision")
    end
end

-- Several valid lines for a setting: the last one counts.
function Reader:check_repeated(setting, value)
    local earlier = self.values[setting.key]
    if not earlier then return end
    local line = self.lines[setting.key]
    self:add { detail = true, severity = earlier == value and "warning" or "error",
               key = setting.conf, lead = setting.conf .. " ",
               message = ("is set again; %s of line %d no longer counts"):format(shown(earlier),
                   line) }
end

-- Returns the number as it was written, before it lost digits in single precision, unless the
-- module takes it for a whole or an infinite number.
local function unrounded(number, written)
    return number % 1 ~= 0 and number < math.huge and tonumber(written) or number
end

-- Unlike in a policy, zero is out of bounds for every setting.
function Reader:read_setting(setting, number, after_number)
    local value = self.line:sub(#setting.conf + 2)
    local at = self.at + #setting.conf + 1
    if not number then
        local reason = hint_for(NO_NUMBER, value:lower())[2]
            or ("%s is not a number"):format(quote(value))
        self:add { at = at, key = setting.conf, lead = setting.conf .. " ",
                   message = "has no number; the line is ignored",
                   hint = ("%s; allowed: above 0 to %d"):format(reason, setting.max) }
        return
    end
    local written = self.line:sub(#setting.conf + 2, after_number - 1):match("^%s*(.*)")
    local rest = self.line:sub(after_number)
    local exact = unrounded(number, written)
    if number > 0 and number <= setting.max then
        local effective = health_policy.effective(setting, setting.threshold and number or exact,
            self.findings, setting.conf, at)
        self:check_repeated(setting, effective)
        self:check_notation(setting, number, written, rest, at)
        self.values[setting.key], self.positions[setting.key] = effective, self.at
        self.lines[setting.key] = self.line_number
    else
        self:add { at = at, key = setting.conf, lead = setting.conf .. " ",
                   message = ("%.14g is out of bounds (above 0 to %d); the line is ignored")
                       :format(exact, setting.max),
                   hint = why_out_of_bounds(number, written, rest) }
    end
end

-- ---- other lines --------------------------------------------------------------------------

-- Why a line that names a setting does not set it: pattern, hint.
local MISPLACED = {
    { "^%s", "there are blanks in front of it" },
    { "^[%w_]+%s", "there are blanks in front of '='" },
    { "%l", "it has small letters" },
}

-- Lines without "=" after a name: pattern; severity and message, none if the line means nothing.
local FOREIGN_LINES = {
    { "^%s*$" },
    { "^%s*[#;]" },
    { "^%s*//" },
    { "^\239\187\191%s*$" },
    { "^\239\187\191%s*[#;]" },
    { "^\239\187\191", "error", "a byte order mark is in front of it" },
    { "^%s*export%s", "error", "this is not a shell script: leave out 'export'" },
    { "^%s*set%s", "error", "this is not a shell script: leave out 'set'" },
    { "^%s*%[[^%]]*%]%s*$", "warning", "there are no sections" },
    { "^%s*<", "error", "XML is not read" },
}

-- A line in which a setting's name is followed by something else than "=".
local function find_name(line)
    local name, mark = line:match("^%s*[\"'%-]*%s*([%w_]+)[\"']?%s*([:%d]?)")
    if name and by_name[name:upper()] then return name, mark end
end

function Reader:check_foreign_line(raw)
    local line = self.line
    local function add(severity, message, key)
        self:add { detail = true, severity = severity, key = key, message = message,
                   lead = key and key .. ": " or "", effect = "; it is ignored" }
    end
    if raw:find("^%z[^\n]") then add("error", "a NUL byte begins the line") end
    local known = hint_for(FOREIGN_LINES, line)
    if known[2] then add(known[2], known[3]) end
    if known[1] then return end
    local name, mark = find_name(line)
    if name then
        add("error", mark == ":" and "write '=', not ':'" or "there is no '=' after it", name)
    elseif self.continues then
        return
    elseif line:find("[\128-\255]") and line:find("=") then
        add("error", "there are characters outside ASCII in front of '='")
    else
        add("warning", "the line is neither NAME=NUMBER nor a comment (#)")
    end
end

-- Finds lines that the module ignores although their author meant to set something.
function Reader:check_other_line(raw)
    if self.is_utf16 then return end
    local line = self.line
    local name = line:match("^%s*([%w_]+)%s*=")
    local setting = name and by_name[name:upper()]
    if line:find('^%s*{?%s*"[%w_]+"%s*:') then
        self:add { message = "JSON is for --policy; this file has lines NAME=NUMBER" }
    elseif setting and setting.conf == name:upper() then
        local capitals = name:upper()
        self:add { key = capitals, lead = capitals .. "= ",
                   message = "must start the line, in capitals and without spaces; it is ignored",
                   hint = hint_for(MISPLACED, line)[2] }
    elseif name then
        self.findings:add_unknown(name, self.at + #line:match("^%s*"), "conf",
            setting and "that is its name in a policy")
    else
        self:check_foreign_line(raw)
    end
end

-- ---- lines --------------------------------------------------------------------------------

local LONGEST_LINE = 1023  -- bytes, with the line feed

-- What the module does not see of a line.
function Reader:check_extent(raw, setting)
    local function add(severity, message)
        self:add { detail = true, severity = severity, at = self.at, message = message,
                   key = setting and setting.conf, lead = setting and setting.conf .. ": " or "" }
    end
    if raw:find("%z[^\n]") and self.line ~= "" then
        add("error", "the line has a NUL byte; the module does not read what follows it")
    end
    if raw:find("\r[^\n]") then
        add("error", "carriage returns alone do not end lines; the module reads one line")
    end
    if self.continues and setting then
        add("error", "the module reads lines in pieces of 1023 bytes, and one begins here")
    elseif not self.continues and #raw == LONGEST_LINE and raw:byte(-1) ~= 10
        and self.at + #raw <= #self.text then
        add("warning", "the line has more than 1023 bytes; the module reads the rest as more lines")
    end
end

-- Whether each letter is followed or preceded by a NUL.
local function is_utf16(text)
    return text:find("^\255\254") or text:find("^\254\255") or text:find("^%Z%z%Z%z")
        or text:find("^%z%Z%z%Z")
end

-- Returns the settings that the module finds, and the positions of their lines by key.
function conf_text.read(vxa, text, findings)
    local self = setmetatable({ text = text, findings = findings, values = {}, positions = {},
                                lines = {}, at = 1, line_number = 1,
                                is_utf16 = is_utf16(text) }, Reader)
    if self.is_utf16 then
        findings:add { detail = true, at = 1,
                       message = "the text is UTF-16; the module reads single bytes" }
    end
    while self.at <= #text do
        local line, number, next_at, after_number = vxa.conf_line(text, self.at)
        local raw = text:sub(self.at, next_at - 1)
        local setting = setting_of(line)
        self.line = line
        if not self.is_utf16 then self:check_extent(raw, setting) end
        if setting then
            self:read_setting(setting, number, after_number)
        else
            self:check_other_line(raw)
        end
        self.continues = raw:byte(-1) ~= 10
        if not self.continues then self.line_number = self.line_number + 1 end
        self.at = next_at
    end
    findings:place(text)
    return self.values, self.positions
end

return conf_text
