// The scan counters against known traffic, and how their table lives and dies.
#include <netinet/tcp.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "engines/linux/scan/ScanMonitor.h"
#include "engines/linux/scan/ScanTable.h"
#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Eventually;
using kernel::Run;
using kernel::Tables;
using traffic::kPort;
using traffic::Local;

namespace {

using Counters = std::array<std::uint64_t, VXI_SCAN_COUNTERS>;

// What traffic determines exactly: opened, established, half-open closed, closed, reset.
using Figures = std::array<std::uint64_t, 5>;

void Start(std::uint32_t direction = VXI_SCAN_INBOUND, std::uint16_t at = kPort)
{
    const OpenHandle handle = kernel::Open();
    ASSERT_EQ(MonitorPort(handle.get(), at, direction), 0) << ErrorText(handle.get());
}

int Ask(const OpenHandle& handle, std::uint32_t direction, Counters* counters = nullptr)
{
    scan_metrics_request request = ScanRequest(kPort, direction);
    const int status = vxi_get_scan_metrics(handle.get(), &request, sizeof request);
    if (counters) {
        std::copy_n(request.counter, VXI_SCAN_COUNTERS, counters->begin());
    }
    return status;
}

Counters Read(std::uint32_t direction = VXI_SCAN_INBOUND)
{
    Counters counters = {};
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Ask(handle, direction, &counters), 0) << ErrorText(handle.get());
    return counters;
}

Figures Exact(const Counters& counters)
{
    return {counters[VXI_SCAN_NEW], counters[VXI_SCAN_ESTABLISHED],
            counters[VXI_SCAN_HALF_OPEN_CLOSED], counters[VXI_SCAN_CLOSED],
            counters[VXI_SCAN_RESET]};
}

// The last packets may still be under way when the calls that sent them have returned. Ends the
// case when the counters stay wrong: those that follow would wait as long for what cannot come.
void ExpectSoon(const Figures& expected, std::uint32_t direction = VXI_SCAN_INBOUND,
                unsigned seconds = 10)
{
    if (Eventually([&] { return Exact(Read(direction)) == expected; }, seconds)) return;
    EXPECT_EQ(Exact(Read(direction)), expected);
    throw std::runtime_error("the counters stayed as they were");
}

void InBothDirections(void (*body)(std::uint32_t direction))
{
    for (const std::uint32_t direction : {VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND}) {
        SCOPED_TRACE(direction == VXI_SCAN_INBOUND ? "inbound" : "outbound");
        kernel::InOwn([&] { body(direction); });
    }
}

// Packets and bytes there and back, as rules of nft count them.
void Witness(std::uint32_t direction)
{
    const char* const names[] = {"input", "output"};
    const std::string there = names[direction == VXI_SCAN_OUTBOUND];
    const std::string back = names[direction == VXI_SCAN_INBOUND];
    Run("nft 'table inet witness { counter there { }; counter back { }; chain a { type filter "
        "hook " +
        there +
        " priority 10; tcp dport 8443 counter name there; }; chain b { type "
        "filter hook " +
        back + " priority 10; tcp sport 8443 counter name back; }; }'");
}

void CountOutcomes(std::uint32_t direction)
{
    Witness(direction);
    Figures total = {};
    const auto expect_more = [&](const Figures& more) {
        std::transform(total.begin(), total.end(), more.begin(), total.begin(), std::plus<>());
        ExpectSoon(total, direction);
    };
    for (const int family : {4, 6}) {
        Start(direction);  // goes on
        const traffic::Place place = Local(family);
        const traffic::Place other = Local(family, kPort + 1);
        traffic::BeRefused(other, 5);
        traffic::BeRefused(place, 30);
        expect_more({30, 0, 30, 30, 0});
        const auto listener = traffic::Listen(place);
        traffic::Converse(traffic::Listen(other), other, 20);
        traffic::Converse(listener, place, 200);
        expect_more({200, 200, 0, 200, 0});
        traffic::Converse(listener, place, 50, true);
        expect_more({50, 50, 0, 50, 50});
    }
    std::ostringstream ours;
    const Counters read = Read(direction);
    for (const auto counter : {VXI_SCAN_PACKETS_FORWARD, VXI_SCAN_BYTES_FORWARD,
                               VXI_SCAN_PACKETS_BACKWARD, VXI_SCAN_BYTES_BACKWARD}) {
        ours << read[counter] << '\n';
    }
    EXPECT_EQ(ours.str(), Run("nft list counters table inet witness | grep -Eo '[0-9]+'"));
}

