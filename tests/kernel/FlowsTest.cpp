// The flow table against what the kernel's own tools show in the same namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <tuple>

#include "FlowTable.h"
#include "Network.h"
#include "Traffic.h"

using flows::Fetch;
using testing::Test;

namespace {

constexpr uint16_t port = 8443;

// A datagram from `near` to `far` and, unless it is 0, `answers` of 100 bytes back.
struct Datagrams {
    Datagrams(int family, uint16_t far_port, unsigned answers);

    traffic::Socket far;
    traffic::Socket near;
};

sockaddr_in6 Loopback(int family, uint16_t far_port)
{
    sockaddr_in6 address = {AF_INET6, htons(far_port), 0, in6addr_loopback, 0};
    if (family == 4) {
        inet_pton(AF_INET6, "::ffff:127.0.0.1", &address.sin6_addr);
    }
    return address;
}

traffic::Socket Datagram()
{
    return traffic::Socket(socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

Datagrams::Datagrams(int family, uint16_t far_port, unsigned answers)
    : far(Datagram()), near(Datagram())
{
    const sockaddr_in6 address = Loopback(family, far_port);
    const auto* to = reinterpret_cast<const sockaddr*>(&address);
    EXPECT_EQ(bind(far.fd(), to, sizeof address), 0) << strerror(errno);
    EXPECT_EQ(connect(near.fd(), to, sizeof address), 0) << strerror(errno);
    char data[100] = {};
    EXPECT_EQ(send(near.fd(), data, 10, 0), 10);
    sockaddr_in6 sender = {};
    socklen_t size = sizeof sender;
    EXPECT_EQ(recvfrom(far.fd(), data, sizeof data, 0, reinterpret_cast<sockaddr*>(&sender), &size),
              10);
    for (unsigned i = 0; i < answers; ++i) {
        EXPECT_EQ(sendto(far.fd(), data, 100, 0, reinterpret_cast<sockaddr*>(&sender), size), 100);
    }
}

const vxa_conntrack_entry_s& Find(const flows::Section& section, uint16_t destination_port)
{
    static const vxa_conntrack_entry_s none = {};
    const uint8_t bytes[2] = {static_cast<uint8_t>(destination_port >> 8),
                              static_cast<uint8_t>(destination_port & 255)};
    const auto found =
        std::find_if(section.entries.begin(), section.entries.end(), [&](const auto& entry) {
            return memcmp(entry.destination_port, bytes, sizeof bytes) == 0;
        });
    EXPECT_NE(found, section.entries.end()) << "no flow to port " << destination_port;
    return found == section.entries.end() ? none : *found;
}

class Flows : public Test {
protected:
    void SetUp() override { REQUIRE_CONNTRACK(); }
};

class TrackedFlows : public testing::TestWithParam<std::tuple<int, bool>> {
protected:
    void SetUp() override { REQUIRE_CONNTRACK(); }
};

TEST_P(TrackedFlows, AreWhatConntrackLists)
{
    const auto [family, accounting] = GetParam();
    network::InOwn([family = family, accounting = accounting] {
        network::SetSysctl("net/netfilter/nf_conntrack_acct", accounting ? "1" : "0");
        flows::Track();
        const auto listener = traffic::Listen(family, port);
        traffic::Converse(listener, family, port, 5);
        traffic::Converse(listener, family, port, 3, traffic::Ending::Reset);
        const auto open = traffic::Attempts(family, port, 4);
        traffic::BeRefused(family, port + 1, 2);
        const Datagrams one_way(family, 9000, 0);
        const Datagrams both_ways(family, 9001, 3);

        // Packets of endings may still be under way.
        network::Eventually([] { return flows::LinesOf(Fetch()) == flows::Listed(); });
        const flows::Table table = Fetch();
        EXPECT_EQ(flows::LinesOf(table), flows::Listed());
        EXPECT_EQ(table.tcp.total, 12u);  // a refused one is gone at once
        EXPECT_EQ(table.udp.total, 2u);
        EXPECT_EQ(table.text.rfind("# connections: ctnetlink (engine linux)\n# udp: 2 flows\n", 0),
                  0u)
            << table.text;

        const vxa_conntrack_entry_s& answered = Find(table.udp, 9001);
        EXPECT_EQ(answered.family, family);
        EXPECT_GT(answered.timeout_s, 0u);
        const uint64_t headers = family == 4 ? 28 : 48;
        EXPECT_EQ(answered.flags & VXA_FLOW_COUNTERS_VALID, accounting ? 32 : 0);
        EXPECT_EQ(answered.bytes_backward, accounting ? 3 * (100 + headers) : 0);
    });
}

INSTANTIATE_TEST_SUITE_P(, TrackedFlows, testing::Combine(testing::Values(4, 6), testing::Bool()),
                         [](const auto& row) {
                             return "IPv" + std::to_string(std::get<0>(row.param)) +
                                    (std::get<1>(row.param) ? "Counted" : "NotCounted");
                         });

TEST_F(Flows, TellTranslatedAndMarkedOnes)
{
    network::InOwn([] {
        network::Run(
            "nft 'table ip t {\n"
            "chain o { type nat hook output priority -100; tcp dport {7000, 7001} dnat to :8443; "
            "}\n"
            "chain p { type nat hook postrouting priority 100;"
            " meta l4proto tcp ct original proto-dst {7001, 7002} snat to 127.0.0.9; }\n"
            "chain m { type filter hook output priority 0; tcp dport 7002 ct mark set 77; }\n"
            "}'");
        const auto listener = traffic::Listen(4, port);
        const auto other = traffic::Listen(4, 7002);
        const auto plain = traffic::Attempt(4, port);
        const auto dnat = traffic::Attempt(4, 7000);
        const auto both = traffic::Attempt(4, 7001);
        const auto snat = traffic::Attempt(4, 7002);

        const flows::Table table = Fetch();
        const auto translated = [&](uint16_t to) {
            return Find(table.tcp, to).flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT);
        };
        EXPECT_EQ(translated(port), 0);
        EXPECT_EQ(translated(7000), VXA_FLOW_DNAT);
        EXPECT_EQ(translated(7001), VXA_FLOW_SNAT | VXA_FLOW_DNAT);
        EXPECT_EQ(translated(7002), VXA_FLOW_SNAT);
        EXPECT_EQ(Find(table.tcp, 7002).mark, 77u);
        EXPECT_EQ(Find(table.tcp, port).mark, 0u);
        EXPECT_NE(table.text.find(" snat dnat\n"), std::string::npos) << table.text;
        EXPECT_NE(table.text.find(" snat mark=77\n"), std::string::npos) << table.text;
    });
}

TEST_F(Flows, OfOtherProtocolsAreOnlyCounted)
{
    network::InOwn([] {
        flows::Make(IPPROTO_UDP, 3);
        flows::Make(IPPROTO_UDPLITE, 2);
        const flows::Table table = Fetch();
        EXPECT_EQ(table.count, 3);
        EXPECT_EQ(table.text.rfind("# connections: ctnetlink, without 2 of other protocols ", 0),
                  0u)
            << table.text;
    });
}

struct Crowd {
    uint32_t udp, tcp;              // tracked
    uint32_t udp_shown, tcp_shown;  // in the table
};

class CrowdedFlows : public testing::TestWithParam<Crowd> {
protected:
    void SetUp() override { REQUIRE_CONNTRACK(); }
};

std::string Heading(const char* protocol, uint32_t shown, uint32_t total)
{
    const std::string count = std::to_string(shown);
    return std::string("# ") + protocol + ": " +
           (shown < total ? "showing " + count + " of " + std::to_string(total) : count) +
           " flows\n";
}

TEST_P(CrowdedFlows, ShareTheRoom)
{
    const Crowd crowd = GetParam();
    network::InOwn([&] {
        flows::Make(IPPROTO_UDP, crowd.udp);
        flows::Make(IPPROTO_TCP, crowd.tcp);
        const flows::Table table = Fetch();
        EXPECT_EQ(table.count, crowd.udp_shown + crowd.tcp_shown);
        EXPECT_EQ(table.udp.total, crowd.udp);
        EXPECT_EQ(table.tcp.total, crowd.tcp);
        EXPECT_EQ(table.udp.entries.size(), crowd.udp_shown);
        EXPECT_EQ(table.tcp.entries.size(), crowd.tcp_shown);
        EXPECT_NE(table.text.find(Heading("udp", crowd.udp_shown, crowd.udp)), std::string::npos);
        EXPECT_NE(table.text.find(Heading("tcp", crowd.tcp_shown, crowd.tcp)), std::string::npos);
        EXPECT_EQ(std::count(table.text.begin(), table.text.end(), '\n'), table.count + 3);
        const flows::Lines lines = flows::LinesOf(table);
        EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), lines.size())
            << "a flow is shown twice";
    });
}

