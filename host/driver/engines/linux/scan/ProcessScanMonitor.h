// The scan monitor of this process.
//
// Scan monitoring belongs to the process, not to a handle: callers open a handle for a reading,
// close it, and expect the same counters from the next.
#pragma once

#include "engines/linux/scan/ScanMonitor.h"

namespace vxi {

// Lives until the process ends; its table is removed at exit, or when the library is unloaded. The
// child of a fork gets its own, which monitors nothing.
ScanMonitor& ProcessScanMonitor();

}  // namespace vxi
