// Reading scan configurations and answering scan requests.
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

// False unless exactly one bit of the two bitmaps is set.
bool scan_target(const scan_monitor_config& config, ScanTarget& target);

inline ScanTarget scan_target(const scan_metrics_request& request)
{
    return {request.direction, request.port};
}

// Writes the counters asked for; `values` are all of them, by VXI_SCAN_*. Dispatch has
// clamped the counts in the request to the buffer before.
template <typename Values>
void deliver_counters(const Values& values, scan_metrics_request& request)
{
    for (std::uint32_t i = 0; i < request.counters && i < std::size(values); ++i) {
        request.counter[i] = values[i];
    }
}

}  // namespace vxi