INSTANTIATE_TEST_SUITE_P(
    , CrowdedFlows,
    testing::Values(Crowd{100, 65435, 100, 65435}, Crowd{100, 66000, 100, 65435},
                    Crowd{66000, 100, 65435, 100}, Crowd{40000, 40000, 32768, 32767},
                    Crowd{33000, 40000, 32767, 32768}, Crowd{40000, 0, 40000, 0}),
    [](const auto& row) {
        return std::to_string(row.param.udp) + "Udp" + std::to_string(row.param.tcp) + "Tcp";
    });

// Ends and states of connections as ss shows them, one line a socket of this host.
flows::Lines SocketsWithPeers()
{
    flows::Lines lines;
    std::istringstream shown(network::Run("ss -Htan; ss -Huan | sed s/^/udp./"));
    for (std::string state, received, sent, local, peer;
         shown >> state >> received >> sent >> local >> peer;) {
        if (peer.back() != '*') {
            lines.insert((state.rfind("udp.", 0) == 0 ? "udp " : "tcp ") + local + " " + peer);
        }
    }
    return lines;
}

std::string Swapped(const std::string& line)
{
    std::istringstream words(line);
    std::string protocol, first, second;
    words >> protocol >> first >> second;
    return protocol + " " + second + " " + first;
}

