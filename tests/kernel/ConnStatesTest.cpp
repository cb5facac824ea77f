// Sockets counted by state against /proc and ss in the same namespace.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <map>
#include <sstream>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"

namespace {

constexpr uint16_t port = 8443;
constexpr uint16_t silent_port = 8444;

using Counts = std::array<uint64_t, 16>;

Counts ByState(const uint64_t (&counts)[16])
{
    Counts result;
    std::copy(std::begin(counts), std::end(counts), result.begin());
    return result;
}

// Lines "N: LOCAL:PORT PEER:PORT STATE .." behind one of titles.
Counts InProc(const std::string& table)
{
    Counts counts = {};
    std::ifstream file("/proc/net/" + table);
    std::string line;
    EXPECT_TRUE(std::getline(file, line)) << table;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        std::string number, local, peer, state;
        words >> number >> local >> peer >> state;
        ++counts.at(std::stoul(state, nullptr, 16));
    }
    return counts;
}

uint64_t Sum(const Counts& counts)
{
    uint64_t sum = 0;
    for (const uint64_t count : counts) {
        sum += count;
    }
    return sum;
}

Counts InSs()
{
    static const std::map<std::string, unsigned> states = {
        {"ESTAB", TCP_ESTABLISHED},    {"SYN-SENT", TCP_SYN_SENT},     {"SYN-RECV", TCP_SYN_RECV},
        {"FIN-WAIT-1", TCP_FIN_WAIT1}, {"FIN-WAIT-2", TCP_FIN_WAIT2},  {"TIME-WAIT", TCP_TIME_WAIT},
        {"UNCONN", TCP_CLOSE},         {"CLOSE-WAIT", TCP_CLOSE_WAIT}, {"LAST-ACK", TCP_LAST_ACK},
        {"LISTEN", TCP_LISTEN},        {"CLOSING", TCP_CLOSING},
    };
    Counts counts = {};
    std::istringstream shown(network::Run("ss -Htan"));
    for (std::string line; std::getline(shown, line);) {
        ++counts[states.at(line.substr(0, line.find(' ')))];
    }
    return counts;
}

vxa_get_conn_states_s Fetch()
{
    vxa_get_conn_states_s states;
    memset(&states, 0x5a, sizeof states);  // callers need not initialise it
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(vxi_get_conn_states(handle.get(), &states), 0) << driver::Error(handle);
    return states;
}

traffic::Socket BoundDatagram(int domain)
{
    traffic::Socket bound(socket(domain, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_in6 v6 = {AF_INET6, 0, 0, in6addr_any, 0};
    const sockaddr_in v4 = {AF_INET, 0, {}, {}};
    const auto* address = domain == AF_INET ? reinterpret_cast<const sockaddr*>(&v4)
                                            : reinterpret_cast<const sockaddr*>(&v6);
    EXPECT_EQ(bind(bound.fd(), address, domain == AF_INET ? sizeof v4 : sizeof v6), 0);
    return bound;
}

// Answers to the silent port get lost: its clients stay in SYN_SENT, and it sees their
// openings half-way.
void Silence()
{
    network::Run(
        "nft 'table inet silence { chain c { type filter hook input priority 0; tcp sport " +
        std::to_string(silent_port) + " drop; }; }'");
}

void CompareAll()
{
    const vxa_get_conn_states_s states = Fetch();
    EXPECT_EQ(states.version, 1u);
    EXPECT_EQ(ByState(states.tcp4), InProc("tcp"));
    EXPECT_EQ(ByState(states.tcp6), InProc("tcp6"));
    EXPECT_EQ(states.udp4, Sum(InProc("udp")));
    EXPECT_EQ(states.udp6, Sum(InProc("udp6")));
    Counts both = ByState(states.tcp4);
    for (unsigned i = 0; i < both.size(); ++i) {
        both[i] += states.tcp6[i];
    }
    EXPECT_EQ(both, InSs());
    EXPECT_EQ(states.count, Sum(both) + states.udp4 + states.udp6);
}

TEST(ConnStates, AreThoseOfProcAndSs)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        Silence();
        const auto v4 = traffic::Listen(4, port);
        const auto v6 = traffic::Listen(6, port);
        const auto silent = traffic::Listen(4, silent_port);
        traffic::Converse(v4, 4, port, 7);
        traffic::Converse(v6, 6, port, 6);
        const auto open = traffic::Attempts(4, port, 5);
        const auto opening = traffic::Attempts(4, silent_port, 4);
        const auto closing = traffic::Attempt(6, port);
        ASSERT_TRUE(network::Eventually([] { return Fetch().tcp6[TCP_ESTABLISHED] == 2; }));
        ASSERT_EQ(shutdown(closing.fd(), SHUT_WR), 0);
        ASSERT_TRUE(network::Eventually([] { return Fetch().tcp6[TCP_FIN_WAIT2] == 1; }));
        const auto datagram4 = BoundDatagram(AF_INET);
        const auto datagram6 = BoundDatagram(AF_INET6);
        const auto another6 = BoundDatagram(AF_INET6);

        CompareAll();
        const vxa_get_conn_states_s states = Fetch();
        EXPECT_EQ(states.tcp4[TCP_LISTEN], 2u);
        EXPECT_EQ(states.tcp4[TCP_ESTABLISHED], 10u);
        EXPECT_EQ(states.tcp4[TCP_SYN_SENT], 4u);
        EXPECT_EQ(states.tcp4[TCP_SYN_RECV], 4u);
        EXPECT_EQ(states.tcp4[TCP_TIME_WAIT], 7u);
        EXPECT_EQ(states.tcp6[TCP_TIME_WAIT], 6u);
        EXPECT_EQ(states.tcp6[TCP_CLOSE_WAIT], 1u);
        EXPECT_EQ(states.udp4, 1u);
        EXPECT_EQ(states.udp6, 2u);

        network::Child unprivileged([] {
            ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
            CompareAll();
        });
        unprivileged.ExpectGood();
    });
}

TEST(ConnStates, OfAnEmptyNamespaceAreAllZero)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        const vxa_get_conn_states_s states = Fetch();
        EXPECT_EQ(states.count, 0u);
        EXPECT_EQ(Sum(ByState(states.tcp4)) + Sum(ByState(states.tcp6)), 0u);
    });
}

}  // namespace
