// Reading scan configurations and answering scan requests.
#pragma once

#include <array>
#include <cstdint>

#include "vxi/records.h"

namespace vxi {

struct ScanTarget {
    std::uint32_t direction = 0;  // VXI_SCAN_*; 0: nothing is monitored
    std::uint16_t port = 0;

    bool operator==(const ScanTarget& other) const
    {
        return direction == other.direction && port == other.port;
    }
};

// False unless exactly one bit of the two bitmaps is set.
bool scan_target(const scan_monitor_config& config, ScanTarget& target);

inline ScanTarget scan_target(const scan_metrics_request& request)
{
    return {request.direction, request.port};
}

// By VXI_SCAN_*.
using ScanCounters = std::array<std::uint64_t, VXI_SCAN_COUNTERS>;

// Writes the counters asked for. Dispatch has clamped the counts to the buffer before.
inline void deliver_counters(const ScanCounters& values, scan_metrics_request& request)
{
    for (std::uint32_t i = 0; i < request.counters && i < values.size(); ++i) {
        request.counter[i] = values[i];
    }
}

}  // namespace vxi