// The same of the text's flows, which stand in the direction in which they were opened.
flows::Lines SocketLines(const flows::Table& table, uint16_t opened_to)
{
    flows::Lines lines;
    std::istringstream text(table.text);
    const std::string end = ":" + std::to_string(opened_to);
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        std::string protocol, source, arrow, destination;
        words >> protocol >> source >> arrow >> destination;
        if (arrow == ">") {
            EXPECT_EQ(destination.substr(destination.size() - end.size()), end) << line;
            EXPECT_NE(line.find(" socket"), std::string::npos) << line;
            lines.insert(protocol + " " + source + " " + destination);
        }
    }
    return lines;
}

// Both readings with each socket's ends in a fixed order.
flows::Lines Unordered(const flows::Lines& lines)
{
    flows::Lines result;
    for (std::string line : lines) {
        // An IPv4 peer of an IPv6 socket reads ::ffff:127.0.0.1 in ss.
        for (size_t at; (at = line.find("[::ffff:127.0.0.1]")) != std::string::npos;) {
            line.replace(at, 18, "127.0.0.1");
        }
        result.insert(std::min(line, Swapped(line)));
    }
    return result;
}

void OpenSocketsAndCompare(const char* source)
{
    const auto v6 = traffic::Listen(6, port);
    const auto v4 = traffic::Listen(4, port);
    traffic::Converse(v4, 4, port, 3);
    const auto clients = traffic::Attempts(6, port, 3);
    const auto more = traffic::Attempts(4, port, 2);
    const Datagrams datagrams(4, port, 1);

    network::Child unprivileged([&] {
        if (*source == 'c') {
            ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
        }
        const flows::Table table = Fetch();
        EXPECT_EQ(table.text.rfind("# connections: sock_diag, " + std::string(source), 0), 0u)
            << table.text;
        EXPECT_EQ(Unordered(SocketLines(table, port)), Unordered(SocketsWithPeers()));
        EXPECT_EQ(table.tcp.total, table.tcp.entries.size());
        EXPECT_EQ(Find(table.udp, port).family, 4);
    });
    unprivileged.ExpectGood();
}

TEST_F(Flows, ComeFromSocketsWhereNoneIsTracked)
{
    network::InOwn([] { OpenSocketsAndCompare("no UDP or TCP flow is tracked (engine linux)\n"); });
}

TEST_F(Flows, ComeFromSocketsWithoutPrivilege)
{
    network::InOwn([] {
        flows::Track();
        OpenSocketsAndCompare("ctnetlink needs CAP_NET_ADMIN (engine linux)\n");
    });
}

