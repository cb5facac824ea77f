// The scan counters against known traffic: both directions, both IP versions.
#include <algorithm>
#include <sstream>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"
#include "engines/linux/ScanTable.h"

using traffic::Ending;
using traffic::Local;

namespace {

constexpr uint16_t port = 8443;

// What traffic determines exactly: opened, established, half-open closed, closed, reset.
using Figures = std::array<uint64_t, 5>;

driver::Counters Read(uint32_t direction, uint16_t of_port = port)
{
    driver::Counters counters = {};
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(driver::Fetch(handle, direction, of_port, counters), 0) << driver::Error(handle);
    return counters;
}

Figures Exact(const driver::Counters& counters)
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
void ExpectSoon(uint32_t direction, const Figures& expected, unsigned seconds = 10)
{
    network::Eventually([&] { return Exact(Read(direction)) == expected; }, seconds);
    EXPECT_EQ(Exact(Read(direction)), expected);
}

class ScanMetrics : public testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override { REQUIRE_NETWORK("nft"); }

    uint32_t direction = GetParam();
};

INSTANTIATE_TEST_SUITE_P(Kernel, ScanMetrics, testing::Values(VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND),
                         [](const auto& test) {
                             return test.param == VXI_SCAN_INBOUND ? "Inbound" : "Outbound";
                         });

// Packets and bytes there and back, as the packet filter counts them by itself.
using Volume = std::array<uint64_t, 4>;

void Witness(uint32_t direction)
{
    const bool inbound = direction == VXI_SCAN_INBOUND;
    network::Run(std::string("nft 'table inet witness { counter there { }; counter back { }; ") +
                 "chain a { type filter hook " + (inbound ? "input" : "output") +
                 " priority 10; tcp dport 8443 counter name there; }; " +
                 "chain b { type filter hook " + (inbound ? "output" : "input") +
                 " priority 10; tcp sport 8443 counter name back; }; }'");
}

Volume Witnessed()
{
    std::istringstream numbers(
        network::Run("nft list counters table inet witness | grep -Eo '[0-9]+'"));
    Volume volume = {};
    for (uint64_t& figure : volume) {
        EXPECT_TRUE(numbers >> figure);
    }
    return volume;
}

TEST_P(ScanMetrics, CountEachOutcomeExactly)
{
    network::InOwn([&] {
        Witness(direction);
        Start(direction);
        Figures total = {};
        const auto expect_more = [&](const Figures& more) {
            std::transform(total.begin(), total.end(), more.begin(), total.begin(), std::plus<>());
            ExpectSoon(direction, total);
        };
        for (const int family : {4, 6}) {
            const traffic::Place place = Local(family, port);
            const traffic::Place other = Local(family, port + 1);
            traffic::BeRefused(other, 5);
            traffic::BeRefused(place, 30);
            expect_more({30, 0, 30, 30, 0});
            const auto listener = traffic::Listen(place);
            traffic::Converse(traffic::Listen(other), other, 20);
            traffic::Converse(listener, place, 200);
            expect_more({200, 200, 0, 200, 0});
            traffic::Converse(listener, place, 50, Ending::Reset);
            expect_more({50, 50, 0, 50, 50});
        }
        Volume ours = {};
        const auto agrees = [&] {
            const driver::Counters read = Read(direction);
            ours = {read[VXI_SCAN_PACKETS_FORWARD], read[VXI_SCAN_BYTES_FORWARD],
                    read[VXI_SCAN_PACKETS_BACKWARD], read[VXI_SCAN_BYTES_BACKWARD]};
            return ours == Witnessed();
        };
        network::Eventually(agrees);
        EXPECT_EQ(ours, Witnessed());
        EXPECT_GE(ours[0], 2u * 250 * 5);  // SYN, ACK, data, FIN or RST and ACKs
    });
}

TEST_P(ScanMetrics, LeaveConnectionsAloneThatWaitForRoom)
{
    network::InOwn([&] {
        Start(direction);
        const auto v4 = traffic::Listen(Local(4, port), 2);  // takes 3
        const auto v6 = traffic::Listen(Local(6, port), 1);  // takes 2
        const auto clients4 = traffic::Attempt(Local(4, port), 10);
        const auto clients6 = traffic::Attempt(Local(6, port), 10);
        ExpectSoon(direction, {20, 5, 0, 0, 0});
    });
}

// The openers do not get the answer, though the engine sees it.
TEST_P(ScanMetrics, CountUnansweredConnectionsOnceWhenTheyTimeOut)
{
    network::InOwn([&] {
        // The least that the kernel takes: the openers repeat their SYN after a second.
        network::Run("echo 0 > /proc/sys/net/ipv4/tcp_synack_retries");
        network::Run("echo 1 > /proc/sys/net/ipv4/tcp_syn_retries");
        network::Run(
            "nft 'table inet silence { chain c { type filter hook input priority 0; tcp sport "
            "8443 tcp flags == syn|ack drop; }; }'");
        const auto v4 = traffic::Listen(Local(4, port));
        const auto v6 = traffic::Listen(Local(6, port));
        Start(direction);
        const auto clients4 = traffic::Attempt(Local(4, port), 40);
        const auto clients6 = traffic::Attempt(Local(6, port), 20);
        ExpectSoon(direction, {60, 0, 0, 0, 0});
        EXPECT_TRUE(
            network::Eventually([&] { return Read(direction)[VXI_SCAN_SYN_RETRANSMITTED] >= 60; }));
        ExpectSoon(direction, {60, 0, 60, 0, 0}, 30);
    });
}

