// Names of scan tables, which state port and process: "vxa_scan_inbound_443_pid_1234".
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "records/ScanTarget.h"

namespace vxi {

// "inbound" or "outbound".
const char* DirectionName(std::uint32_t direction);

// `attempt` above 0 gives another name, for when a process with the same number in another pid
// namespace has taken the first.
std::string ScanTableName(const ScanTarget& target, pid_t process, unsigned attempt);

// The process in such a name; nullopt for any other name.
std::optional<pid_t> ScanTableProcess(std::string_view name);

}  // namespace vxi
