-- The filter script's feedback against a module that keeps what it is told, and the
-- command's side of it: what is not published yet, whose addresses are whose.

local cases = require "cases"
local addresses = require "command.addresses"
local filter = require "filter"
local testing = require "testing"

local now = 1000
os.time = function() return now end

-- The module: publishes more than 60 seconds after it did so last, keeps `room` keys.
local function module(room)
    local working, published, last = {}, {}, now
    SLB = { filter = {} }
    function SLB.filter.AddToConnMetrics(key, text, count)
        for _, row in ipairs(working) do
            if row.key == key then row.count = row.count + count return end
        end
        if #working < room then working[#working + 1] = { key = key, text = text, count = count } end
    end
    function SLB.filter.UpdateConnMetrics()
        if now - last > 60 then working, published, last = {}, working, now end
    end
    function SLB.filter.GetConnMetrics()
        local rows = published
        published = {}
        return rows
    end
end

local function tcp(src, sport, dst, dport)
    return { protocol = "tcp", src = src, sport = sport, dst = dst, dport = dport }
end

local function keys(report, field)
    local list = {}
    for i, row in ipairs(report.rows) do list[i] = row.count .. " " .. row[field or "key"] end
    return list
end

-- A flow, whether its source is local, the observation.
local observations = {
    { tcp("10.0.0.2", 40000, "10.0.0.1", 443), false, "tcp 10.0.0.1 443 0",
      "protocol\ttcp\ndst_addr\t10.0.0.1\ndst_port\t443\nflags\t0\n" },
    { { protocol = "udp", src = "::1", sport = 1, dst = "2001:db8::1", dport = 53 }, true,
      "udp 2001:db8::1 53 6", "protocol\tudp\ndst_addr\t2001:db8::1\ndst_port\t53\nflags\t6\n" },
}

for _, row in ipairs(observations) do
    cases.case(row[3], function()
        cases.equal({ filter.observation(row[1], row[2]) },
            { row[3], row[4], tonumber(row[3]:match("%d+$")) }, "observation")
    end)
end

cases.case("a flow is fed once while it lasts, and again when it comes back", function()
    module(100)
    local feedback = filter.feedback { is_local = function(a) return a == "10.0.0.1" end }
    local a, b = tcp("10.0.0.2", 1, "10.0.0.1", 443), tcp("10.0.0.2", 2, "10.0.0.1", 443)
    local out = tcp("10.0.0.1", 3, "10.0.0.9", 80)
    local samples = { { { a, b, a }, 2, 2 }, { { a, b, out }, 3, 1 }, { { b }, 1, 0 }, { { a }, 1, 1 } }
    for i, sample in ipairs(samples) do
        cases.equal({ feedback:sample(sample[1]) }, { sample[2], sample[3] }, "sample " .. i)
    end
    now = now + 61
    local report = feedback:report()
    cases.equal(keys(report), { "3 tcp 10.0.0.1 443 0", "1 tcp 10.0.0.9 80 4" }, "rows")
    cases.equal({ report.observations, report.refused, report.time - report.since }, { 4, 0, 61 },
        "totals")
end)

cases.case("what finds no room is counted before the report", function()
    local kept = filter.KEYS_KEPT
    filter.KEYS_KEPT = 2
    module(2)
    local feedback, flows = filter.feedback(), {}
    for i = 1, 9 do flows[i] = tcp("10.0.0.2", i, "10.0.0.1", i % 4) end
    feedback:sample(flows)
    local rest = feedback:rest()
    cases.equal({ keys(rest, "dst_port"), rest.observations, rest.refused },
        { { "3 1", "2 2" }, 5, 4 }, "not published yet")
    now = now + 61
    cases.equal(feedback:report().refused, 4, "refused in the report")
    rest = feedback:rest()
    cases.equal({ #rest.rows, rest.refused }, { 0, 0 }, "afterwards")
    filter.KEYS_KEPT = kept
end)

cases.case("an interrupted sample feeds nothing, and the next one everything", function()
    module(100)
    local asked, flows = 0, {}
    local feedback = filter.feedback { interrupted = function() asked = asked + 1 return asked == 2 end }
    for i = 1, 2500 do flows[i] = tcp("10.0.0.2", i, "10.0.0.1", 443) end
    cases.equal({ feedback:sample(flows) }, { nil, "interrupted" }, "interrupted")
    cases.equal(#feedback:rest().rows, 0, "fed")
    cases.equal({ feedback:sample(flows) }, { 2500, 2500 }, "the next one")
end)

cases.case("a report comes when it is due, and everything is in one", function()
    module(2)
    local feedback = filter.feedback()
    local fed, told = 0, 0
    for second = 1, 200 do
        now = now + (second == 100 and -30 or 1)
        fed = fed + select(2, feedback:sample { tcp("10.0.0.2", second, "10.0.0.1", second % 3) })
        local report = feedback:report()
        if report then told = told + report.observations + report.refused end
    end
    cases.equal(feedback:due() > 0, true, "not due")
    now = now + feedback:due()
    cases.equal(feedback:due(), 0, "due")
    local last = feedback:report()
    cases.equal(last.refused > 0, true, "refused")
    cases.equal(told + last.observations + last.refused, fed, "fed")
    cases.equal(feedback:report(), nil, "a second report")
end)

-- The kernel's two files, and addresses that are this machine's or not.
local FIB = [[
Main:
     +-- 192.0.2.0/24 2 0 2
           |-- 192.0.2.0
              /24 link UNICAST
           |-- 192.0.2.2
              /32 host LOCAL
        |-- 192.0.2.255
           /32 link BROADCAST
]]
local INET6 = [[
fd000000000000000000000000000002 04 40 00 82     eth0
20010db8000000010000000000000001 04 40 00 82     eth0
20010db8000100020003000400050006 04 40 00 82     eth0
]]

cases.case("addresses of this machine", function()
    addresses.IPV4_PATH, addresses.IPV6_PATH = os.tmpname(), os.tmpname()
    testing.write(addresses.IPV4_PATH, FIB)
    testing.write(addresses.IPV6_PATH, INET6)
    local is_local = addresses.of_this_machine()
    os.remove(addresses.IPV4_PATH)
    os.remove(addresses.IPV6_PATH)
    for address, expected in pairs {
        ["192.0.2.2"] = true, ["192.0.2.0"] = false, ["192.0.2.255"] = false,
        ["127.0.0.53"] = true, ["::1"] = true, ["fd00::2"] = true, ["2001:db8:0:1::1"] = true,
        ["2001:db8:1:2:3:4:5:6"] = true, ["::ffff:192.0.2.2"] = true, ["2001:db8::1"] = false,
    } do
        cases.equal(is_local(address) == true, expected, address)
    end
    cases.equal(addresses.of_this_machine()("127.0.0.1"), true, "without the files")
end)

cases.finish()
