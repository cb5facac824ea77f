// Flows as the sockets of this host show them, where the kernel tracks none.
#pragma once

#include <bitset>
#include <string>

#include "engines/linux/netlink/SockDiag.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// States of sockets that have a peer or wait for one.
constexpr std::uint32_t kFlowSocketStates = ~0u & ~(1u << kSocketBound);

using Ports = std::bitset<65536>;

// Local ports of listening sockets (UDP: of sockets without a peer), and ports that were among
// them at the previous reading and still have flows: accepted connections outlive their listener,
// if only in TIME_WAIT.
struct ListeningPorts {
    Ports udp;
    Ports tcp;
};

// One flow per socket with a peer, from the end that opened it to the end that listened: the peer
// opened those on a listening port. A connection within this host is two flows. `listening` has the
// ports of the previous reading and gets those of this one. Returns what is missing, and throws, as
// ReadSockets does.
std::string ReadSocketFlows(const SocketDump& dump, FlowSnapshot& flows, ListeningPorts& listening);

}  // namespace vxi
