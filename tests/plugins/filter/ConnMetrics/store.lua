-- The two stores of connection feedback: random observations and publications against a plain
-- reference, then publication times and arguments.

package.path = arg[0]:match "^(.*)/tests/" .. "/lua/?.lua;" .. package.path
local t = require "testing"
local recorder = require "recorder"
local filter = require "filter"
require "fc"

local add, update, get =
    SLB.filter.AddToConnMetrics, SLB.filter.UpdateConnMetrics, SLB.filter.GetConnMetrics

local now_s = 2000000000
local function pass(seconds)
    now_s = now_s + seconds
    recorder.clock(now_s * 1000000 + 999999)
end

local function publish()
    pass(filter.PUBLICATION_INTERVAL_S)
    t.equal(select("#", update()), 0, "publishing returns nothing")
end

-- ---- random steps ----------------------------------------------------------------------

-- What the C library decodes: up to the first NUL, and nothing where the bytes are not characters
-- of the locale.
local function decode(bytes, locale)
    local text = bytes:match "^%Z*"
    local rest = text
    if locale ~= "C" then rest = rest:gsub("\xc3[\xa4\xbc]", ""):gsub("\xf0\x9f\x98\x80", "") end
    return rest:find "[\x80-\xff]" and "" or text
end

local function truncate(count)
    local fits = math.abs(count) < 2 ^ 63  -- false for NaN
    return fits and (count < 0 and math.ceil(count) or math.floor(count)) % 2 ^ 32 or 0
end

local dropped  -- names of stores that had no room for a key

local function new_store(name) return {name = name, entries = {}, size = 0} end

local function merge(store, key, value, count)
    local entry = store.entries[key]
    if entry then
        entry.count = (entry.count + count) % 2 ^ 32
    elseif store.size < filter.KEYS_KEPT then
        store.entries[key] = {value = value, count = count}
        store.size = store.size + 1
    else
        dropped[store.name] = true
    end
end

local function sorted_keys(store)
    local keys = {}
    for key in pairs(store.entries) do keys[#keys + 1] = key end
    table.sort(keys)
    return keys
end

-- Keys of every kind. The same number gives the same key; several numbers share an entry.
local function make_key(i)
    local kinds = {
        [0] = "\xc3\xbc" .. i, i .. "\xff", i + 1 .. "\0x", i .. "\0\xff",
        i % 64 == 4 and "" or "10.0.0.1:" .. i, i % 64 == 5 and "\0x" or "\t" .. i .. "\n",
        "\xf0\x9f\x98\x80" .. i, "\xed\xa0\x80" .. i, "\x7f" .. i, ("a"):rep(i % 300) .. i,
        (i % 2 == 0 and "k" or "l"):rep(i % 3 == 0 and 10000 or 9) .. (i % 5 == 0 and "\xff" or ""),
        tostring(i),
    }
    return kinds[i % (#kinds + 1)]
end

local odd_counts = {0, 2.9, -1, -0.9, 2 ^ 32 - 1, 2 ^ 32, -2.5, 1e300, 5e18, -5e18 - 4e9, 1e19, 0.5,
                    0 / 0, 1 / 0, -1 / 0, 2 ^ 63, -2 ^ 63}
local steps_s = {0, 1, 59, 60, 61, 62, 100, -1, -61, -100}

local function one_of(list) return list[math.random(#list)] end

local function random_steps(locale, steps)
    assert(os.setlocale(locale, "ctype"))
    pass(1000)
    update()
    get()
    local working, finished, last_s = new_store "working", new_store "finished", now_s
    dropped = {}

    local function feed(key, value, count)
        add(key, value == "" and "" or "v\t" .. value, count)
        count = truncate(count)
        if count ~= 0 then merge(working, decode(key, locale), value, count) end
    end

    local function try_publishing()
        update()
        if now_s - last_s <= 60 then return end
        for _, key in ipairs(sorted_keys(working)) do
            merge(finished, key, working.entries[key].value, working.entries[key].count)
        end
        working, last_s = new_store "working", now_s
    end

    local function compare()
        local rows, keys = get(), sorted_keys(finished)
        t.equal(#rows, #keys, "rows")
        for i, key in ipairs(keys) do
            local row, entry = rows[i] or {}, finished.entries[key]
            if (row.v or "") ~= entry.value or row.count ~= entry.count then
                return t.equal(row, entry, ("%s, row %d, %q"):format(locale, i, key:sub(1, 50)))
            end
        end
        finished = new_store "finished"
    end

    local keys = 100
    for i = 1, steps do
        if math.random(2000) == 1 then keys = one_of {3, 100, 5000, 30000} end
        feed(make_key(math.random(keys)), math.random(50) == 1 and "" or tostring(i),
            math.random(8) == 1 and one_of(odd_counts) or math.random(100))
        -- More keys than a store keeps, in bytes that the index takes only the second time.
        if i % 5000 == 0 then
            local prefix = i % 10000 == 0 and "\xc3\xa4" or "k"
            for n = 0, 20599 do
                feed(prefix .. n * 7 % 10300 .. (n < 10300 and "\0" or ""), "x", 2)
            end
        end
        if math.random(400) == 1 then
            pass(one_of(steps_s))
            try_publishing()
        end
        if math.random(1200) == 1 then compare() end
    end
    pass(1000)
    try_publishing()
    compare()
    compare()
    t.equal(dropped, {working = true, finished = true}, "both stores were full")
end

math.randomseed(20240611)
random_steps("C", 20000)
random_steps("C.UTF-8", 20000)
assert(os.setlocale "C")

-- ---- publication times and arguments ---------------------------------------------------

publish()
get()

-- A publication needs 61 seconds since the last one, also if that was empty.
for passed_s, rows in pairs {[0] = 0, [60] = 0, [61] = 1, [-1] = 0, [-1e5] = 0, [1e6] = 1} do
    publish()
    get()
    add("k", "a\tb", 2)
    pass(passed_s)
    update()
    t.equal(#get(), rows, passed_s)
    pass(math.max(-passed_s, 0))
    publish()
    t.equal(#get(), 1 - rows, "kept until then")
end

-- Wrong arguments change nothing. The position that is wrong, then the arguments.
for _, case in ipairs {
    {1}, {1, nil, "t", 1}, {1, true, "t", 1}, {2, "k"}, {2, "k", {}, 1}, {3, "k", "t"},
    {3, "k", "t", {}}, {3, "k", "t", "x"},
} do
    local ok, message = pcall(add, table.unpack(case, 2, 4))
    t.equal({ok, message:match "bad argument #%d"}, {false, "bad argument #" .. case[1]})
end
t.equal(select("#", add(12, 34, "5", "more")), 0, "feeding returns nothing")
publish()
t.equal(get(), {{["34"] = "", count = 5}}, "numbers are strings, and a string is a count")

t.finish()
