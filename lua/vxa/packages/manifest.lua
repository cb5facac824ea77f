-- The manifest of a diagnostic package: its form, and whether a package is what it describes.
-- docs/package.md has the members.

local json = require "dkjson"

local exit = require "vxa.exit"
local json_text = require "vxa.output.json_text"
local progress = require "vxa.output.progress"

local manifest = { NAME = "manifest.json", FORMAT = 1 }

-- Several times what a package needs. Names made to collide in Lua's string hash cost time that
-- grows with the square of their number: with this much, a second.
local MOST_BYTES = 524288
local null = json.null

-- The order of members within each object.
local KEY_ORDER = {
    "manifest", "redacted", "version", "build_ids", "start", "end", "time_zone", "host", "user",
    "name", "kernel", "kernel_build", "architecture", "distribution", "distribution_id",
    "distribution_version", "uid", "engine", "profile_s", "available", "detail", "capabilities",
    "policy", "source", "recorded", "settings", "warnings", "state", "directory", "in_use",
    "fail_open", "run_ended", "last_transition", "last_cycle", "events", "time", "id", "text",
    "failed_calls", "call", "status", "message", "failed_calls_dropped", "entries", "unknown",
    "member", "reason", "bytes", "sha256", "milliseconds", "original_problems", "problem",
}

function manifest.encode(content)
    return json_text.encode(content, { indent = true, keyorder = KEY_ORDER }) .. "\n"
end

-- Returns a value for json.encode that is written like a manifest, but in one line.
function manifest.in_one_line(content)
    local function encode() return json_text.encode(content, { keyorder = KEY_ORDER }) end
    return setmetatable({}, { __tojson = encode })
end

-- ---- reading ----------------------------------------------------------------------------

local function array(shape) return { array = shape } end

-- The type of each member, where null or a missing member will do unless a "!" follows.
local SHAPE = {
    manifest = "number!", redacted = "string", version = "string", build_ids = "object",
    start = "string", ["end"] = "string", time_zone = "string", engine = "string",
    profile_s = "number",
    host = { name = "string", kernel = "string", kernel_build = "string",
             architecture = "string", distribution = "string", distribution_id = "string",
             distribution_version = "string" },
    user = { uid = "number", capabilities = array "string!" },
    capabilities = array { name = "string!", available = "boolean!", detail = "string" },
    policy = { source = "string", recorded = "string", settings = "object",
               warnings = array "string!" },
    state = { directory = "string", in_use = "boolean", fail_open = "string",
              run_ended = "string", last_transition = "object", last_cycle = "object" },
    events = array { time = "string", id = "number!", text = "string!" },
    failed_calls = array { call = "string!", status = "number", message = "string!" },
    failed_calls_dropped = "number",
    entries = array { name = "string!", state = "string!", reason = "string", bytes = "number",
                      sha256 = "string", milliseconds = "number" },
    unknown = array { member = "string!", reason = "string!" },
    original_problems = array { name = "string!", problem = "string!" },
}

-- The metatable of objects; arrays have none.
local OBJECT = { __jsontype = "object" }

local function kind(value)
    if type(value) == "table" and value ~= null then
        return getmetatable(value) == OBJECT and "object" or "array"
    end
    return value == null and "nil" or type(value)
end

local check

local function check_members(value, shape, place)
    if shape.array then
        for i, item in ipairs(value) do
            local element = ("%s[%d]"):format(place, i)
            local problem = item == null and element .. " is null"
                or check(item, shape.array, element)
            if problem then return problem end
        end
        return nil
    end
    for name, member in pairs(shape) do
        local problem = check(value[name], member, place == "" and name or place .. "." .. name)
        if problem then return problem end
        if value[name] == null then value[name] = nil end
    end
end

-- Returns what is wrong with a value at this place in the manifest, or nil.
function check(value, shape, place)
    local is_needed = type(shape) == "string" and shape:find("!$")
    local wanted = type(shape) == "string" and shape:gsub("!$", "")
        or shape.array and "array" or "object"
    local found = kind(value)
    if found == "nil" and not is_needed then return nil end
    if found ~= wanted then
        return ("%s is not %s %s"):format(place, wanted:find("^[ao]") and "an" or "a", wanted)
    end
    return type(shape) == "table" and check_members(value, shape, place) or nil
end

