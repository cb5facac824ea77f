// The scan counters against known traffic, and how their table lives and dies.
#include <netinet/tcp.h>
#include <signal.h>

#include <thread>

#include "api/Error.h"
#include "engines/linux/scan/ScanMonitor.h"
#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Eventually;
using kernel::ExpectStatus;
using kernel::Run;
using traffic::kPort;
using traffic::Local;

namespace {

const vxi::ScanTarget kInbound = {VXI_SCAN_INBOUND, kPort};

// As the interface lists them: new, closed, established, half-open closed, reset..
using Counters = std::vector<std::uint64_t>;

void Start(std::uint32_t direction = VXI_SCAN_INBOUND, std::uint16_t port = kPort)
{
    const OpenHandle handle = kernel::Open();
    ASSERT_EQ(MonitorPort(handle.get(), port, direction), 0) << ErrorText(handle.get());
}

Counters Read(std::uint32_t direction = VXI_SCAN_INBOUND)
{
    const OpenHandle handle = kernel::Open();
    scan_metrics_request request = ScanRequest(kPort, direction);
    EXPECT_EQ(vxi_get_scan_metrics(handle.get(), &request, sizeof request), 0)
        << ErrorText(handle.get());
    return {request.counter, request.counter + VXI_SCAN_COUNTERS};
}

// Waits until the first counters are as expected: packets may still be in flight when the calls
// that sent them return. Ends the process on a timeout: later checks would only time out, too.
void ExpectSoon(const Counters& expected, std::uint32_t direction = VXI_SCAN_INBOUND)
{
    Counters counters;
    const auto met = [&] {
        counters = Read(direction);
        counters.resize(expected.size());
        return counters == expected;
    };
    if (!Eventually(met)) {
        EXPECT_EQ(counters, expected);
        exit(1);
    }
}

// Names of the tables in this namespace, and the name of a process's table.
std::string Tables()
{
    return Run("printf %s \"$(nft list tables inet | cut -d ' ' -f 3 | xargs)\"");
}

std::string TableOf(pid_t process)
{
    return "vxa_scan_inbound_8443_pid_" + std::to_string(process);
}

void CountFinished(std::uint32_t direction)
{
    for (const int family : {4, 6}) {
        Start(direction);  // goes on
        const traffic::Place place = Local(family);
        const traffic::Place other = Local(family, kPort + 1);
        traffic::Connect(other, 5, ECONNREFUSED);
        traffic::Connect(place, 30, ECONNREFUSED);
        const auto listener = traffic::Listen(place);
        traffic::Converse(traffic::Listen(other), other, 20);
        traffic::Converse(listener, place, 200);
        traffic::Converse(listener, place, 50, true);
    }
    ExpectSoon({560, 560, 500, 60, 100}, direction);
}

std::vector<traffic::Socket> Attempt(unsigned count, int backlog)
{
    std::vector<traffic::Socket> sockets;
    for (const int family : {4, 6}) {
        sockets.push_back(traffic::Listen(Local(family), backlog));
        const auto clients = traffic::Connect(Local(family), count, EINPROGRESS);
        sockets.insert(sockets.end(), clients.begin(), clients.end());
    }
    return sockets;
}

// Connections that wait in the listener's backlog are not counted as closed; those whose openers do
// not receive the answer, although the engine sees it, are counted once when they time out.
void CountUnfinished(std::uint32_t direction)
{
    Start(direction, kPort + 1);
    Start(direction);
    auto sockets = Attempt(10, 2);  // a listener takes one more
    ExpectSoon({20, 0, 6, 0, 0}, direction);
    sockets.clear();
    Run("nft 'table inet silence { chain c { type filter hook input priority 0; "
        "tcp sport 8443 tcp flags == syn|ack drop; }; }'");
    Start(direction, kPort + 1);
    Start(direction);
    sockets = Attempt(30, 128);
    ExpectSoon({60, 0, 0, 0, 0}, direction);
    EXPECT_TRUE(Eventually([&] { return Read(direction)[VXI_SCAN_SYN_RETRANSMITTED] >= 60; }));
    ExpectSoon({60, 0, 0, 0, 0}, direction);
    ExpectSoon({60, 0, 0, 60, 0}, direction);
}

KERNEL_TEST(Scan, CountsEachOutcomeExactly)
{
    // The smallest values that the kernel accepts: openers repeat their SYN after a second. And no
    // port in TIME_WAIT is reused: such a connection is refused once.
    Run("cd /proc/sys/net/ipv4; echo 0 > tcp_synack_retries; echo 1 > tcp_syn_retries; "
        "echo 0 > tcp_tw_reuse");
    for (const std::uint32_t direction : {VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND}) {
        // On loopback packets leave as they come in.
        Run("nft 'flush ruleset; table inet witness { counter there { }; counter back { }; "
            "chain c { type filter hook input priority 10; "
            "tcp dport 8443 counter name there; tcp sport 8443 counter name back; }; }'");
        CountFinished(direction);
        const Counters read = Read(direction);
        EXPECT_EQ(testing::PrintToString(
                      Counters{read[VXI_SCAN_PACKETS_FORWARD], read[VXI_SCAN_BYTES_FORWARD],
                               read[VXI_SCAN_PACKETS_BACKWARD], read[VXI_SCAN_BYTES_BACKWARD]}),
                  Run("nft list counters table inet witness | grep -Eo '[0-9]+' | "
                      "xargs printf '{ %s, %s, %s, %s }'"));
        CountUnfinished(direction);
    }
}

// Two hosts: what is inbound on one is outbound on the other, and nothing else.
KERNEL_TEST(Scan, TellsTheDirectionsApart)
{
    const pid_t opener = kernel::Spawn([] {
        kernel::EnterNewNamespace();
        raise(SIGSTOP);
        Run("ip link set near up; ip addr add 10.9.0.2/24 dev near");
        Start(VXI_SCAN_OUTBOUND);
        traffic::Connect({"10.9.0.1", kPort}, 20);
        traffic::Connect({"10.9.0.3", kPort}, 5, ECONNREFUSED);
        ExpectSoon({25, 25, 20, 5, 0}, VXI_SCAN_OUTBOUND);
    });
    ExpectStatus(opener, kernel::kStopped);
    Run("ip link add far type veth peer name near netns " + std::to_string(opener) +
        "; ip link set far up; for i in 1 3; do ip addr add 10.9.0.$i/24 dev far; done");
    const auto listener = traffic::Listen({"10.9.0.1", kPort});
    Start();
    kill(opener, SIGCONT);
    ExpectStatus(opener);
    ExpectSoon({25, 25, 20, 5, 0});
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
    EXPECT_EQ(Read()[VXI_SCAN_NEW], flooded + 50);
    EXPECT_EQ(Read()[VXI_SCAN_ESTABLISHED], 50u);
    EXPECT_EQ(reported, "");
    // Most of them are given up long before the last repetition of an answer.
    const std::uint64_t brief = flooded - vxi::kHalfOpenLastingMax;
    EXPECT_TRUE(Eventually([&] { return Read()[VXI_SCAN_HALF_OPEN_CLOSED] >= brief; }));

    // What finds no room at all is in no counter, and is reported.
    std::uint64_t uncounted = 0;
    for (int i = 0; i < 10 && uncounted == 0; ++i) {
        traffic::SendSegments(TH_SYN, 70000);
        flooded += 70000;
        uncounted = flooded + 50 - Read()[VXI_SCAN_NEW];
    }
    EXPECT_EQ(reported, "port 8443: " + std::to_string(uncounted) +
                            " new connections are not counted: more than 131072 were half-open at "
                            "once");
    Statistics stats;
    EXPECT_EQ(vxi_get_stats(kernel::Open().get(), &stats, sizeof stats), 0);
    EXPECT_EQ(stats.area2[29], uncounted);
}

// Port scanners send segments with which no connection begins.
KERNEL_TEST(Scan, TakesNoStraySegmentForAConnection)
{
    const auto send = [](std::initializer_list<unsigned> segments, const Counters& expected) {
        for (const unsigned flags : segments) {
            traffic::SendSegments(static_cast<std::uint8_t>(flags));
        }
        ExpectSoon(expected);
    };
    constexpr unsigned kEce = 0x40, kCwr = 0x80;
    Start();
    send({0, TH_FIN | TH_PUSH | TH_URG, TH_SYN | TH_FIN, TH_SYN | TH_ACK, TH_ACK}, Counters(5));
    send({TH_FIN | TH_ACK}, {0, 1, 0, 0, 0});
    send({TH_SYN | TH_RST, TH_RST}, {0, 3, 0, 0, 2});
    send({TH_SYN, TH_SYN | kEce | kCwr}, {2, 3, 0, 0, 2});
    EXPECT_EQ(Read()[VXI_SCAN_PACKETS_FORWARD], 10u);
}

// Even while a child that never calls the library is still alive.
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
    ExpectStatus(parent, kernel::kStopped);
    EXPECT_EQ(Tables(), TableOf(parent));
    kill(parent, SIGKILL);
    ExpectStatus(parent, SIGKILL);
    // Sooner than the grandchild gives up waiting.
    EXPECT_TRUE(Eventually([] { return Tables().empty(); }, 5));
}

