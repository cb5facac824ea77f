// Sockets counted by state and IP version.
#pragma once

#include "engines/linux/netlink/SocketDump.h"
#include "vxi/records.h"

namespace vxi {

// Outcome and shortfall as read_sockets has them.
Outcome CountSockets(const SocketDump& dump, vxa_get_conn_states_s& states, std::string& shortfall);

}  // namespace vxi
