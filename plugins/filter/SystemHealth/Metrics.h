// Health metrics: their values and thresholds.
#pragma once

#include <array>
#include <cstdint>

#include "Export.h"

struct health_metrics_s {
    const char* name;
    const char* short_name;
    std::int32_t direction;  // 0: bad above the threshold; otherwise bad below it
    double value;
    double threshold;
    std::int32_t enabled;
};

namespace fc {

enum Metric {
    kMetricRunQueue,
    kMetricRefusalPct,
    kMetricEstablished,
    kMetricScanMbytes,
    kMetricFreeMemory,
    kMetricInterval,
    kMetricCount
};

}  // namespace fc

using MetricTable = std::array<health_metrics_s, fc::kMetricCount>;
extern MetricTable health_metrics;

// Call the following with g_syshealth_cs held.

// Takes the thresholds from the configuration; a metric without one is off. Stores the configured
// minimum time in fail-open, if set, in *min_duration_minutes.
FC_PUBLIC void applyMetricConfigs(unsigned long long* min_duration_minutes);

// Computes the values of the enabled metrics. rq_len and num_cpus are the collectors' results;
// delta_t is the number of seconds since the previous cycle.
FC_PUBLIC void calculateHealthMetrics(double rq_len, unsigned long long num_cpus, double delta_t);

// Returns how many enabled metrics are beyond their threshold times the factor (divided by it for
// lower bounds).
FC_PUBLIC int check_health_metric_thresholds(double factor);
