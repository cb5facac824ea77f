// Problems reported to the host although no call fails; see vxi_set_message_handler.
#pragma once

#include <string>

namespace vxi {

void ReportToHost(const std::string& message);

}  // namespace vxi
