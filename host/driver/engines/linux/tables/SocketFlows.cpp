#include "engines/linux/tables/SocketFlows.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <utility>

namespace vxi {

namespace {

constexpr uint32_t ms_per_s = 1000;
constexpr uint8_t time_wait_timer = 3;  // idiag_timer: idiag_expires ends the socket

// The nearest state of a tracked flow.
uint8_t tracked_state_of(uint8_t socket_state)
{
    static constexpr uint8_t states[] = {
        TCP_CONNTRACK_NONE,      TCP_CONNTRACK_ESTABLISHED, TCP_CONNTRACK_SYN_SENT,
        TCP_CONNTRACK_SYN_RECV,  TCP_CONNTRACK_FIN_WAIT,    TCP_CONNTRACK_FIN_WAIT,
        TCP_CONNTRACK_TIME_WAIT, TCP_CONNTRACK_CLOSE,       TCP_CONNTRACK_CLOSE_WAIT,
        TCP_CONNTRACK_LAST_ACK,  TCP_CONNTRACK_NONE,        TCP_CONNTRACK_LAST_ACK,
        TCP_CONNTRACK_SYN_RECV,
    };
    static_assert(std::size(states) == SocketNewSynReceived + 1, "one for each");
    return socket_state < std::size(states) ? states[socket_state] : uint8_t{TCP_CONNTRACK_NONE};
}

// A socket of IPv6 that speaks IPv4 has an IPv4 flow.
bool is_ipv4(const inet_diag_msg& socket)
{
    static constexpr uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return socket.idiag_family == AF_INET ||
           (memcmp(socket.id.idiag_src, mapped, sizeof mapped) == 0 &&
            memcmp(socket.id.idiag_dst, mapped, sizeof mapped) == 0);
}

void take_addresses(const inet_diag_msg& socket, vxa_conntrack_entry_s& entry)
{
    if (is_ipv4(socket)) {
        const unsigned word = socket.idiag_family == AF_INET ? 0 : 3;
        entry.family = 4;
        memcpy(entry.source, &socket.id.idiag_src[word], 4);
        memcpy(entry.destination, &socket.id.idiag_dst[word], 4);
        return;
    }
    entry.family = 6;
    memcpy(entry.source, socket.id.idiag_src, sizeof entry.source);
    memcpy(entry.destination, socket.id.idiag_dst, sizeof entry.destination);
}

// No connection yet: what the kernel has counted are attempts.
bool is_opening(uint8_t socket_state)
{
    return socket_state == SocketSynSent || socket_state == SocketSynReceived ||
           socket_state == SocketNewSynReceived;
}

// The record grows with every kernel: what is used must be in it.
void take_counters(const nlattr* attribute, vxa_conntrack_entry_s& entry)
{
    constexpr size_t needed = offsetof(tcp_info, tcpi_bytes_sent) + sizeof(__u64);
    if (!attribute || mnl_attr_get_payload_len(attribute) < needed) {
        return;
    }
    tcp_info info = {};
    memcpy(&info, mnl_attr_get_payload(attribute), needed);
    entry.flags |= VXA_FLOW_COUNTERS_VALID;
    entry.packets_forward = info.tcpi_segs_out;
    entry.packets_backward = info.tcpi_segs_in;
    entry.bytes_forward = info.tcpi_bytes_sent;
    entry.bytes_backward = info.tcpi_bytes_received;
}

void take_mark(const nlattr* attribute, vxa_conntrack_entry_s& entry)
{
    if (attribute && mnl_attr_get_payload_len(attribute) == sizeof entry.mark) {
        memcpy(&entry.mark, mnl_attr_get_payload(attribute), sizeof entry.mark);
    }
}

uint16_t port_of(const uint8_t (&bytes)[2])
{
    return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

void turn_round(vxa_conntrack_entry_s& entry)
{
    std::swap(entry.source, entry.destination);
    std::swap(entry.source_port, entry.destination_port);
    std::swap(entry.packets_forward, entry.packets_backward);
    std::swap(entry.bytes_forward, entry.bytes_backward);
}

// What one table showed.
struct TableSockets {
    FlowList flows;
    Ports waiting;  // of sockets without a peer
    Ports in_use;   // of sockets with one
};

void take_socket(uint8_t protocol, const inet_diag_msg& socket, const Attributes& details,
                 TableSockets& table)
{
    if (socket.id.idiag_dport == 0) {
        table.waiting.set(ntohs(socket.id.idiag_sport));
    } else {
        table.in_use.set(ntohs(socket.id.idiag_sport));
        table.flows.add(socket_flow(protocol, socket, details));
    }
}

void hand_over(const Ports& waiting, FlowList& from, FlowList& to)
{
    for (vxa_conntrack_entry_s& entry : from.entries) {
        if (waiting.test(port_of(entry.source_port))) {
            turn_round(entry);
        }
    }
    to.append(from);
    from = {};
}

using AllSockets = std::array<TableSockets, socket_table_count>;

// A socket of IPv6 can wait for IPv4 as well, so the ports of both tables count for both.
void hand_over(uint8_t protocol, AllSockets& tables, Ports& waiting, FlowList& to)
{
    Ports now, in_use;
    for (unsigned i = 0; i < socket_table_count; ++i) {
        if (socket_tables[i].protocol == protocol) {
            now |= tables[i].waiting;
            in_use |= tables[i].in_use;
        }
    }
    waiting = now | (waiting & in_use);
    for (unsigned i = 0; i < socket_table_count; ++i) {
        if (socket_tables[i].protocol == protocol) {
            hand_over(waiting, tables[i].flows, to);
        }
    }
}

}  // namespace

vxa_conntrack_entry_s socket_flow(uint8_t protocol, const inet_diag_msg& socket,
                                  const Attributes& details)
{
    vxa_conntrack_entry_s entry = {};
    entry.flags = VXA_FLOW_FROM_SOCK_DIAG;
    take_addresses(socket, entry);
    memcpy(entry.source_port, &socket.id.idiag_sport, sizeof entry.source_port);
    memcpy(entry.destination_port, &socket.id.idiag_dport, sizeof entry.destination_port);
    if (protocol == IPPROTO_TCP) {
        entry.tcp_state = tracked_state_of(socket.idiag_state);
        if (!is_opening(socket.idiag_state)) {
            take_counters(details.find(INET_DIAG_INFO), entry);
        }
    }
    if (socket.idiag_timer == time_wait_timer) {
        entry.timeout_s = socket.idiag_expires / ms_per_s;
    }
    take_mark(details.find(INET_DIAG_MARK), entry);
    return entry;
}

Outcome read_socket_flows(const SocketDump& dump, FlowSnapshot& flows, std::string& shortfall,
                          WaitingPorts& waiting)
{
    const auto tables = std::make_unique<AllSockets>();
    const SocketSink sink = {
        [&](unsigned table) { (*tables)[table] = {}; },
        [&](unsigned table, const inet_diag_msg& socket, const Attributes& details) {
            take_socket(socket_tables[table].protocol, socket, details, (*tables)[table]);
        }};
    flows = {};
    const Outcome outcome = read_sockets(dump, sink, shortfall);
    if (!outcome.failed()) {
        hand_over(IPPROTO_UDP, *tables, waiting.udp, flows.udp);
        hand_over(IPPROTO_TCP, *tables, waiting.tcp, flows.tcp);
    }
    return outcome;
}

}  // namespace vxi
