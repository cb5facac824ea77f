// sock_diag: the sockets of this network namespace. Needs no privilege.
#pragma once

#include <linux/inet_diag.h>

#include <functional>
#include <string>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/Outcome.h"

namespace vxi {

// What inet_diag_msg.idiag_state can be; <netinet/tcp.h> has the same numbers, but cannot be
// included together with the kernel's own header and lacks the last two.
enum SocketState : uint8_t {
    SocketEstablished = 1,
    SocketSynSent,
    SocketSynReceived,
    SocketFinWait1,
    SocketFinWait2,
    SocketTimeWait,
    SocketClosed,
    SocketCloseWait,
    SocketLastAck,
    SocketListen,
    SocketClosing,
    SocketNewSynReceived,
    SocketBound,
};

// The kernel answers for one protocol and IP version at a time. IPv6 sockets that speak
// IPv4 stand in the table of IPv6.
struct SocketTable {
    uint8_t family;    // AF_INET or AF_INET6
    uint8_t protocol;  // IPPROTO_TCP or IPPROTO_UDP
    const char* name;
};
constexpr unsigned socket_table_count = 4;
extern const SocketTable socket_tables[socket_table_count];

struct SocketQuery {
    uint32_t states;  // one bit a state
    bool details;     // with tcp_info
};

// One reading of one table; statuses as those of Netlink::request.
using SocketDump = std::function<int(const SocketTable&, const Netlink::Visit&)>;
SocketDump kernel_sockets(const SocketQuery& query);

// Whether sock_diag answers for TCP: 0 or a negated errno.
int ask_for_no_sockets();

struct SocketSink {
    // Before a table is read, also when it is read again: nothing of it counts so far.
    std::function<void(unsigned table)> begin;
    std::function<void(unsigned table, const inet_diag_msg&, const Attributes&)> take;
};

// Reads all tables, each again while it is interrupted, five times at most. Fails only when
// none can be read; otherwise says in `shortfall` what is missing, empty when nothing is.
Outcome read_sockets(const SocketDump& dump, const SocketSink& sink, std::string& shortfall);

}  // namespace vxi
