// Sockets counted by state against /proc in the same namespace.
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <sstream>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"

using traffic::Local;

namespace {

constexpr uint16_t port = 8443;
constexpr uint16_t silent_port = 8444;

using Counts = std::array<uint64_t, 16>;

Counts InProc(const std::string& table)
{
    std::istringstream numbers(network::Run(
        "awk 'NR > 1 { ++n[$4] } END { for (i = 0; i < 16; ++i) print +n[sprintf(\"%02X\", i)] }' "
        "/proc/thread-self/net/" +
        table));
    Counts counts = {};
    for (uint64_t& count : counts) {
        EXPECT_TRUE(numbers >> count) << table;
    }
    return counts;
}

uint64_t Sum(const Counts& counts)
{
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

vxa_get_conn_states_s Fetch()
{
    vxa_get_conn_states_s states;
    memset(&states, 0x5a, sizeof states);  // callers need not initialise it
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(vxi_get_conn_states(handle.get(), &states), 0) << driver::Error(handle);
    return states;
}

void CompareAll()
{
    const vxa_get_conn_states_s states = Fetch();
    Counts tcp4, tcp6;
    std::copy(std::begin(states.tcp4), std::end(states.tcp4), tcp4.begin());
    std::copy(std::begin(states.tcp6), std::end(states.tcp6), tcp6.begin());
    EXPECT_EQ(states.version, 1u);
    EXPECT_EQ(tcp4, InProc("tcp"));
    EXPECT_EQ(tcp6, InProc("tcp6"));
    EXPECT_EQ(states.udp4, Sum(InProc("udp")));
    EXPECT_EQ(states.udp6, Sum(InProc("udp6")));
    EXPECT_EQ(states.count, Sum(tcp4) + Sum(tcp6) + states.udp4 + states.udp6);
}

NETWORK_TEST(ConnStates, AreThoseOfProc)
{
    CompareAll();
    EXPECT_EQ(Fetch().count, 0u);
    // Answers of the silent port get lost: its clients stay in SYN_SENT, and it sees their
    // openings half-way.
    network::Run(
        "nft 'table inet silence { chain c { type filter hook input priority 0; tcp sport 8444 "
        "drop; }; }'");
    const auto v4 = traffic::Listen(Local(4, port));
    const auto v6 = traffic::Listen(Local(6, port));
    const auto silent = traffic::Listen(Local(4, silent_port));
    traffic::Converse(v4, Local(4, port), 7);
    traffic::Converse(v6, Local(6, port), 6);
    const auto open = traffic::Attempt(Local(4, port), 5);
    const auto opening = traffic::Attempt(Local(4, silent_port), 4);
    const auto closing = traffic::Connect(Local(6, port));
    ASSERT_EQ(shutdown(closing.fd(), SHUT_WR), 0);
    ASSERT_TRUE(network::Eventually([] { return Fetch().tcp6[TCP_FIN_WAIT2] == 1; }));
    const auto datagrams4 = traffic::Exchange(Local(4, port), 1);
    const auto datagrams6 = traffic::Exchange(Local(6, port), 1);
    const auto more6 = traffic::Exchange(Local(6, port + 1), 1);

    CompareAll();
    const vxa_get_conn_states_s states = Fetch();
    EXPECT_EQ(states.tcp4[TCP_LISTEN], 2u);
    EXPECT_EQ(states.tcp4[TCP_ESTABLISHED], 10u);
    EXPECT_EQ(states.tcp4[TCP_SYN_SENT], 4u);
    EXPECT_EQ(states.tcp4[TCP_SYN_RECV], 4u);
    EXPECT_EQ(states.tcp4[TCP_TIME_WAIT], 7u);
    EXPECT_EQ(states.tcp6[TCP_CLOSE_WAIT], 1u);
    EXPECT_EQ(states.udp4, 2u);
    EXPECT_EQ(states.udp6, 4u);
    network::BecomeNobody();
    CompareAll();
}

}  // namespace
