-- Records of runs on the simulated machine: what killed and later runs leave in them.

local filter = require "filter"
local json = require "dkjson"
local scratch = require "scratch"
local testing = require "testing"

local equal, matches = testing.equal, testing.matches
local vxa = scratch.vxa
local ROOT, SCRATCH = os.getenv "VXA_ROOT", scratch.path

-- Returns the rows, fields by column, and the number of headings above each.
local function read_record(name)
    local columns, rows, headings = nil, {}, 0
    for line in testing.read(SCRATCH .. name):gmatch("([^\n]*)\n") do
        if line:find("^# vxa record") then headings = headings + 1 end
        if line:find("^#") then goto next_line end
        local fields = {}
        for field in (line .. ","):gmatch("([^,]*),") do fields[#fields + 1] = field end
        if not columns then
            columns = fields
        else
            local row = { heading = headings }
            for i, column in ipairs(columns) do row[column] = fields[i] end
            rows[#rows + 1] = row
        end
        ::next_line::
    end
    return rows
end

-- ---- a run that is killed, and the next one -------------------------------------------------

testing.write(SCRATCH .. "r.csv", "")
local RUN = "run --json --interval 0.05 --port 443 --record r.csv "
local first = vxa(RUN .. [[--cycles 400 & pid=$!
    until [ $(wc -l <r.csv) -ge 14 ]; do sleep 0.02; done; kill -9 $pid; wait]],
    "VXI_SIM=scenario=busy:4/overloaded:3/idle,interval_s=1")
scratch.shell "printf '2026-11-22 04:06:3' >>r.csv"
local second = vxa(RUN .. "--cycles 4", "VXI_SIM=scenario=busy")
matches(second, "vxa: r.csv: removed its last line, which was incomplete %(18 bytes%)\n", "torn")

local cycles = {}
for _, printed in ipairs { first, second } do
    for line in printed:gmatch('{"record":"cycle"[^\n]*') do
        cycles[#cycles + 1] = json.decode(line)
        cycles[#cycles].run = printed == first and 1 or 2
    end
end

local rows, previous = read_record "r.csv", {}
-- The killed run can have written one of the two for its last cycle.
if #cycles > #rows then table.remove(cycles, #cycles - 4) end
equal(#rows, #cycles, "rows")
for i, row in ipairs(rows) do
    local cycle, has_rates = cycles[i], previous.heading == row.heading
    local name = ("row %d: "):format(i)
    equal({ row.heading, tonumber(row.action), row.state, row.port, row.errors },
        { cycle.run, cycle.action, cycle.state, "443", "" }, name)
    for j, metric in ipairs(filter.metrics) do
        local value, shown = tonumber(row[metric.name]), cycle.metrics[j].value
        local is_known = has_rates or not metric.rate and metric.name ~= "delta_t"
        equal(value ~= nil, is_known, name .. metric.name)
        if shown then equal(math.abs(value - shown) <= 0.00051, true, name .. metric.name) end
    end
    if has_rates then
        -- The value is exact if it makes a whole number of connections.
        local connections = row.estab * 4 * row.delta_t
        equal(math.abs(connections - math.floor(connections + 0.5)) < 1e-6, true, name .. "exact")
    end
    previous = row
end
equal({ rows[4].state, rows[5].state, rows[10].state, rows[#rows].state },
    { "Deactivated", "Activated", "Activated", "Deactivated" }, "an overload")

-- ---- a record of bounded size ---------------------------------------------------------------

-- The age of the first row, arguments, rows in k.csv.1 (nil if it is unchanged) and k.csv
-- afterwards, what is done before, what is reported.
local kept = testing.read(SCRATCH .. "r.csv")
for _, case in ipairs {
    { 86300, "--record-days 1", nil, #rows + 3 },
    { 86410, "", nil, #rows + 3 },
    { 86410, "--record-days 1", #rows, 3 },
    { 86410, "--record-days 1", nil, #rows + 3, "rm k.csv.1; mkdir k.csv.1",
      "vxa: cannot rename k.csv to k.csv.1: Is a directory\n" },
} do
    local age, arguments, older, newer, commands, message = table.unpack(case, 1, 6)
    local name, began = age .. " s " .. arguments, os.date("!%Y-%m-%d %H:%M:%S", os.time() - age)
    testing.write(SCRATCH .. "k.csv", (kept:gsub("\n%d+%-%d+%-%d+ %d+:%d+:%d+", "\n" .. began, 1)))
    scratch.shell("rm -rf k.csv.1; echo old >k.csv.1; " .. (commands or ""))
    matches(vxa("run --quiet --interval 0.01 --cycles 3 --record k.csv " .. arguments),
        "^vxa 1[^\n]*\npolicy[^\n]*\n" .. (message or "") .. "3 cycles in [^\n]*\n$", name)
    equal({ older and #read_record "k.csv.1", #read_record "k.csv" }, { older, newer }, name)
end

-- ---- only observing -------------------------------------------------------------------------

matches(vxa("run --observe --port 443 --record o.csv --interval 0.01 --cycles 3",
    "VXI_SIM=cpus=100,scenario=overloaded VXI_FAULT=vxi_get_scan_metrics=-5:a"),
    "\npolicy: none %(%-%-observe: .* observed +5%d%d[.%d]* .*\n3 cycles in .* 3 measured, .* 0 "
    .. "times; ended enforcing\n$", "observing")
for _, row in ipairs(read_record "o.csv") do
    equal({ row.state, row.estab, tonumber(row.rqpct) > 16, row.errors:find("failed") ~= nil },
        { "Deactivated", "", true, true }, "observed")
end

-- ---- pictures -------------------------------------------------------------------------------

-- Returns what a picture of a record shows.
local function chart_of(name, policy)
    local chart = assert(require("vxa").chart(SCRATCH .. name, policy))
    repeat until assert(chart:read()) == 1
    return chart:result()
end

-- A week with restarts and failed samples, made to wide bins.
os.execute(("lua5.2 %s/bench/make_record.lua 60000 3 >%slong.csv"):format(ROOT, SCRATCH))
local long = read_record "long.csv"
local entries, least, greatest = 0, {}, {}
for i, row in ipairs(long) do
    local before = long[i - 1]
    local is_new = not before or before.heading ~= row.heading or before.state ~= row.state
    if row.state == "Activated" and is_new then entries = entries + 1 end
    for _, metric in ipairs(filter.metrics) do
        local name, value = metric.name, tonumber(row[metric.name])
        least[name] = math.min(least[name] or math.huge, value or math.huge)
        greatest[name] = math.max(greatest[name] or -math.huge, value or -math.huge)
    end
end
local policy = testing.read(SCRATCH .. "long.csv"):match("# policy (%b{})")
local replayed = assert(require("vxa").replay(SCRATCH .. "long.csv", {}))
repeat until assert(replayed:read()) == 1
local record = replayed:result()
for _, chart in ipairs { chart_of "long.csv", chart_of("long.csv", policy) } do
    equal({ chart.fail_open_s, chart.counted_s }, { record.recorded.fail_open, record.counted },
        "times")
    equal({ chart.rows, chart.entries, #chart.policies }, { #long, entries, 1 }, "long.csv")
    for name, metric in pairs(chart.metrics) do
        local lines = select(2, metric.lines:gsub("[^\n]+", ""))
        equal({ metric.least, metric.greatest, lines > 1024 and lines <= 2100 },
            { least[name], greatest[name], true }, name)
    end
end

-- A break for the restart, and none for anything else: cycles that come late on a busy machine are
-- no gaps with a long interval.
testing.write(SCRATCH .. "calm.csv",
    (testing.read(SCRATCH .. "r.csv"):gsub("interval 0%.05 s", "interval 60 s")))
for _, name in ipairs { "rqpct", "estab" } do
    equal(select(2, chart_of("calm.csv").metrics[name].lines:gsub("\n\n", "")), 1, name)
end

-- What is written in pictures. The host's name is what gnuplot must not interpret.
local HOST = "a';system('touch pwned');`touch pwned`<b>&"
testing.write(SCRATCH .. "it's.csv",
    (testing.read(SCRATCH .. "r.csv"):gsub("host [^,]*", "host " .. HOST)))
for _, row in ipairs {
    { "r.csv", 6, "\nthreshold 16\n.*\nfail%-open %(shaded%) 1 time, " },
    { "o.csv", 3, "^[^.]-rqpct: .*\nthreshold 200\n.*\nnever in fail%-open\n" },
    { "it\\'s.csv", 6, "\na';system%('touch pwned'%);`touch pwned`&lt;b>&amp;\n" },
} do
    matches(vxa("plot " .. row[1] .. " --force -o p.svg"), "^p.svg: %d+ rows in ", row[1])
    local written = ""
    for text in (testing.read(SCRATCH .. "p.svg") or ""):gmatch "<text>(.-)</text>" do
        written = written .. "\n" .. text
    end
    local panels = 0
    for _, metric in ipairs(filter.metrics) do
        if written:find("\n" .. metric.name .. ": ", 1, true) then panels = panels + 1 end
    end
    equal(panels, row[2], row[1])
    matches(written, row[3], row[1])
end
equal(testing.read(SCRATCH .. "pwned"), nil, "a shell")
matches(vxa "plot r.csv -o p.png", "^p.png: ", "p.png")
equal(testing.read(SCRATCH .. "p.png"):sub(2, 4), "PNG", "p.png")

testing.finish()
