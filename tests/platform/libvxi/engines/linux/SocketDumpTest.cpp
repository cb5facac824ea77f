// Tables of sockets, such as cannot be read among them.
#include "engines/linux/SocketDump.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstddef>

#include "Samples.h"
#include "engines/linux/ConnStates.h"
#include "engines/linux/SocketFlows.h"

namespace {

// One socket in every table; the statuses say how reading each ends, every time.
struct Tables {
    int status[vxi::socket_table_count];
    SocketSample sample = {};

    int operator()(const vxi::SocketTable& table, vxi::Netlink::Visit visit) const
    {
        visit(Socket(sample).header());
        return status[&table - vxi::socket_tables];
    }
};

TEST(ReadSockets, FailOnlyWhenNoTableCanBeRead)
{
    const struct {
        Tables tables;
        int status;
        uint32_t count;
        const char* text;
    } rows[] = {
        {{{0, 0, 0, 0}}, 0, 4, ""},
        {{{0, 0, -ENOENT, -ENOENT}},
         0,
         2,
         ", IPv4 udp missing: No such file or directory, IPv6 udp missing: No such file or "
         "directory"},
        {{{0, -EINTR, 0, 0}}, 0, 4, ", IPv6 tcp interrupted: incomplete"},
        {{{-ENOENT, -ENOENT, -ENOENT, -EACCES}}, -EACCES, 0, "sock_diag: Permission denied"},
    };
    for (const auto& row : rows) {
        vxa_get_conn_states_s states;
        std::string shortfall;
        const vxi::Outcome outcome = vxi::count_sockets(row.tables, states, shortfall);
        EXPECT_EQ(outcome.status, row.status);
        EXPECT_EQ(outcome.failed() ? outcome.text : shortfall, row.text);
        EXPECT_EQ(states.count, row.count);
        EXPECT_EQ(states.tcp4[vxi::SocketEstablished], row.tables.status[0] == 0);

        vxi::FlowSnapshot flows;
        vxi::WaitingPorts waiting;
        EXPECT_EQ(vxi::read_socket_flows(row.tables, flows, shortfall, waiting).status, row.status);
        EXPECT_EQ(flows.udp.total + flows.tcp.total, row.count);
    }
}

TEST(CountSockets, KeepsStatesThatHaveNoSlot)
{
    vxa_get_conn_states_s states;
    std::string shortfall;
    const Tables tables = {{}, {200}};
    ASSERT_FALSE(vxi::count_sockets(tables, states, shortfall).failed());
    EXPECT_EQ(states.count, 4u);
    EXPECT_EQ(states.tcp4[0], 1u);
    EXPECT_EQ(states.udp4, 1u);
}

vxi::FlowSnapshot Flows(const SocketSample& sample)
{
    vxi::FlowSnapshot flows;
    std::string shortfall;
    vxi::WaitingPorts waiting;
    EXPECT_FALSE(vxi::read_socket_flows(Tables{{}, sample}, flows, shortfall, waiting).failed());
    return flows;
}

TEST(SocketFlows, TakeOnlyWhatIsWhole)
{
    constexpr size_t needed = offsetof(tcp_info, tcpi_bytes_sent) + 8;
    const struct {
        size_t info_size, mark_size;
        bool counted;
        uint32_t mark;
    } rows[] = {{sizeof(tcp_info) + 64, 4, true, 77},
                {needed, 4, true, 77},
                {needed - 1, 4, false, 77},
                {0, 3, false, 0},
                {needed, 8, true, 0}};
    for (const auto& row : rows) {
        const auto entry = Flows({vxi::SocketEstablished, 40000, 443, row.info_size, row.mark_size})
                               .tcp.entries.at(0);
        EXPECT_EQ(entry.flags,
                  VXA_FLOW_FROM_SOCK_DIAG | (row.counted ? VXA_FLOW_COUNTERS_VALID : 0));
        EXPECT_EQ(entry.bytes_forward, row.counted ? 11u : 0u);
        EXPECT_EQ(entry.bytes_backward, row.counted ? 22u : 0u);
        EXPECT_EQ(entry.mark, row.mark);
    }
}

TEST(SocketFlows, HaveTheNearestTrackedState)
{
    const struct {
        uint8_t socket, tracked;
        bool opening;  // without counts, though the message holds some
    } rows[] = {{vxi::SocketEstablished, TCP_CONNTRACK_ESTABLISHED, false},
                {vxi::SocketSynSent, TCP_CONNTRACK_SYN_SENT, true},
                {vxi::SocketSynReceived, TCP_CONNTRACK_SYN_RECV, true},
                {vxi::SocketFinWait2, TCP_CONNTRACK_FIN_WAIT, false},
                {vxi::SocketTimeWait, TCP_CONNTRACK_TIME_WAIT, false},
                {vxi::SocketCloseWait, TCP_CONNTRACK_CLOSE_WAIT, false},
                {vxi::SocketNewSynReceived, TCP_CONNTRACK_SYN_RECV, true},
                {99, TCP_CONNTRACK_NONE, false}};
    for (const auto& row : rows) {
        const auto entry = Flows({row.socket}).tcp.entries.at(0);
        EXPECT_EQ(entry.tcp_state, row.tracked);
        EXPECT_EQ((entry.flags & VXA_FLOW_COUNTERS_VALID) == 0, row.opening);
    }
}

// From the peer to the port while a socket waits there, and for as long as flows are left.
TEST(SocketFlows, KeepTheirDirectionAfterTheListener)
{
    const SocketSample listener = {vxi::SocketListen, 443, 0};
    const SocketSample accepted = {vxi::SocketTimeWait, 443, 40000};
    const struct {
        std::vector<SocketSample> sockets;
        bool inbound;
    } readings[] = {{{accepted}, false}, {{accepted, listener}, true},
                    {{accepted}, true},  {{accepted}, true},
                    {{}, false},         {{accepted}, false}};
    vxi::WaitingPorts waiting;
    for (const auto& reading : readings) {
        const auto dump = [&](const vxi::SocketTable& table, vxi::Netlink::Visit visit) {
            for (const SocketSample& sample : reading.sockets) {
                if (table.family == AF_INET && table.protocol == IPPROTO_TCP) {
                    visit(Socket(sample).header());
                }
            }
            return 0;
        };
        vxi::FlowSnapshot flows;
        std::string shortfall;
        vxi::read_socket_flows(dump, flows, shortfall, waiting);
        EXPECT_EQ(flows.tcp.entries.size(), reading.sockets.empty() ? 0u : 1u);
        for (const auto& entry : flows.tcp.entries) {
            EXPECT_EQ(entry.destination_port[0] * 256 + entry.destination_port[1],
                      reading.inbound ? 443 : 40000);
        }
    }
}

}  // namespace
