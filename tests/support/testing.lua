-- What the Lua tests share: comparisons, files, and the host's log records.

local json = require "dkjson"

local testing = {}

local failures, checks = 0, 0

local SHOW = { indent = true, exception = function(_, value) return tostring(value) end }

local function same(a, b)
    if type(a) ~= "table" or type(b) ~= "table" then return a == b end
    for k, v in pairs(a) do if not same(v, b[k]) then return false end end
    for k in pairs(b) do if a[k] == nil then return false end end
    return true
end

-- `callers`: number of calls between this one and the line to report; default 0.
function testing.equal(got, expected, what, callers)
    checks = checks + 1
    if same(got, expected) then return end
    failures = failures + 1
    local place = debug.getinfo(2 + (callers or 0), "Sl")
    print(("%s:%d: %s\n  expected %s\n  got      %s"):format(place.short_src, place.currentline,
        what or "", json.encode(expected, SHOW), json.encode(got, SHOW)))
end

-- The call must raise an error that ends so; its start differs between interpreters.
function testing.raises(tail, f, ...)
    local ok, message = pcall(f, ...)
    testing.equal(ok, false, "no error; expected " .. tail, 1)
    testing.equal(tostring(message):sub(-#tail), tail, "error message", 1)
end

-- The text must match a pattern, or each of an array of patterns after the one before.
function testing.matches(text, patterns, what)
    local from = 1
    for _, pattern in ipairs(type(patterns) == "table" and patterns or { patterns }) do
        local _, last = text:find(pattern, pattern:find("^%^") and 1 or from)
        testing.equal(last and pattern or text:sub(from), pattern, what, 1)
        from = last or from  -- patterns may share a line feed
    end
end

-- Ends the script with status 1 if a check failed or none was made.
function testing.finish()
    collectgarbage()
    print(("%d checks, %d failed"):format(checks, failures))
    os.exit(failures == 0 and checks > 0, true)
end

function testing.write(path, text)
    assert(assert(assert(io.open(path, "w")):write(text)):close())
end

function testing.read(path)
    local file = io.open(path, "rb")
    local text = file and file:read("*a")
    if file then file:close() end
    return text
end

local position = 0  -- of the first record that is new

-- The records written since the last call, as arrays "trace" and "log".
function testing.records(path)
    local records = {trace = {}, log = {}}
    local text = testing.read(path) or ""
    for line in text:sub(position + 1):gmatch("[^\n]+") do
        local record = assert(json.decode(line))
        table.insert(assert(records[record.kind], line), record)
    end
    position = #text
    return records
end

return testing
