// Flows as the sockets of this host show them, for where the kernel tracks none.
#pragma once

#include "engines/linux/FlowSnapshot.h"
#include "engines/linux/SocketDump.h"

namespace vxi {

// The states that a connection's socket can be in, and those that wait for connections.
constexpr uint32_t flow_socket_states = ~0u & ~(1u << SocketBound);

// The flow of a socket that has a peer, from this host's end to the peer's.
vxa_conntrack_entry_s socket_flow(uint8_t protocol, const inet_diag_msg& socket,
                                  const Attributes& details);

// One flow a socket with a peer, from who opened it to who was waiting: a socket whose port
// another one waits on was opened by its peer. A connection within this host is two flows.
// Outcome and shortfall as read_sockets has them.
Outcome read_socket_flows(const SocketDump& dump, FlowSnapshot& flows, std::string& shortfall);

}  // namespace vxi
