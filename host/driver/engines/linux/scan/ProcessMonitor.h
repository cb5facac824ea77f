// The one scan monitor of this process.
//
// Scan monitoring is a setting of the process, not of a handle: callers open a handle for
// one reading, close it, and go on finding their counters with the next.
#pragma once

#include "engines/linux/scan/ScanMonitor.h"

namespace vxi {

// Lives until the process ends; its table is taken down at exit (or when the library is
// unloaded). The child of a fork gets one of its own, with nothing set.
ScanMonitor& ProcessScanMonitor();

}  // namespace vxi
