// sock_diag: the sockets of this network namespace. Needs no privilege.
#pragma once

#include <linux/inet_diag.h>

#include <functional>
#include <string>

#include "engines/linux/Outcome.h"
#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// What inet_diag_msg.idiag_state can be; <netinet/tcp.h> has the same numbers, but cannot be
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

// The kernel answers for one protocol and IP version at a time. IPv6 sockets that speak
// IPv4 stand in the table of IPv6.
struct SocketTable {
    std::uint8_t family;    // AF_INET or AF_INET6
    std::uint8_t protocol;  // IPPROTO_TCP or IPPROTO_UDP
    const char* name;
};
constexpr unsigned kSocketTableCount = 4;
extern const SocketTable kSocketTables[kSocketTableCount];

struct SocketQuery {
    std::uint32_t states;  // one bit a state
    bool details;          // with tcp_info
};

// One reading of one table; statuses as those of Netlink::request.
using SocketDump = std::function<int(const SocketTable&, const Netlink::Visit&)>;
SocketDump KernelSockets(const SocketQuery& query);

// Whether sock_diag answers for TCP: 0 or a negated errno.
int AskForNoSockets();

struct SocketSink {
    // Before a table is read, also when it is read again: nothing of it counts so far.
    std::function<void(unsigned table)> begin;
    std::function<void(unsigned table, const inet_diag_msg&, const Attributes&)> take;
};

// Reads all tables, each again while it is interrupted, five times at most. Fails only when
// none can be read; otherwise says in `shortfall` what is missing, empty when nothing is.
Outcome read_sockets(const SocketDump& dump, const SocketSink& sink, std::string& shortfall);

}  // namespace vxi
