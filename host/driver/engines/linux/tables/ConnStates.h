// Sockets counted by state and IP version.
#pragma once

#include <string>

#include "engines/linux/netlink/SockDiag.h"
#include "vxi/records.h"

namespace vxi {

// Counts the sockets of `dump` into `states`. Returns what is missing, and throws, as ReadSockets
// does.
std::string CountSockets(const SocketDump& dump, vxa_get_conn_states_s& states);

}  // namespace vxi