KERNEL_TEST(Scan, CountsEachOutcomeExactly)
{
    InBothDirections(CountOutcomes);
}

// Those that wait for room are left alone; those whose openers do not get the answer, though
// the engine sees it, are counted once as they time out.
void CountUnfinished(std::uint32_t direction)
{
    // The least that the kernel takes: the openers repeat their SYN after a second.
    Run("echo 0 > /proc/sys/net/ipv4/tcp_synack_retries");
    Run("echo 1 > /proc/sys/net/ipv4/tcp_syn_retries");
    Start(direction);
    auto v4 = traffic::Listen(Local(4), 2);  // takes 3
    auto v6 = traffic::Listen(Local(6), 1);  // takes 2
    {
        const auto clients4 = traffic::Attempt(Local(4), 10);
        const auto clients6 = traffic::Attempt(Local(6), 10);
        ExpectSoon({20, 5, 0, 0, 0}, direction);
    }
    v4.reset();
    v6.reset();
    Run("nft 'table inet silence { chain c { type filter hook input priority 0; "
        "tcp sport 8443 tcp flags == syn|ack drop; }; }'");
    v4 = traffic::Listen(Local(4));
    v6 = traffic::Listen(Local(6));
    Start(direction, kPort + 1);
    Start(direction);
    const auto clients4 = traffic::Attempt(Local(4), 40);
    const auto clients6 = traffic::Attempt(Local(6), 20);
    ExpectSoon({60, 0, 0, 0, 0}, direction);
    EXPECT_TRUE(Eventually([&] { return Read(direction)[VXI_SCAN_SYN_RETRANSMITTED] >= 60; }));
    ExpectSoon({60, 0, 60, 0, 0}, direction, 30);
}

KERNEL_TEST(Scan, CountsUnfinishedConnectionsWhenTheyTimeOut)
{
    InBothDirections(CountUnfinished);
}

// Two hosts: what is inbound on one is outbound on the other, and nothing else.
KERNEL_TEST(Scan, TellsTheDirectionsApart)
{
    const pid_t opener = kernel::Spawn([] {
        kernel::EnterNew();
        raise(SIGSTOP);
        Run("ip link set near up; ip addr add 10.9.0.2/24 dev near; "
            "ip addr add fd00:9::2/64 dev near nodad");
        Start(VXI_SCAN_OUTBOUND);
        for (int i = 0; i < 20; ++i) {
            traffic::Connect({"10.9.0.1", kPort});
            traffic::Connect({"fd00:9::1", kPort});
        }
        traffic::BeRefused({"10.9.0.3", kPort}, 5);
        traffic::BeRefused({"fd00:9::3", kPort}, 6);
        ExpectSoon({51, 40, 11, 51, 0}, VXI_SCAN_OUTBOUND);
    });
    kernel::AwaitStop(opener);
    Run("ip link add far type veth peer name near netns " + std::to_string(opener) +
        "; ip link set far up; for i in 1 3; do ip addr add 10.9.0.$i/24 dev far; "
        "ip addr add fd00:9::$i/64 dev far nodad; done");
    const auto v4 = traffic::Listen({"10.9.0.1", kPort});
    const auto v6 = traffic::Listen({"fd00:9::1", kPort});
    Start();
    kill(opener, SIGCONT);
    kernel::ExpectEnd(opener);
    ExpectSoon({51, 40, 11, 51, 0});
}

std::uint64_t Uncounted()
{
    Statistics stats;
    EXPECT_EQ(vxi_get_stats(kernel::Open().get(), &stats, sizeof stats), 0);
    return stats.area2[29];
}