local function parse(vxa, text)
    if vxa.printable(text, true) ~= text then
        return nil, "it is not UTF-8, or has control characters"
    end
    local stop, content = vxa.parse_json(text, 1, null, OBJECT)
    if not stop or text:find("%S", stop) then return nil, "it is not JSON" end
    if kind(content) ~= "object" then return nil, "it is not a JSON object" end
    local raw = select(2, vxa.parse_json(text, 1, null, OBJECT))
    local problem = check(content, SHAPE, "")
    if problem then return nil, problem end
    if content.manifest ~= manifest.FORMAT then
        return nil, ("its format is %.14g; this version reads %d")
            :format(content.manifest, manifest.FORMAT)
    end
    content.entries = content.entries or {}
    return content, raw
end

-- Messages about archives begin with the path, which the reader of the package has given.
local function without_path(message, path)
    local prefix = path .. ": "
    return message:sub(1, #prefix) == prefix and message:sub(#prefix + 1) or message
end

-- Returns the manifest of a package whose entries are `listed`, without the members that are null,
-- and with them, for json.encode. Otherwise nil, why there is none or it cannot be used, and
-- whether there is one.
function manifest.read(vxa, path, listed)
    local count = 0
    for _, entry in ipairs(listed) do
        if entry.name == manifest.NAME then count = count + 1 end
    end
    if count == 0 then return nil, "there is none", false end
    if count > 1 then return nil, ("%d entries have its name"):format(count), true end
    local text, message = vxa.zip_read(path, manifest.NAME, MOST_BYTES)
    if not text then return nil, without_path(message, path), true end
    local content, reason = parse(vxa, text)
    return content, reason, true
end

-- ---- verifying --------------------------------------------------------------------------

-- An archive of a few megabytes can unpack to terabytes.
local MOST_VERIFIED_BYTES = 2147483648

local Check = {}
Check.__index = Check

function Check:complain(name, ...)
    self.problems[#self.problems + 1] = { name = name, problem = select("#", ...) > 1
        and (...):format(select(2, ...)) or ... }
end

function Check:expect(rows)
    for _, row in ipairs(rows) do
        if self.rows[row.name] then
            self:complain(row.name, "the manifest lists it twice")
        elseif row.name == manifest.NAME then
            self:complain(row.name, "the manifest lists itself")
        end
        self.rows[row.name] = row
    end
end

-- Returns whether the sum of this entry is to be compared.
function Check:accepts(entry, row)
    local name = entry.name
    if not row then
        self:complain(name, "the manifest does not list it")
    elseif self.seen[name] then
        self:complain(name, "the package has it twice")
    elseif not row.bytes or not row.sha256 then
        self:complain(name, "the manifest has no sum of it: %s", row.state)
    elseif row.bytes ~= entry.bytes then
        self:complain(name, "it has %.0f bytes, but %.14g in the manifest", entry.bytes,
            row.bytes)
    elseif self.bytes + entry.bytes > MOST_VERIFIED_BYTES then
        self:complain(name, "not checked: the entries in front of it have %.0f bytes", self.bytes)
    else
        return true
    end
    return false
end

function Check:entry(reader, entry)
    local row = self.rows[entry.name]
    local is_comparable = self:accepts(entry, row)
    self.seen[entry.name] = true
    if not is_comparable then return end
    self.bytes = self.bytes + entry.bytes
    local sum, message = reader:sha256()
    if not sum then
        self:complain(entry.name, without_path(message, self.path))
    elseif sum ~= row.sha256 then
        self:complain(entry.name, "its SHA-256 is not the one in the manifest: it was changed")
    else
        self.matching = self.matching + 1
    end
end

function Check:entries(reader, after_each)
    local entry, message = reader:next()
    while entry do
        if entry.name == manifest.NAME then
            self.seen[entry.name] = true
        else
            self:entry(reader, entry)
        end
        after_each()
        entry, message = reader:next()
    end
    if message then self:complain(self.path, message) end
end

-- Compares the entries of a package, `count` in all, with its manifest. Shows progress on a
-- terminal and ends the command after a signal. Returns {matching=, problems=}: the number of
-- entries that match, and an array of {name, problem}.
function manifest.verify(vxa, path, content, count)
    local reader, message = vxa.zip_reader(path)
    if not reader then
        return { matching = 0, problems = { { name = path, problem = message } } }
    end
    local found = setmetatable({ path = path, rows = {}, seen = {}, problems = {}, bytes = 0,
                                 matching = 0 }, Check)
    local line, done = progress.new(vxa, "checking entries"), 0
    found:expect(content.entries)
    found:entries(reader, function()
        exit.if_interrupted(vxa)
        done = done + 1
        line:show(done, count)
    end)
    line:finish()
    reader:close()
    for _, row in ipairs(content.entries) do
        if row.bytes and not found.seen[row.name] then
            found:complain(row.name, "the package does not have it, but the manifest has its sum")
        end
    end
    return { matching = found.matching, problems = found.problems }
end

return manifest
