-- What the script tests share: comparing, the records that the host wrote, the sandbox.

local json = require "dkjson"

local testing = {}

local failures, checks = 0, 0

local function show(value, depth)
    depth = depth or 0
    if type(value) == "string" then return ("%q"):format(value) end
    if type(value) ~= "table" or depth > 4 then return tostring(value) end
    local parts = {}
    for _, v in ipairs(value) do parts[#parts + 1] = show(v, depth + 1) end
    for k, v in pairs(value) do
        if type(k) ~= "number" then parts[#parts + 1] = k .. "=" .. show(v, depth + 1) end
    end
    return "{" .. table.concat(parts, ",\n  ") .. "}"
end

local function same(a, b)
    if type(a) ~= "table" or type(b) ~= "table" then return a == b end
    for k, v in pairs(a) do if not same(v, b[k]) then return false end end
    for k in pairs(b) do if a[k] == nil then return false end end
    return true
end

-- `callers`: how many stand between this call and the line to be named; 0 when not given.
function testing.equal(got, expected, what, callers)
    checks = checks + 1
    if same(got, expected) then return end
    failures = failures + 1
    local place = debug.getinfo(2 + (callers or 0), "Sl")
    io.stderr:write(("%s:%d: %s\n  expected %s\n  got      %s\n"):format(place.short_src,
        place.currentline, what or "", show(expected), show(got)))
end

-- The call must raise an error that ends in the text: what stands in front of it names the
-- function, in words that differ between interpreters.
function testing.raises(tail, f, ...)
    local ok, message = pcall(f, ...)
    testing.equal(ok, false, "no error; expected " .. tail, 1)
    testing.equal(tostring(message):sub(-#tail), tail, "error text", 1)
end

-- Ends the script: status 1 when a check failed, or none was made.
function testing.finish()
    collectgarbage()
    io.stdout:write(("%d checks, %d failed\n"):format(checks, failures))
    os.exit(failures == 0 and checks > 0, true)
end

function testing.write(path, text)
    local file = assert(io.open(path, "w"))
    assert(file:write(text))
    assert(file:close())
end

function testing.read(path)
    local file = io.open(path, "rb")
    if not file then return nil end
    local text = file:read("*a")
    file:close()
    return text
end

local position = 0

-- The records of that kind ("trace" or "log") that were written since the last call.
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

-- Little-endian unsigned integer of `size` bytes at a 0-based offset.
function testing.unsigned(bytes, offset, size)
    local value = 0
    for i = size, 1, -1 do value = value * 256 + bytes:byte(offset + i) end
    return value
end

-- The 0-based offsets of bytes that are not zero.
function testing.nonzero(bytes)
    local offsets = {}
    for at in bytes:gmatch("()[^%z]") do offsets[#offsets + 1] = at - 1 end
    return offsets
end

return testing
