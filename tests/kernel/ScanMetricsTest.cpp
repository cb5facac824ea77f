// The scan counters against known traffic: both directions, both IP versions.
#include <gtest/gtest.h>

#include <ostream>
#include <regex>
#include <string>
#include <tuple>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"

using traffic::Ending;
using traffic::Local;

namespace {

constexpr uint16_t port = 8443;

// The counters that traffic determines exactly; bytes and packets have a test of their own.
struct Expected {
    uint64_t opened = 0;
    uint64_t established = 0;
    uint64_t half_open_closed = 0;
    uint64_t closed = 0;
    uint64_t reset = 0;

    bool operator==(const Expected& o) const
    {
        return std::tie(opened, established, half_open_closed, closed, reset) ==
               std::tie(o.opened, o.established, o.half_open_closed, o.closed, o.reset);
    }
};

std::ostream& operator<<(std::ostream& out, const Expected& e)
{
    return out << "opened " << e.opened << ", established " << e.established
               << ", half-open closed " << e.half_open_closed << ", closed " << e.closed
               << ", reset " << e.reset;
}

driver::Counters Read(uint32_t direction, uint16_t of_port = port)
{
    driver::Counters counters = {};
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(driver::Fetch(handle, direction, of_port, counters), 0) << driver::Error(handle);
    return counters;
}

Expected Exact(const driver::Counters& counters)
{
    return {counters[VXI_SCAN_NEW], counters[VXI_SCAN_ESTABLISHED],
            counters[VXI_SCAN_HALF_OPEN_CLOSED], counters[VXI_SCAN_CLOSED],
            counters[VXI_SCAN_RESET]};
}

void Start(uint32_t direction, uint16_t of_port = port)
{
    const driver::Handle handle = driver::Open();
    ASSERT_EQ(driver::Monitor(handle, direction, of_port), 0) << driver::Error(handle);
}

// The last packets may still be under way when the calls that sent them have returned.
void ExpectSoon(uint32_t direction, const Expected& expected, unsigned seconds = 10)
{
    network::Eventually([&] { return Exact(Read(direction)) == expected; }, seconds);
    EXPECT_EQ(Exact(Read(direction)), expected);
}

// Drops packets of the port with exactly these flags, after the engine has seen them.
void Drop(const std::string& end, const std::string& flags)
{
    network::Run("nft 'table inet silence { chain c { type filter hook input priority 0; tcp " +
                 end + " " + std::to_string(port) + " tcp flags == " + flags + " drop; }; }'");
}

void StopDropping()
{
    network::Run("nft delete table inet silence");
}

class ScanMetrics : public testing::TestWithParam<std::tuple<uint32_t, int>> {
protected:
    void SetUp() override { REQUIRE_NETWORK(); }

