// Flows as the sockets of this host show them, for where the kernel tracks none.
#pragma once

#include <bitset>

#include "engines/linux/netlink/SocketDump.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// The states that a connection's socket can be in, and those that wait for connections.
constexpr std::uint32_t kFlowSocketStates = ~0u & ~(1u << kSocketBound);

// The flow of a socket that has a peer, from this host's end to the peer's.
vxa_conntrack_entry_s SocketFlow(std::uint8_t protocol, const inet_diag_msg& socket,
                                 const Attributes& details);

using Ports = std::bitset<65536>;

// Ports on which sockets wait for peers, or waited when the flows were last read and still
// have flows: accepted connections outlive their listener, if only in TIME_WAIT.
struct WaitingPorts {
    Ports udp;
    Ports tcp;
};

// One flow per socket with a peer, from the end that opened it to the end that waited: the
// peer opened those on a waiting port. A connection within this host is two flows. `waiting`
// is what the previous reading left there. Outcome and shortfall as for read_sockets.
Outcome read_socket_flows(const SocketDump& dump, FlowSnapshot& flows, std::string& shortfall,
                          WaitingPorts& waiting);

}  // namespace vxi
