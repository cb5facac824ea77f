// ctnetlink: the kernel's table of tracked flows.
#pragma once

#include <functional>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/tables/FlowSnapshot.h"

namespace vxi {

// One reading of a kernel table: hands each message to the visit. 0, a negated errno, or
// -EINTR when what came may lack flows or hold some twice.
using Dump = std::function<int(const Netlink::Visit&)>;

// All flows of all protocols and both IP versions in one go: to have the kernel select
// them takes one dump for each protocol and family, and each of those walks the whole table.
int DumpConntrack(const Netlink::Visit& visit);

// Adds the flow in one message of that dump.
void TakeFlow(const nlmsghdr& message, FlowSnapshot& flows);

// Reads the table again while the dump is interrupted, five times at most. -EINTR when the
// last one was, too: what it brought is in `flows`.
int read_conntrack(const Dump& dump, FlowSnapshot& flows);

// How many flows are tracked here: 0, or the negated errno of asking.
int CountTracked(std::uint32_t& count);

}  // namespace vxi