    uint32_t direction = std::get<0>(GetParam());
    int family = std::get<1>(GetParam());
    traffic::Place place = Local(family, port);
};

TEST_P(ScanMetrics, CountsEachOutcomeExactly)
{
    network::InOwn([&] {
        Start(direction);
        {
            const auto listener = traffic::Listen(place);
            traffic::Converse(listener, place, 200);
            ExpectSoon(direction, {200, 200, 0, 200, 0});
            traffic::Converse(listener, place, 50, Ending::Reset);
            ExpectSoon(direction, {250, 250, 0, 250, 50});
        }
        traffic::BeRefused(place, 30);
        ExpectSoon(direction, {280, 250, 30, 280, 50});
    });
}

TEST_P(ScanMetrics, DoesNotCountOtherPorts)
{
    network::InOwn([&] {
        constexpr uint16_t other = port + 1;
        Start(direction);
        const auto listener = traffic::Listen(Local(family, other));
        traffic::Converse(listener, Local(family, other), 20);
        traffic::BeRefused(Local(family, other + 1), 5);
        // What the monitored port gets afterwards shows that the rest has arrived.
        traffic::BeRefused(place, 1);
        ExpectSoon(direction, {1, 0, 1, 1, 0});
        EXPECT_EQ(Read(direction)[VXI_SCAN_PACKETS_FORWARD], 1u);
    });
}

TEST_P(ScanMetrics, LeavesConnectionsAloneThatWaitForRoom)
{
    network::InOwn([&] {
        Start(direction);
        const auto listener = traffic::Listen(place, 2);  // takes 3
        const auto clients = traffic::Attempt(place, 10);
        ExpectSoon(direction, {10, 3, 0, 0, 0});
    });
}

TEST_P(ScanMetrics, NeverLowersTheHalfOpenClosedCount)
{
    network::InOwn([&] {
        Start(direction);
        uint64_t before = 0;
        for (int round = 0; round < 20; ++round) {
            traffic::BeRefused(place, 3);
            const auto pending = traffic::Listen(place, 0);
            const auto clients = traffic::Attempt(place, 4);
            const uint64_t now = Read(direction)[VXI_SCAN_HALF_OPEN_CLOSED];
            EXPECT_GE(now, before);
            EXPECT_LE(now, 3u * (round + 1) + 4u * round);
            before = now;
        }
    });
}

uint64_t Number(const std::string& text, const std::string& pattern)
{
    std::smatch found;
    EXPECT_TRUE(std::regex_search(text, found, std::regex(pattern))) << text;
    return found.size() > 1 ? std::stoull(found[1]) : 0;
}

TEST_P(ScanMetrics, CountsPacketsAndBytesAsThePacketFilterDoes)
{
    network::InOwn([&] {
        const bool inbound = direction == VXI_SCAN_INBOUND;
        const std::string number = std::to_string(port);
        network::Run(
            std::string("nft 'table inet witness { counter there { }; counter back { }; ") +
            "chain a { type filter hook " + (inbound ? "input" : "output") +
            " priority 10; tcp dport " + number + " counter name there; }; " +
            "chain b { type filter hook " + (inbound ? "output" : "input") +
            " priority 10; tcp sport " + number + " counter name back; }; }'");
        Start(direction);
        const auto listener = traffic::Listen(place);
        traffic::Converse(listener, place, 30);
        ExpectSoon(direction, {30, 30, 0, 30, 0});

        driver::Counters ours = {};
        const auto agrees = [&] {
            const std::string witness = network::Run("nft list counters table inet witness");
            ours = Read(direction);
            const auto count = [&](const std::string& name, const std::string& unit) {
                return Number(witness, name + " \\{[^}]*" + unit + " (\\d+)");
            };
            return ours[VXI_SCAN_PACKETS_FORWARD] == count("there", "packets") &&
                   ours[VXI_SCAN_PACKETS_BACKWARD] == count("back", "packets") &&
                   ours[VXI_SCAN_BYTES_FORWARD] == count("there", "bytes") &&
                   ours[VXI_SCAN_BYTES_BACKWARD] == count("back", "bytes");
        };
        EXPECT_TRUE(network::Eventually(agrees))
            << testing::PrintToString(ours) << network::Run("nft list counters table inet witness");
        // SYN, ACK, data, FIN and ACKs: at least five packets of a header each.
        EXPECT_GE(ours[VXI_SCAN_PACKETS_FORWARD], 30u * 5);
        EXPECT_GE(ours[VXI_SCAN_BYTES_FORWARD], 30u * 5 * (family == 4 ? 40 : 60));
    });
}

std::string Name(const testing::TestParamInfo<std::tuple<uint32_t, int>>& info)
{
    return std::string(std::get<0>(info.param) == VXI_SCAN_INBOUND ? "Inbound" : "Outbound") + "V" +
           std::to_string(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Kernel, ScanMetrics,
                         testing::Combine(testing::Values(VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND),
                                          testing::Values(4, 6)),
                         Name);

// What takes seconds is done for both families at once.
class ScanMetricsBoth : public testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override { REQUIRE_NETWORK(); }

    uint32_t direction = GetParam();
};

TEST_P(ScanMetricsBoth, CountUnansweredConnectionsOnceTheyEnd)
{
    network::InOwn([&] {
        Start(direction);
        const auto v4 = traffic::Listen(Local(4, port));
        const auto v6 = traffic::Listen(Local(6, port));
        Drop("sport", "syn|ack");
        {
            const auto clients4 = traffic::Attempt(Local(4, port), 40);
            const auto clients6 = traffic::Attempt(Local(6, port), 20);
            ExpectSoon(direction, {60, 0, 0, 0, 0});
            // The openers repeat their SYN after a second: no new connections.
            EXPECT_TRUE(network::Eventually(
                [&] { return Read(direction)[VXI_SCAN_SYN_RETRANSMITTED] >= 60; }));
            EXPECT_EQ(Exact(Read(direction)), (Expected{60, 0, 0, 0, 0}));
        }
        // The owner repeats its answer, and the openers are not there any more.
        StopDropping();
        ExpectSoon(direction, {60, 0, 60, 60, 0}, 30);
    });
}

TEST_P(ScanMetricsBoth, CountUnansweredConnectionsThatTimeOut)
{
    network::InOwn([&] {
        // The least that the kernel takes.
        network::SetSysctl("net/ipv4/tcp_synack_retries", "0");
        network::SetSysctl("net/ipv4/tcp_syn_retries", "1");
        Start(direction);
        const auto v4 = traffic::Listen(Local(4, port));
        const auto v6 = traffic::Listen(Local(6, port));
        Drop("sport", "syn|ack");
        {
            const auto clients4 = traffic::Attempt(Local(4, port), 15);
            const auto clients6 = traffic::Attempt(Local(6, port), 10);
            ExpectSoon(direction, {25, 0, 0, 0, 0});
        }
        ExpectSoon(direction, {25, 0, 25, 0, 0}, 30);
    });
}

INSTANTIATE_TEST_SUITE_P(Kernel, ScanMetricsBoth,
                         testing::Values(VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND),
                         [](const testing::TestParamInfo<uint32_t>& test) {
                             return test.param == VXI_SCAN_INBOUND ? "Inbound" : "Outbound";
                         });

TEST(ScanMetricsOnce, CountsTheFamiliesTogether)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        Start(VXI_SCAN_INBOUND);
        {
            const auto v4 = traffic::Listen(Local(4, port));
            const auto v6 = traffic::Listen(Local(6, port));
            traffic::Converse(v4, Local(4, port), 12);
            traffic::Converse(v6, Local(6, port), 13, Ending::Reset);
        }
        traffic::BeRefused(Local(4, port), 4);
        traffic::BeRefused(Local(6, port), 5);
        ExpectSoon(VXI_SCAN_INBOUND, {34, 25, 9, 34, 13});
    });
}

