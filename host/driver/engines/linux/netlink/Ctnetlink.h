// ctnetlink: dumps of the kernel's connection tracking table.
#pragma once

#include <cstdint>

#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// Passes all conntrack entries to `visit`, of all protocols and both IP versions in one go: a
// filter in the kernel takes one dump for each protocol and family, and each of those walks the
// whole table. Throws Error: -EPERM without CAP_NET_ADMIN.
Consistency DumpConntrack(Netlink::Visitor visit);

// Whether this is a conntrack entry of such a dump.
bool IsConntrackEntry(const nlmsghdr& message);

// Number of entries in the table of this network namespace, without reading it. Throws Error.
std::uint32_t CountConntrackEntries();

}  // namespace vxi