// _Fork runs no fork handlers: only the process number shows that this is a child.
KERNEL_TEST(ScanLife, ForkedChildCountsThePortInATableOfItsOwn)
{
    Start();
    const std::string parents = TableOf(getpid());
    for (const auto fork_now : {fork, _Fork}) {
        const auto count_alone = [&] {
            EXPECT_EQ(Tables(), parents);
            ExpectSoon({0});
            EXPECT_EQ(Tables(), parents + " " + TableOf(getpid()));
            traffic::Connect(Local(4), 2, ECONNREFUSED);
            ExpectSoon({2, 2, 0, 2, 0});
        };
        ExpectStatus(kernel::Spawn(count_alone, fork_now));
        EXPECT_TRUE(Eventually([&] { return Tables() == parents; }));
    }
    ExpectSoon({4, 4, 0, 4, 0});
}

// Other programs have taken its name, flush the rules and reset the counters; and the port was
// configured with another engine.
KERNEL_TEST(ScanLife, SurvivesOthers)
{
    const std::string name = TableOf(getpid());
    vxi_capability_s row;
    vxi_capabilities(kernel::Open().get(), &row, 1);
    EXPECT_EQ(row.available, 1) << row.detail;
    EXPECT_EQ(Tables(), "");
    Run("nft add table inet " + name);
    vxi::ScanMonitor other;
    other.Start(kInbound);
    ASSERT_EQ(vxi_engine_select("sim"), 0);
    ASSERT_EQ(MonitorPort(OpenHandle(vxi_open()).get(), kPort), 0);
    ExpectSoon({0});
    EXPECT_EQ(Tables(), name + " " + name + "_1 " + name + "_2");
    vxi_capabilities(kernel::Open().get(), &row, 1);
    EXPECT_NE(strstr(row.detail, (name + "_2: port 8443 inbound").c_str()), nullptr) << row.detail;
    traffic::Connect(Local(4), 9, ECONNREFUSED);
    Run("nft flush ruleset");
    EXPECT_EQ(Tables(), name + "_1 " + name + "_2");
    ExpectSoon({9, 9, 0, 9, 0});
    Run("nft reset counters");
    EXPECT_EQ(Read()[VXI_SCAN_HALF_OPEN_CLOSED], 0u);
    traffic::Connect(Local(4), 4, ECONNREFUSED);
    EXPECT_EQ(Read()[VXI_SCAN_HALF_OPEN_CLOSED], 4u);
}