TEST(ScanMetricsOnce, RestartsWithAnotherPortOrDirectionOnly)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        Start(VXI_SCAN_INBOUND);
        traffic::BeRefused(Local(4, port), 7);
        ExpectSoon(VXI_SCAN_INBOUND, {7, 0, 7, 7, 0});
        Start(VXI_SCAN_INBOUND);
        ExpectSoon(VXI_SCAN_INBOUND, {7, 0, 7, 7, 0});

        const driver::Handle handle = driver::Open();
        driver::Counters unused;
        Start(VXI_SCAN_OUTBOUND);
        EXPECT_EQ(Exact(Read(VXI_SCAN_OUTBOUND)), Expected{});
        EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused), -ENOENT);
        EXPECT_EQ(driver::Error(handle),
                  "engine linux: vxi_get_scan_metrics: port 8443 inbound is not monitored (port "
                  "8443 outbound is)");

        Start(VXI_SCAN_INBOUND, port + 1);
        EXPECT_EQ(Exact(Read(VXI_SCAN_INBOUND, port + 1)), Expected{});
        EXPECT_EQ(network::Tables(), "vxi_scan_" + std::to_string(getpid()));
    });
}

// Scanners send what no connection begins with.
TEST(ScanMetricsOnce, TakesNoStraySegmentForAConnection)
{
    REQUIRE_NETWORK();
    constexpr uint8_t fin = 0x01, syn = 0x02, rst = 0x04, psh = 0x08, ack = 0x10, urg = 0x20,
                      ece = 0x40, cwr = 0x80;
    const struct {
        uint8_t flags;
        Expected expected;
    } cases[] = {
        {0, {}},
        {fin | psh | urg, {}},
        {syn | fin, {}},
        {syn | ack, {0, 0, 0, 1, 1}},  // the listener's kernel answers these three with RST
        {ack, {0, 0, 0, 1, 1}},
        {fin | ack, {0, 0, 0, 2, 1}},
        {syn | rst, {0, 0, 0, 1, 1}},
        {rst, {0, 0, 0, 1, 1}},
        {syn, {1, 0, 1, 1, 0}},  // answered, and reset for want of a socket
        {syn | ece | cwr, {1, 0, 1, 1, 0}},
    };
    for (const auto& c : cases) {
        network::InOwn([&] {
            SCOPED_TRACE(testing::Message() << "flags " << unsigned{c.flags});
            const auto listener = traffic::Listen(Local(4, port));
            Start(VXI_SCAN_INBOUND);
            traffic::SendSegment(2000, port, c.flags);
            EXPECT_TRUE(network::Eventually(
                [] { return Read(VXI_SCAN_INBOUND)[VXI_SCAN_PACKETS_FORWARD] >= 1; }));
            ExpectSoon(VXI_SCAN_INBOUND, c.expected);
        });
    }
}

