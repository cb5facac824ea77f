-- Records of runs on the simulated machine: what killed and later runs leave in them.

local filter = require "filter"
local json = require "dkjson"
local testing = require "testing"

local equal, matches = testing.equal, testing.matches
local ROOT, SCRATCH = os.getenv "VXA_ROOT", os.getenv "FAKE_MACHINE" .. "/work/"
os.execute("mkdir " .. SCRATCH)

local function vxa(environment, arguments, after)
    local pipe = io.popen(("cd %s; VXI_ENGINE=sim %s %s/bin/vxa %s 2>&1 %s"):format(SCRATCH,
        environment, ROOT, arguments, after or ""))
    local text = pipe:read("*a")
    return text, select(3, pipe:close())
end

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
local first = vxa("VXI_SIM=scenario=busy:4/overloaded:3/idle,interval_s=1",
    RUN .. "--cycles 400 & pid=$!; until [ $(wc -l <r.csv) -ge 14 ]; do sleep 0.02; done; kill -9 $pid; wait")
vxa("", "--version", "; printf '2026-11-22 04:06:3' >>r.csv")
local second = vxa("VXI_SIM=scenario=busy", RUN .. "--cycles 4")
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

-- ---- only observing -------------------------------------------------------------------------

matches(vxa("VXI_SIM=scenario=overloaded VXI_FAULT=vxi_get_scan_metrics=-5:a",
    "run --observe --port 443 --record o.csv --interval 0.01 --cycles 3"),
    "\npolicy: none %(%-%-observe: .* 3 measured, .* 0 times; ended enforcing\n$", "observing")
for _, row in ipairs(read_record "o.csv") do
    equal({ row.state, row.estab, tonumber(row.rqpct) > 16, row.errors:find("failed") ~= nil },
        { "Deactivated", "", true, true }, "observed")
end

testing.finish()
