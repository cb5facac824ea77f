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
bool TargetOf(const scan_monitor_config& config, ScanTarget& target);

// The other way round.
scan_monitor_config ScanConfig(const ScanTarget& target);

// The port that was configured last, whichever engine it was given to. A child of a fork
// inherits it; the monitoring itself it does not.
void RememberScanTarget(const ScanTarget& target);
ScanTarget RememberedScanTarget();

inline ScanTarget TargetOf(const scan_metrics_request& request)
{
    return {request.direction, request.port};
}

// Writes the counters asked for; `values` are all of them, by VXI_SCAN_*. Dispatch has
// clamped the counts in the request to the buffer before.
template <typename Values>
void DeliverCounters(const Values& values, scan_metrics_request& request)
{
    for (std::uint32_t i = 0; i < request.counters && i < std::size(values); ++i) {
        request.counter[i] = values[i];
    }
}

}  // namespace vxi
