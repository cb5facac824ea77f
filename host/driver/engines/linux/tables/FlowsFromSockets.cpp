// Decodes sockets (linux/inet_diag.h) and finds which end opened their connections.
#include "engines/linux/tables/FlowsFromSockets.h"

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

constexpr std::uint32_t kMsPerS = 1000;
constexpr std::uint8_t kTimeWaitTimer = 3;  // in idiag_timer: idiag_expires is the end of TIME_WAIT

// The conntrack state nearest to a socket's.
std::uint8_t ConntrackState(std::uint8_t socket_state)
{
    static constexpr std::uint8_t kStates[] = {
        TCP_CONNTRACK_NONE,      TCP_CONNTRACK_ESTABLISHED, TCP_CONNTRACK_SYN_SENT,
        TCP_CONNTRACK_SYN_RECV,  TCP_CONNTRACK_FIN_WAIT,    TCP_CONNTRACK_FIN_WAIT,
        TCP_CONNTRACK_TIME_WAIT, TCP_CONNTRACK_CLOSE,       TCP_CONNTRACK_CLOSE_WAIT,
        TCP_CONNTRACK_LAST_ACK,  TCP_CONNTRACK_NONE,        TCP_CONNTRACK_LAST_ACK,
        TCP_CONNTRACK_SYN_RECV,
    };
    static_assert(std::size(kStates) == kSocketNewSynReceived + 1, "one for each state");
    return socket_state < std::size(kStates) ? kStates[socket_state]
                                             : std::uint8_t{TCP_CONNTRACK_NONE};
}

// An IPv6 socket with IPv4-mapped addresses (RFC 4291, 2.5.5.2) has an IPv4 flow.
bool IsIpv4(const inet_diag_msg& socket)
{
    static constexpr std::uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    return socket.idiag_family == AF_INET ||
           (memcmp(socket.id.idiag_src, kMapped, sizeof kMapped) == 0 &&
            memcmp(socket.id.idiag_dst, kMapped, sizeof kMapped) == 0);
}

void CopyAddresses(const inet_diag_msg& socket, vxa_conntrack_entry_s& entry)
{
    if (IsIpv4(socket)) {
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

// Not a connection yet: what the kernel has counted are attempts.
bool IsOpening(std::uint8_t socket_state)
{
    return socket_state == kSocketSynSent || socket_state == kSocketSynReceived ||
           socket_state == kSocketNewSynReceived;
}

// tcp_info grows with new kernels: it must reach as far as what is used.
void CopyCounters(const nlattr* attribute, vxa_conntrack_entry_s& entry)
{
    constexpr std::size_t kNeeded = offsetof(tcp_info, tcpi_bytes_sent) + sizeof(__u64);
    if (!attribute || mnl_attr_get_payload_len(attribute) < kNeeded) {
        return;
    }
    tcp_info info = {};
    memcpy(&info, mnl_attr_get_payload(attribute), kNeeded);
    entry.flags |= VXA_FLOW_COUNTERS_VALID;
    entry.packets_forward = info.tcpi_segs_out;
    entry.packets_backward = info.tcpi_segs_in;
    entry.bytes_forward = info.tcpi_bytes_sent;
    entry.bytes_backward = info.tcpi_bytes_received;
}

// The flow of a socket with a peer, from this host to the peer.
vxa_conntrack_entry_s MakeEntry(std::uint8_t protocol, const inet_diag_msg& socket,
                                const Attributes& details)
{
    vxa_conntrack_entry_s entry = {};
    entry.flags = VXA_FLOW_FROM_SOCK_DIAG;
    CopyAddresses(socket, entry);
    memcpy(entry.source_port, &socket.id.idiag_sport, sizeof entry.source_port);
    memcpy(entry.destination_port, &socket.id.idiag_dport, sizeof entry.destination_port);
    if (protocol == IPPROTO_TCP) {
        entry.tcp_state = ConntrackState(socket.idiag_state);
        if (!IsOpening(socket.idiag_state)) {
            CopyCounters(details.Find(INET_DIAG_INFO), entry);
        }
    }
    if (socket.idiag_timer == kTimeWaitTimer) {
        entry.timeout_s = socket.idiag_expires / kMsPerS;
    }
    CopyPayload(details.Find(INET_DIAG_MARK), &entry.mark, sizeof entry.mark);
    return entry;
}

std::uint16_t DecodePort(const std::uint8_t (&bytes)[2])
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

void Reverse(vxa_conntrack_entry_s& entry)
{
    std::swap(entry.source, entry.destination);
    std::swap(entry.source_port, entry.destination_port);
    std::swap(entry.packets_forward, entry.packets_backward);
    std::swap(entry.bytes_forward, entry.bytes_backward);
}

// What one of the kernel's tables showed.
struct TableSockets {
    FlowList flows;
    Ports listening;  // of sockets without a peer
    Ports in_use;     // of sockets with one
};

void AddSocket(std::uint8_t protocol, const inet_diag_msg& socket, const Attributes& details,
               TableSockets& table)
{
    if (socket.id.idiag_dport == 0) {
        table.listening.set(ntohs(socket.id.idiag_sport));
    } else {
        table.in_use.set(ntohs(socket.id.idiag_sport));
        table.flows.Add(MakeEntry(protocol, socket, details));
    }
}

// Appends `from` to `to`, each flow from the end that opened it, and empties it.
void MoveFlows(const Ports& listening, FlowList& from, FlowList& to)
{
    for (vxa_conntrack_entry_s& entry : from.entries) {
        if (listening.test(DecodePort(entry.source_port))) {
            Reverse(entry);
        }
    }
    to.Append(from);
    from = {};
}

using AllSockets = std::array<TableSockets, kSocketTableCount>;

// Moves the flows of both IP versions. An IPv6 socket can listen for IPv4 too, so the ports of
// both tables count for both.
void MoveFlows(std::uint8_t protocol, AllSockets& tables, Ports& listening, FlowList& to)
{
    Ports now, in_use;
    for (unsigned i = 0; i < kSocketTableCount; ++i) {
        if (kSocketTables[i].protocol == protocol) {
            now |= tables[i].listening;
            in_use |= tables[i].in_use;
        }
    }
    listening = now | (listening & in_use);
    for (unsigned i = 0; i < kSocketTableCount; ++i) {
        if (kSocketTables[i].protocol == protocol) {
            MoveFlows(listening, tables[i].flows, to);
        }
    }
}

}  // namespace

std::string ReadSocketFlows(const SocketDump& dump, FlowSnapshot& flows, ListeningPorts& listening)
{
    const auto tables = std::make_unique<AllSockets>();
    const SocketSink sink = {
        [&](unsigned table) { (*tables)[table] = {}; },
        [&](unsigned table, const inet_diag_msg& socket, const Attributes& details) {
            AddSocket(kSocketTables[table].protocol, socket, details, (*tables)[table]);
        }};
    flows = {};
    std::string missing = ReadSockets(dump, sink);
    MoveFlows(IPPROTO_UDP, *tables, listening.udp, flows.udp);
    MoveFlows(IPPROTO_TCP, *tables, listening.tcp, flows.tcp);
    return missing;
}

}  // namespace vxi