KERNEL_TEST(Scan, CountsConnectionsBesideAFloodOfOpenings)
{
    static std::string reported;
    vxi_set_message_handler([](const char* message) { reported = message; });
    Start();
    const auto listener = traffic::Listen(Local(4));
    unsigned flooded = 70000;
    traffic::SendSegments(TH_SYN, flooded);
    traffic::Converse(listener, Local(4), 50);
    EXPECT_TRUE(Eventually([] { return Read()[VXI_SCAN_CLOSED] >= 50; }));
    Counters counters = Read();
    EXPECT_EQ(counters[VXI_SCAN_NEW], flooded + 50);
    EXPECT_EQ(counters[VXI_SCAN_ESTABLISHED], 50u);
    EXPECT_EQ(reported, "");
    // Most of them are given up long before the last repetition of an answer.
    const std::uint64_t brief = flooded - vxi::kHalfOpenLastingMax;
    EXPECT_TRUE(Eventually([&] { return Read()[VXI_SCAN_HALF_OPEN_CLOSED] >= brief; }));

    // What finds no room at all is in no counter, and is not passed over in silence.
    for (int i = 0; i < 10 && reported.empty(); ++i, flooded += 70000) {
        traffic::SendSegments(TH_SYN, 70000);
        counters = Read();
    }
    EXPECT_EQ(counters[VXI_SCAN_NEW] + Uncounted(), flooded + 50);
    EXPECT_EQ(reported, "port 8443: " + std::to_string(Uncounted()) +
                            " new connections are not counted: more than 131072 were half-open at "
                            "once");
}

// Scanners send what no connection begins with.
KERNEL_TEST(Scan, TakesNoStraySegmentForAConnection)
{
    constexpr std::uint8_t kEce = 0x40, kCwr = 0x80;
    const Figures nothing = {}, opened = {1, 0, 0, 0, 0}, reset = {0, 0, 0, 1, 1};
    const std::pair<std::uint8_t, Figures> cases[] = {{0, nothing},
                                                      {TH_FIN | TH_PUSH | TH_URG, nothing},
                                                      {TH_SYN | TH_FIN, nothing},
                                                      {TH_SYN | TH_ACK, nothing},
                                                      {TH_ACK, nothing},
                                                      {TH_FIN | TH_ACK, {0, 0, 0, 1, 0}},
                                                      {TH_SYN | TH_RST, reset},
                                                      {TH_RST, reset},
                                                      {TH_SYN, opened},
                                                      {TH_SYN | kEce | kCwr, opened}};
    for (const auto& [flags, expected] : cases) {
        SCOPED_TRACE(testing::Message() << "flags " << unsigned{flags});
        Start(VXI_SCAN_INBOUND, kPort + 1);
        Start();
        traffic::SendSegments(flags);
        EXPECT_EQ(Read()[VXI_SCAN_PACKETS_FORWARD], 1u);
        ExpectSoon(expected);
    }
}

std::string TableOf(pid_t process)
{
    return "vxi_scan_" + std::to_string(process);
}

// Also while a child lives on that never calls the library.
KERNEL_TEST(ScanLife, TableGoesWithAKilledProcess)
{
    const pid_t parent = kernel::Spawn([] {
        Start();
        if (fork() == 0) {
            Eventually([] { return Tables().empty(); });
            _exit(0);
        }
        raise(SIGSTOP);
    });
    kernel::AwaitStop(parent);
    EXPECT_EQ(Tables(), TableOf(parent));
    kill(parent, SIGKILL);
    kernel::ExpectEnd(parent, SIGKILL);
    // Sooner than the grandchild gives up waiting.
    EXPECT_TRUE(Eventually([] { return Tables().empty(); }, 5));
}

// Fork handlers do not run in a bare one: the process number alone shows it.
KERNEL_TEST(ScanLife, ForkedChildCountsThePortInATableOfItsOwn)
{
    Start();
    const std::string parents = TableOf(getpid());
    for (const auto fork_now : {fork, _Fork}) {
        const auto count_alone = [&] {
            EXPECT_EQ(Tables(), parents);
            ExpectSoon({});
            EXPECT_EQ(Tables(), parents + " " + TableOf(getpid()));
            traffic::BeRefused(Local(4), 2);
            ExpectSoon({2, 0, 2, 2, 0});
        };
        kernel::ExpectEnd(kernel::Spawn(count_alone, fork_now));
        EXPECT_TRUE(Eventually([&] { return Tables() == parents; }));
    }
    ExpectSoon({4, 0, 4, 4, 0});
}

KERNEL_TEST(ScanLife, EngineChosenLaterCountsTheSamePortOnly)
{
    ASSERT_EQ(vxi_engine_select("sim"), 0);
    const OpenHandle simulated(vxi_open());
    EXPECT_EQ(Ask(simulated, VXI_SCAN_INBOUND), -ENOENT);
    ASSERT_EQ(MonitorPort(simulated.get(), kPort), 0);
    ExpectSoon({});
    EXPECT_EQ(Tables(), TableOf(getpid()));
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Ask(handle, VXI_SCAN_OUTBOUND), -ENOENT);
    EXPECT_EQ(ErrorText(handle.get()),
              "engine linux: vxi_get_scan_metrics: port 8443 outbound is not monitored (port "
              "8443 inbound is)");
}

