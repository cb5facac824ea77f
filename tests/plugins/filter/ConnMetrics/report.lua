-- Rows of the connection metrics report: what every kind of line becomes, and in which locale.

local t = require "testing"
local recorder = require "recorder"
require "fc"

local add, update, get =
    SLB.filter.AddToConnMetrics, SLB.filter.UpdateConnMetrics, SLB.filter.GetConnMetrics

local now_s = 2000000000
local function publish()
    now_s = now_s + 61
    recorder.clock(now_s * 1000000)
    update()
end
publish()
get()

-- Texts and the fields of their rows; the count is 1 if not given.
local cases = {}
local function case(text, fields)
    fields.count = fields.count or 1
    cases[#cases + 1] = {text, fields}
end

local bits = {
    cf_ssl_connection = 0x1, cf_start_tls = 0x100, cf_udp_connection = 0x2,
    cf_outbound_connection = 0x4, cf_rsa_key_imported = 0x8, cf_qoagent_key_imported = 0x10,
    cf_qoagent_key_not_found = 0x40, cf_qoagent_key_error = 0x80, cf_qoagent_fail_open = 0x200,
    cf_qoagent_throttled = 0x400, cf_qoagent_banned = 0x800, cf_do_dpi = 0x20,
}
local all = {}
for name in pairs(bits) do all[name] = 1 end

local function flags(value, set)
    local fields = {flags = value}
    for name in pairs(bits) do fields[name] = set[name] or 0 end
    return fields
end

for name, bit in pairs(bits) do case("flags\t" .. bit, flags(bit, {[name] = 1})) end
case("flags\t4095", flags(4095, all))
case("flags\t-1", flags(-1, all))
case("flags\t61440", flags(61440, {}))  -- bits that have no field
case("flags\t9223372036854775807", flags(2^63, all))
case("flags\t-9223372036854775808", flags(-2^63, {}))
case("flags", flags(0, {}))

-- A later line of the name overwrites what the earlier one set, all of it.
case("flags\t3\nflags\t4", flags(4, {cf_outbound_connection = 1}))
case("cf_udp_connection\ttext\nflags\t2\ncf_ssl_connection\ttext",
    flags(2, {cf_udp_connection = 1, cf_ssl_connection = "text"}))

local values = {
    ["443"] = 443, ["  443"] = 443, ["\v\f\r 443"] = 443, ["\t7"] = 7, ["+5"] = 5, ["-5"] = -5,
    ["- 5"] = 0, ["+-5"] = 0, ["--5"] = 0, ["0x10"] = 0, ["010"] = 10, ["12abc"] = 12, ["1.9"] = 1,
    ["1e3"] = 1, ["AES"] = 0, [""] = 0, [" "] = 0, ["+"] = 0, ["007"] = 7, ["443 "] = 443,
    ["9223372036854775806"] = 2^63, ["9223372036854775808"] = 2^63,
    ["99999999999999999999999999"] = 2^63, ["-9223372036854775809"] = -2^63,
    ["-99999999999999999999999999"] = -2^63, ["4503599627370497"] = 4503599627370497,
    ["99999999999999999999x"] = 2^63,
}
local numbers = {"pid", "dst_port", "tls_version", "cipher", "container_type"}
for text, number in pairs(values) do
    for _, name in ipairs(numbers) do case(name .. "\t" .. text, {[name] = number}) end
end

for text, fields in pairs {
    [""] = {},
    ["\n\na\tb\n\n\nc\td\n"] = {a = "b", c = "d"},
    ["\tb"] = {[""] = "b"},
    ["a\tb\tc"] = {a = "b\tc"},
    ["a\t1\na"] = {a = ""},
    ["a\tb\r\nc\td\r"] = {a = "b\r", c = "d\r"},
    ["Pid\t5\nPID\t6\npid \t7\ncipherx\t1\nciphe\t1\nflag\t1\nflagsx\t1"] = {
        Pid = "5", PID = "6", ["pid "] = "7", cipherx = "1", ciphe = "1", flag = "1",
        flagsx = "1"},
    ["count\t17"] = {},
    ["pid\nname\tx"] = {pid = 0, name = "x"},
    ["a\tb\0c\td"] = {a = "b"},
    ["v\t" .. ("x"):rep(2 ^ 20)] = {v = ("x"):rep(2 ^ 20)},
    [("n"):rep(600) .. "\t1"] = {[("n"):rep(600)] = "1"},
} do
    case(text, fields)
end

-- More lines than the report caches strings of, twice, with another value in the last.
for _, last in ipairs {"one", "other"} do
    local lines, fields = {}, {}
    for i = 1, 20 do
        fields["n" .. i] = i < 20 and "v" .. i or last
        lines[i] = ("n%d\t%s"):format(i, fields["n" .. i])
    end
    case(table.concat(lines, "\n"), fields)
end

-- In both orders: a row shares strings with the row before it.
for _, first in ipairs {0, #cases + 1} do
    for i, c in ipairs(cases) do add(("%05d"):format(math.abs(first - i)), c[1], c[2].count) end
    publish()
    local results = table.pack(get())
    t.equal({results.n, #results[1]}, {1, #cases})
    t.equal(get(), {}, "a report is given once")
    for i, c in ipairs(cases) do
        t.equal(results[1][math.abs(first - i)], c[2], ("%q"):format(c[1]:sub(1, 80)))
    end
end

-- Fed in one locale, reported in another: what cannot be converted is empty.
local function fed_and_reported(fed, reported, ...)
    assert(os.setlocale(fed))
    for i, text in ipairs {...} do add("k" .. i, text, 1) end
    publish()
    assert(os.setlocale(reported))
    local rows = get()
    assert(os.setlocale "C")
    return rows
end
local function row(name, euro, long)
    return {name = name, [euro] = "plain", ascii = "kept", long = long, count = 1}
end
local long = "\xc3\xa4" .. ("y"):rep(600)
local utf8 = "name\t\xc3\xbc\n\xe2\x82\xac\tplain\nascii\tkept\nlong\t" .. long
local first, other = row("\xc3\xbc", "\xe2\x82\xac", long), row("\xc3\xa4", "\xe2\x82\xac", long)
t.equal(fed_and_reported("C.UTF-8", "C.UTF-8", utf8, (utf8:gsub("\xbc", "\xa4")), utf8),
    {first, other, first})
t.equal(fed_and_reported("C.UTF-8", "C", utf8), {row("", "", "")})
t.equal(fed_and_reported("C", "C.UTF-8", utf8), {{count = 1}}, "not a character")
t.equal(fed_and_reported("C.UTF-8", "C.UTF-8", "a\t\xff\nb\t1"), {{count = 1}})
-- Full-width digits do not count as digits.
t.equal(fed_and_reported("C.UTF-8", "C.UTF-8", "pid\t\xef\xbc\x91\ncipher\t5\xef\xbc\x91"),
    {{pid = 0, cipher = 5, count = 1}})

-- A row of repeated lines takes the memory of its one field.
add("k", ("flags\t\n"):rep(150000), 1)
publish()
collectgarbage()
collectgarbage "stop"
local before_kb = collectgarbage "count"
t.equal(get()[1].flags, 0)
t.equal(collectgarbage "count" - before_kb < 1000, true, "kilobytes for fourteen fields")

t.finish()