TEST_F(Flows, OfSocketsCountPayload)
{
    network::InOwn([] {
        const auto listener = traffic::Listen(4, port);
        const auto client = traffic::Attempt(4, port);
        const traffic::Socket server(accept(listener.fd(), nullptr, nullptr));
        char data[1000] = {};
        ASSERT_TRUE(network::Eventually([&] { return send(client.fd(), data, 1000, 0) == 1000; }));
        ASSERT_EQ(recv(server.fd(), data, 1000, MSG_WAITALL), 1000);
        ASSERT_EQ(send(server.fd(), data, 300, 0), 300);
        const flows::Table table = Fetch();
        ASSERT_EQ(table.tcp.entries.size(), 2u);  // one at each end
        for (const vxa_conntrack_entry_s& entry : table.tcp.entries) {
            EXPECT_EQ(entry.flags, VXA_FLOW_FROM_SOCK_DIAG | VXA_FLOW_COUNTERS_VALID);
            EXPECT_EQ(entry.bytes_forward, 1000u);
            EXPECT_EQ(entry.bytes_backward, 300u);
            EXPECT_GT(entry.packets_forward, 0u);
        }
    });
}

// Signals cut system calls short while the table is read.
TEST_F(Flows, SurviveSignals)
{
    network::InOwn([] {
        flows::Make(IPPROTO_TCP, 30000);
        struct sigaction quiet = {};
        quiet.sa_handler = [](int) {};
        ASSERT_EQ(sigaction(SIGALRM, &quiet, nullptr), 0);
        const itimerval often = {{0, 200}, {0, 200}};
        ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
        const driver::Handle handle = driver::Open();
        for (unsigned i = 0; i < 5; ++i) {
            const flows::Table table = Fetch(handle);
            EXPECT_EQ(table.count, 30000);
            EXPECT_EQ(table.tcp.total, 30000u);
        }
    });
}

int Fill(const driver::Handle& handle, uint8_t protocol, uint16_t capacity,
         vxa_dump_conntrack_s& head)
{
    std::vector<uint64_t> block(2 + 9u * capacity + 1, 0x5a5a5a5a5a5a5a5a);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = {};
    section->request = VXA_CONNTRACK_REQUEST_TABLE;
    section->entry_ct = capacity;
    section->protocol = protocol;
    const int status = vxi_get_conntrack(handle.get(), section, 16 + 72u * capacity, nullptr);
    head = *section;
    EXPECT_EQ(block.back(), 0x5a5a5a5a5a5a5a5a) << "written beyond the capacity";
    return status;
}

TEST_F(Flows, AreServedFromOneSnapshot)
{
    network::InOwn([] {
        flows::Make(IPPROTO_UDP, 5);
        flows::Make(IPPROTO_TCP, 7);
        const driver::Handle handle = driver::Open();
        const driver::Handle idle = driver::Open();
        vxa_dump_conntrack_s head = {};
        EXPECT_EQ(Fill(handle, IPPROTO_UDP, 5, head), -ENODATA);

        vxa_dump_conntrack_s count = {};
        count.request = VXA_CONNTRACK_REQUEST_TABLE;
        ASSERT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0);
        EXPECT_EQ(count.entry_ct, 12);
        flows::Make(IPPROTO_UDPLITE, 1);
        network::Run("conntrack -F 2>/dev/null");

        EXPECT_EQ(Fill(idle, IPPROTO_TCP, 7, head), -ENODATA);
        ASSERT_EQ(Fill(handle, IPPROTO_TCP, 3, head), 0);
        EXPECT_EQ(head.entry_ct, 3);
        EXPECT_EQ(head.total, 7u);
        ASSERT_EQ(Fill(handle, IPPROTO_UDP, 12, head), 0);
        EXPECT_EQ(head.entry_ct, 5);
        EXPECT_EQ(head.total, 5u);
        EXPECT_EQ(Fill(handle, IPPROTO_UDP, 12, head), -ENODATA);
        EXPECT_EQ(Fill(handle, IPPROTO_TCP, 12, head), -ENODATA);
        // A handle that is closed with a snapshot in it is left to the leak checker.
        ASSERT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0);
    });
}

}  // namespace
