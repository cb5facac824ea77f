// The metrics of a port, computed from the counters of its scan table.
#pragma once

#include <array>
#include <cstdint>

#include "engines/linux/scan/ScanCounters.h"
#include "vxi/records.h"

namespace vxi {

// Number of connections that ended half-open: those opened, less those established, less those that
// are still half-open.
class HalfOpenClosed {
public:
    // `before` was read before `half_open`, `after` after it: a connection that moves on between
    // the readings makes the number too small by one, never too large. The number never falls, but
    // restarts at 0 when a counter has fallen (`nft reset counters`).
    std::uint64_t Update(const ScanCounters& before, std::uint64_t half_open,
                         const ScanCounters& after);

private:
    ScanCounters m_last;
    // What was half-open when the counters restarted is in none of them.
    std::int64_t m_offset = 0;
    std::uint64_t m_closed = 0;
};

// The metrics as callers get them, by VXI_SCAN_*.
using ScanMetrics = std::array<std::uint64_t, VXI_SCAN_COUNTERS>;
ScanMetrics ComputeScanMetrics(const ScanCounters& counters, std::uint64_t half_open_closed);

}  // namespace vxi
