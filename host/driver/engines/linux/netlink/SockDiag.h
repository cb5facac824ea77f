// sock_diag (sock_diag(7)): the sockets of this network namespace. Needs no privilege.
#pragma once

#include <linux/inet_diag.h>

#include <functional>
#include <string>

#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// Values of inet_diag_msg.idiag_state. <netinet/tcp.h> has the same numbers, but cannot be
// included together with the kernel's own header and lacks the last two.
enum SocketState : std::uint8_t {
    kSocketEstablished = 1,
    kSocketSynSent,
    kSocketSynReceived,
    kSocketFinWait1,
    kSocketFinWait2,
    kSocketTimeWait,
    kSocketClosed,
    kSocketCloseWait,
    kSocketLastAck,
    kSocketListen,
    kSocketClosing,
    kSocketNewSynReceived,
    kSocketBound,
};

// The kernel dumps one protocol and IP version at a time. IPv6 sockets that speak IPv4 are in the
// table of IPv6.
struct SocketTable {
    std::uint8_t family;    // AF_INET or AF_INET6
    std::uint8_t protocol;  // IPPROTO_TCP or IPPROTO_UDP
    const char* name;
};
constexpr unsigned kSocketTableCount = 4;
extern const SocketTable kSocketTables[kSocketTableCount];

struct SocketQuery {
    std::uint32_t states;  // one bit for each SocketState
    bool with_tcp_info;
};

// Dumps one table. KernelSockets returns the dump of this namespace's sockets, which throws Error.
using SocketDump = std::function<Consistency(const SocketTable&, Netlink::Visitor)>;
SocketDump KernelSockets(const SocketQuery& query);

// Throws Error unless sock_diag answers for TCP.
void CheckSockDiag();

struct SocketSink {
    // Called before a table is read, and before it is read again: drop what it had so far.
    std::function<void(unsigned table)> begin;
    std::function<void(unsigned table, const inet_diag_msg&, const Attributes&)> add;
};

// Reads all tables, each again while it is interrupted, five times at most. Returns what is
// missing, as in ", IPv6 udp missing: No such file or directory"; empty when nothing is. Throws
// Error when no table can be read, and with -ECANCELED when the host wants the read to end.
std::string ReadSockets(const SocketDump& dump, const SocketSink& sink);

}  // namespace vxi
