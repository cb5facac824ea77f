// The port that scan monitoring counts, as configurations and requests state it.
#pragma once

#include <cstdint>
#include <iterator>

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

// Throws an Error unless exactly one bit of the two bitmaps is set.
ScanTarget ConfiguredTarget(const scan_monitor_config& config);

inline ScanTarget RequestedTarget(const scan_metrics_request& request)
{
    return {request.direction, request.port};
}

// The target that was configured last, with whichever engine. A child process inherits it across
// fork, but not the monitoring itself.
void RememberScanTarget(const ScanTarget& target);
ScanTarget RememberedScanTarget();

// Writes the counters that the request asks for; `values` are all of them, by VXI_SCAN_*.
// Dispatch has limited the request's counts to its size.
template <typename Values>
void WriteCounters(const Values& values, scan_metrics_request& request)
{
    for (std::uint32_t i = 0; i < request.counters && i < std::size(values); ++i) {
        request.counter[i] = values[i];
    }
}

}  // namespace vxi