// Two hosts: what is inbound on one is outbound on the other, and nothing else.
TEST(ScanMetricsOnce, TellsTheDirectionsApart)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        network::Signal ready, done, finish;
        network::Child opener([&] {
            network::EnterNew();
            ready.Tell();
            ASSERT_TRUE(done.Await());  // the cable is there
            network::Configure("near", "10.9.0.2/24", "fd00:9::2/64");
            Start(VXI_SCAN_OUTBOUND);
            for (const char* host : {"10.9.0.1", "fd00:9::1"}) {
                for (int i = 0; i < 20; ++i) {
                    traffic::Connect({host, port});
                }
            }
            traffic::BeRefused({"10.9.0.3", port}, 5);
            traffic::BeRefused({"fd00:9::3", port}, 6);
            ExpectSoon(VXI_SCAN_OUTBOUND, {51, 40, 11, 51, 0});
            finish.Tell();
        });
        ASSERT_TRUE(ready.Await());
        network::Run("ip link add far type veth peer name near netns " +
                     std::to_string(opener.pid()));
        network::Configure("far", "10.9.0.1/24", "fd00:9::1/64");
        network::Configure("far", "10.9.0.3/24", "fd00:9::3/64");
        const auto v4 = traffic::Listen({"10.9.0.1", port});
        const auto v6 = traffic::Listen({"fd00:9::1", port});
        Start(VXI_SCAN_INBOUND);
        network::Signal counting;
        network::Child otherwise([&] {
            Start(VXI_SCAN_OUTBOUND);
            counting.Tell();
            EXPECT_TRUE(finish.Await());
            EXPECT_EQ(Read(VXI_SCAN_OUTBOUND), driver::Counters{});
        });
        ASSERT_TRUE(counting.Await());
        done.Tell();
        otherwise.ExpectGood();
        opener.ExpectGood();
        ExpectSoon(VXI_SCAN_INBOUND, {51, 40, 11, 51, 0});
    });
}

}  // namespace