NETWORK_TEST(ScanMetricsOnce, RestartWithAnotherPortOrDirectionOnly)
{
    Start(VXI_SCAN_INBOUND);
    traffic::BeRefused(Local(4, port), 7);
    ExpectSoon(VXI_SCAN_INBOUND, {7, 0, 7, 7, 0});
    Start(VXI_SCAN_INBOUND);
    ExpectSoon(VXI_SCAN_INBOUND, {7, 0, 7, 7, 0});

    const driver::Handle handle = driver::Open();
    driver::Counters unused;
    Start(VXI_SCAN_OUTBOUND);
    EXPECT_EQ(Exact(Read(VXI_SCAN_OUTBOUND)), Figures{});
    EXPECT_EQ(driver::Fetch(handle, VXI_SCAN_INBOUND, port, unused), -ENOENT);
    EXPECT_EQ(driver::Error(handle),
              "engine linux: vxi_get_scan_metrics: port 8443 inbound is not monitored (port "
              "8443 outbound is)");

    Start(VXI_SCAN_INBOUND, port + 1);
    EXPECT_EQ(Exact(Read(VXI_SCAN_INBOUND, port + 1)), Figures{});
    EXPECT_EQ(network::Tables(), "vxi_scan_" + std::to_string(getpid()));
}

uint64_t Uncounted()
{
    Statistics stats;
    EXPECT_EQ(vxi_get_stats(driver::Open().get(), &stats, sizeof stats), 0);
    return stats.area2[29];
}

NETWORK_TEST(ScanMetricsOnce, CountConnectionsBesideAFloodOfOpenings)
{
    static std::string reported;
    vxi_set_message_handler([](const char* message) { reported = message; });
    Start(VXI_SCAN_INBOUND);
    const auto listener = traffic::Listen(Local(4, port));
    unsigned flooded = 70000;
    traffic::Flood(port, flooded);
    traffic::Converse(listener, Local(4, port), 50);
    EXPECT_TRUE(network::Eventually([] { return Read(VXI_SCAN_INBOUND)[VXI_SCAN_CLOSED] >= 50; }));
    driver::Counters counters = Read(VXI_SCAN_INBOUND);
    EXPECT_EQ(counters[VXI_SCAN_NEW], flooded + 50);
    EXPECT_EQ(counters[VXI_SCAN_ESTABLISHED], 50u);
    EXPECT_EQ(reported, "");
    // Most of them are given up long before the last repetition of an answer.
    EXPECT_TRUE(network::Eventually([&] {
        return Read(VXI_SCAN_INBOUND)[VXI_SCAN_HALF_OPEN_CLOSED] >=
               flooded - vxi::half_open_lasting_max;
    }));

    // What finds no room at all is in no counter, and is not passed over in silence.
    for (int i = 0; i < 10 && reported.empty(); ++i, flooded += 70000) {
        traffic::Flood(port, 70000);
        counters = Read(VXI_SCAN_INBOUND);
    }
    EXPECT_EQ(counters[VXI_SCAN_NEW] + Uncounted(), flooded + 50);
    EXPECT_EQ(reported, "port 8443: " + std::to_string(Uncounted()) +
                            " new connections are not counted: more than 131072 were half-open at "
                            "once");
}

// Scanners send what no connection begins with.
TEST(ScanMetricsOnce, TakeNoStraySegmentForAConnection)
{
    REQUIRE_NETWORK("nft");
    constexpr uint8_t fin = 0x01, syn = 0x02, rst = 0x04, psh = 0x08, ack = 0x10, urg = 0x20,
                      ece = 0x40, cwr = 0x80;
    const struct {
        uint8_t flags;
        Figures expected;
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
            const auto listener = traffic::Listen(Local(6, port));
            Start(VXI_SCAN_INBOUND);
            traffic::SendSegment(port, c.flags);
            EXPECT_TRUE(network::Eventually(
                [] { return Read(VXI_SCAN_INBOUND)[VXI_SCAN_PACKETS_FORWARD] >= 1; }));
            ExpectSoon(VXI_SCAN_INBOUND, c.expected);
        });
    }
}

// Two hosts: what is inbound on one is outbound on the other, and nothing else.
NETWORK_TEST(ScanMetricsOnce, TellTheDirectionsApart)
{
    network::Signal ready, done;
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
    });
    ASSERT_TRUE(ready.Await());
    network::Run("ip link add far type veth peer name near netns " + std::to_string(opener.pid()));
    network::Configure("far", "10.9.0.1/24", "fd00:9::1/64");
    network::Configure("far", "10.9.0.3/24", "fd00:9::3/64");
    const auto v4 = traffic::Listen({"10.9.0.1", port});
    const auto v6 = traffic::Listen({"fd00:9::1", port});
    Start(VXI_SCAN_INBOUND);
    done.Tell();
    opener.ExpectGood();
    ExpectSoon(VXI_SCAN_INBOUND, {51, 40, 11, 51, 0});
}

}  // namespace
