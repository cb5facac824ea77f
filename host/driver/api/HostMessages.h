// Problems reported to the host although no call fails; see vxi_set_message_handler.
#pragma once

#include <cstdint>
#include <string>

namespace vxi {

void ReportToHost(const std::string& message);

// Returns the message about connections of a monitored port that are in none of its counters.
std::string UncountedMessage(unsigned int port, std::uint64_t count, const std::string& cause);

}  // namespace vxi
