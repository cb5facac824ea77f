// The six metrics as records and policies name them, in the module's order.
#pragma once

#include <cstdint>
#include <iterator>

#include "SystemHealth/Metrics.h"
#include "SystemHealth/Threshold.h"

namespace replay {

struct MetricNames {
    fc::Metric metric;
    const char* column;   // of a record
    const char* setting;  // its threshold in a policy
    std::int32_t direction;
    // Calculated from the growth of the driver's counters for the monitored port.
    bool is_rate;
};

constexpr MetricNames kMetrics[] = {
    {fc::kMetricRunQueue, "rqpct", "SYS_THR_RUNQ", fc::kBadAbove, false},
    {fc::kMetricRefusalPct, "refusalpct", "SYS_THR_CONN_REFUSAL_PCT", fc::kBadAbove, true},
    {fc::kMetricEstablished, "estab", "SYS_THR_CONN_EST_PER_CPU", fc::kBadAbove, true},
    {fc::kMetricScanMbytes, "scanmb", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", fc::kBadAbove, true},
    {fc::kMetricFreeMemory, "frepct", "SYS_THR_FREE_MEM", fc::kBadBelow, false},
    {fc::kMetricInterval, "delta_t", "SYS_THR_MAX_ITERATION_INVL", fc::kBadAbove, false},
};

constexpr bool EachMetricHasItsNames()
{
    int next = 0;
    for (const auto& names : kMetrics)
        if (names.metric != next++) return false;
    return next == fc::kMetricCount;
}
static_assert(EachMetricHasItsNames(), "kMetrics has one row per fc::Metric, in the same order");

}  // namespace replay