// Another has its name; others flush the rules, and reset the counters.
KERNEL_TEST(ScanLife, SurvivesOthers)
{
    const auto capability = [] {
        vxi_capability_s row;
        vxi_capabilities(kernel::Open().get(), &row, 1);
        EXPECT_EQ(row.available, 1) << row.detail;
        return std::string(row.detail);
    };
    capability();
    EXPECT_EQ(Tables(), "");
    const std::string name = TableOf(getpid());
    Run("nft add table inet " + name);
    Start();
    EXPECT_NE(capability().find(name + "_1: port 8443 inbound"), std::string::npos);
    EXPECT_EQ(Tables(), name + " " + name + "_1");
    traffic::BeRefused(Local(4), 9);
    Run("nft flush ruleset");
    EXPECT_EQ(Tables(), name + "_1");
    ExpectSoon({9, 0, 9, 9, 0});
    Run("nft reset counters");
    EXPECT_EQ(Read()[VXI_SCAN_HALF_OPEN_CLOSED], 0u);
    traffic::BeRefused(Local(4), 4);
    EXPECT_TRUE(Eventually([] { return Read()[VXI_SCAN_HALF_OPEN_CLOSED] == 4; }));
}

KERNEL_TEST(ScanLife, ServesThreadsAtOnce)
{
    const auto work = [](std::uint32_t direction) {
        for (int i = 0; i < 50; ++i) {
            Start(direction);
            // The other thread may have chosen its own direction since.
            const int status = Ask(kernel::Open(), direction);
            EXPECT_TRUE(status == 0 || status == -ENOENT) << status;
        }
    };
    std::thread other(work, VXI_SCAN_OUTBOUND);
    work(VXI_SCAN_INBOUND);
    other.join();
    EXPECT_EQ(Tables(), TableOf(getpid()));
}

// ---- kernels without the owner flag ----------------------------------------

const vxi::ScanTarget kInbound = {VXI_SCAN_INBOUND, kPort};

KERNEL_TEST(ScanLife, WithoutOwnerKeepsItsTableAndRemovesThoseOfTheDead)
{
    const pid_t killed = kernel::Spawn([] {
        vxi::ScanMonitor monitor(vxi::TableLife::kRemovedByUs);
        EXPECT_EQ(monitor.Set(kInbound).status, 0);
        raise(SIGSTOP);
    });
    kernel::AwaitStop(killed);
    const std::string dead = TableOf(killed);
    const std::string alive = TableOf(getppid());
    const std::string own = TableOf(getpid());  // of an earlier process that had our number
    kill(killed, SIGKILL);
    kernel::ExpectEnd(killed, SIGKILL);
    Run("for t in " + alive + " vxi_scan_ " + own + "; do nft add table inet $t; done");
    EXPECT_EQ(Tables(), dead + " " + alive + " vxi_scan_ " + own);
    vxi::ScanMonitor monitor(vxi::TableLife::kRemovedByUs);
    EXPECT_EQ(monitor.Set(kInbound).status, 0);
    EXPECT_EQ(Tables(), alive + " vxi_scan_ " + own);
    kernel::ExpectEnd(kernel::Spawn([&] { monitor.Stop(); }));
    EXPECT_EQ(Tables(), alive + " vxi_scan_ " + own) << "a child took its parent's table";
    vxi::ScanReading reading;
    for (const unsigned count : {5, 2}) {
        traffic::BeRefused(Local(4), count);
        EXPECT_TRUE(Eventually([&] {
            EXPECT_EQ(monitor.get(kInbound, reading).status, 0);
            return reading.figures[VXI_SCAN_HALF_OPEN_CLOSED] == count && !reading.rebuilt;
        }));
        Run("nft delete table inet " + own);
        EXPECT_EQ(monitor.get(kInbound, reading).status, 0);
        EXPECT_TRUE(reading.rebuilt);
        EXPECT_EQ(std::count(std::begin(reading.figures), std::end(reading.figures), 0u),
                  VXI_SCAN_COUNTERS);
    }
    monitor.Stop();
    EXPECT_EQ(Tables(), alive + " vxi_scan_");
    EXPECT_EQ(monitor.Set(kInbound).status, -ESHUTDOWN);
}

}  // namespace