KERNEL_TEST(ScanLife, ServesThreadsAtOnce)
{
    const auto work = [] {
        for (int i = 0; i < 200; ++i) {
            Start();
            Read();
        }
    };
    std::thread other(work);
    work();
    other.join();
}

// As on kernels without the owner flag.
KERNEL_TEST(ScanLife, WithoutOwnerKeepsItsTableAndRemovesThoseOfTheDead)
{
    const pid_t killed = kernel::Spawn([] {
        vxi::ScanMonitor monitor(vxi::TableRemoval::kByLibrary);
        monitor.Start({VXI_SCAN_OUTBOUND, 1});
        raise(SIGSTOP);
    });
    ExpectStatus(killed, kernel::kStopped);
    EXPECT_EQ(Tables(), "vxa_scan_outbound_1_pid_" + std::to_string(killed));
    kill(killed, SIGKILL);
    ExpectStatus(killed, SIGKILL);
    const std::string others = TableOf(getppid()) + " vxa_scan_inbound_8443_pid_";
    const std::string own = TableOf(getpid());  // of an earlier process with our number
    Run("for t in " + others + " " + own + "; do nft add table inet $t; done");
    vxi::ScanMonitor monitor(vxi::TableRemoval::kByLibrary);
    monitor.Start(kInbound);
    EXPECT_EQ(Tables(), others + " " + own);
    ExpectStatus(kernel::Spawn([&] { monitor.Stop(); }));
    EXPECT_EQ(Tables(), others + " " + own) << "a child took its parent's table";
    for (const unsigned count : {5, 2}) {
        traffic::Connect(Local(4), count, ECONNREFUSED);
        vxi::ScanReading reading = monitor.Read(kInbound);
        EXPECT_EQ(reading.metrics[VXI_SCAN_HALF_OPEN_CLOSED], count);
        EXPECT_FALSE(reading.rebuilt);
        Run("nft delete table inet " + own);
        reading = monitor.Read(kInbound);
        EXPECT_TRUE(reading.rebuilt);
        EXPECT_EQ(reading.metrics, vxi::ScanMetrics());
    }
    monitor.Stop();
    EXPECT_EQ(Tables(), others);
    EXPECT_THROW(monitor.Start(kInbound), vxi::Error);
}

}  // namespace
