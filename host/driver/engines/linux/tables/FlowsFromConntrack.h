// Flows as the kernel's connection tracking table has them.
#pragma once

#include <functional>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// Adds the flow in one message of a conntrack dump to `flows`; other messages are skipped.
void AddConntrackFlow(const nlmsghdr& message, FlowSnapshot& flows);

// Reads the whole table into `flows`, again while the dump is interrupted, five times at most.
// Throws what `dump` (DumpConntrack) throws, and Error with -ECANCELED when the host wants the
// read to end.
using ConntrackDump = std::function<Consistency(Netlink::Visitor)>;
Consistency ReadConntrackFlows(const ConntrackDump& dump, FlowSnapshot& flows);

}  // namespace vxi
