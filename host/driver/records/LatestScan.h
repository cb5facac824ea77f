// The counters that the process has read last, for hosts that record what their plugin measured.
#pragma once

#include "vxi/engine.h"

namespace vxi {

// Remembers a request that an engine has answered.
void RememberScan(const scan_metrics_request& answered);

}  // namespace vxi
