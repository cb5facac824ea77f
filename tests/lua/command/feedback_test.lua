-- The filter script's feedback with the module on a clock of the test's, and the command's side
-- of it: whose addresses are whose.

local folder = arg[0]:match("^(.*)/")
package.path = folder .. "/?.lua;" .. folder .. "/../../../lua/?.lua;" .. package.path

local cases = require "cases"
local addresses = require "command.addresses"
local recorder = require "recorder"
local testing = require "testing"
require "fc"
local filter = require "filter"

local function pass(seconds)
    recorder.clock((os.time() + seconds) * 1e6)
end

-- With the module empty, and its next publication 61 seconds away.
local function start(options)
    pass(100)
    SLB.filter.UpdateConnMetrics()
    SLB.filter.GetConnMetrics()
    return filter.feedback(options)
end

local function tcp(src, sport, dst, dport)
    return { protocol = "tcp", src = src, sport = sport, dst = dst, dport = dport }
end

-- The module's rows, and those made of what it has not published, are the same.
local function rows(report)
    local list = {}
    for i, row in ipairs(report.rows) do
        list[i] = ("%d %s %s:%d %d %d%d"):format(row.count, row.protocol, row.dst_addr, row.dst_port,
            row.flags, row.cf_udp_connection, row.cf_outbound_connection)
    end
    return list
end

cases.case("a flow is fed once while it lasts, and again when it comes back", function()
    local feedback = start { is_local = function(a) return a == "10.0.0.1" or a == "::1" end }
    local a, b = tcp("10.0.0.2", 1, "10.0.0.1", 443), tcp("10.0.0.2", 2, "10.0.0.1", 443)
    local out = { protocol = "udp", src = "::1", sport = 3, dst = "2001:db8::1", dport = 443 }
    local also = tcp("::1", 3, "2001:db8::1", 443)
    local samples = { { { a, b, a }, 2, 2 }, { { a, b, out }, 3, 1 }, { { b, also }, 2, 1 },
                      { { a }, 1, 1 } }
    for i, sample in ipairs(samples) do
        cases.equal({ feedback:sample(sample[1]) }, { sample[2], sample[3] }, "sample " .. i)
    end
    local expected = { "3 tcp 10.0.0.1:443 0 00", "1 tcp 2001:db8::1:443 4 01",
                       "1 udp 2001:db8::1:443 6 11" }
    cases.equal(rows(feedback:rest()), expected, "not published yet")
    cases.equal(feedback:report(), nil, "before it is due")
    pass(61)
    local report = feedback:report()
    cases.equal(rows(report), expected, "rows")
    cases.equal({ report.observations, report.refused, report.time - report.since }, { 5, 0, 61 },
        "totals")
end)

cases.case("what finds no room is counted before the report", function()
    local feedback, flows = start(), {}
    for i = 1, 20002 do flows[i] = tcp("10.0.0.2", i, "10.0.0." .. i % 2, math.ceil(i / 2)) end
    feedback:sample(flows)
    feedback:sample { tcp("10.0.0.3", 1, "10.0.0.1", 1), tcp("10.0.0.3", 1, "10.0.0.1", 10001) }
    local rest = feedback:rest()
    cases.equal({ #rest.rows, rest.observations, rest.refused }, { 10000, 10001, 10003 }, "rest")
    pass(61)
    local report = feedback:report()
    cases.equal(rows(report), rows(rest), "rows")
    cases.equal({ report.observations, report.refused }, { 10001, 10003 }, "report")
    rest = feedback:rest()
    cases.equal({ #rest.rows, rest.refused }, { 0, 0 }, "afterwards")
end)

cases.case("an interrupted sample feeds nothing, and the next one everything", function()
    local asked, flows = 0, {}
    local feedback = start { interrupted = function() asked = asked + 1 return asked == 2 end }
    for i = 1, 2500 do flows[i] = tcp("10.0.0.2", i, "10.0.0.1", 443) end
    cases.equal({ feedback:sample(flows) }, { nil, "interrupted" }, "interrupted")
    cases.equal(#feedback:rest().rows, 0, "fed")
    cases.equal({ feedback:sample(flows) }, { 2500, 2500 }, "the next one")
end)

cases.case("a report comes when it is due, and everything is in one", function()
    local feedback = start()
    local fed, reported, reports = 0, 0, 0
    for second = 1, 300 do
        pass(second == 100 and -30 or 1)
        fed = fed + select(2, feedback:sample { tcp("10.0.0.2", second, "10.0.0.1", second % 3) })
        local due, report = feedback:due(), feedback:report()
        cases.equal(report ~= nil, due == 0, "due in " .. due)
        if report then reports, reported = reports + 1, reported + report.observations end
    end
    cases.equal({ reports, reported + feedback:rest().observations }, { 4, fed }, "reports")
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
