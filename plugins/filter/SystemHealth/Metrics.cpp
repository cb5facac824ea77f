// Health metrics: how each is computed and which setting is its threshold.

#include "Metrics.h"

#include <optional>

#include "Collectors.h"
#include "Config.h"
#include "HealthTrace.h"
#include "ScanRates.h"
#include "Threshold.h"

namespace fc {
namespace {

constexpr const char* kCalculate = "calculateHealthMetrics";
constexpr const char* kCheck = "check_health_metric_thresholds";

// Collected values of one cycle; the others are in vxa_syshealth_vmstat_metrics and scan_rates.
struct Sample {
    double run_queue;
    unsigned long long cpus;
    double interval_s;
};

// Despite the metric's name, neither divided by the number of processors nor a percentage:
// thresholds are compared with the plain run-queue length.
double RunQueue(const Sample& sample)
{
    Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate), "rqlen=%f numCpus=%d rqlen_pct=%f",
          sample.run_queue, static_cast<int>(sample.cpus), sample.run_queue);
    return sample.run_queue;
}

double RefusalPct(const Sample&)
{
    // With fewer new connections per second, a percentage is meaningless.
    constexpr double kFewNewConnections = 5.0;
    const double opened = scan_rates[VXI_SCAN_NEW];
    const double refused = scan_rates[VXI_SCAN_HALF_OPEN_CLOSED];
    const double value = opened > kFewNewConnections ? 100.0 * refused / opened : 0.0;
    Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
          "conn_halfopen2close=%f conn_new=%f conn_ref_pct=%f", refused, opened, value);
    return value;
}

double EstablishedPerCpu(const Sample& sample)
{
    const auto cpus = static_cast<double>(sample.cpus);
    const double established = scan_rates[VXI_SCAN_ESTABLISHED];
    const double value = established / cpus;
    Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
          "conn_established=%f numCpus=%f conn_est_per_cpu=%f", established, cpus, value);
    return value;
}

double ScanMbytesPerCpu(const Sample& sample)
{
    constexpr double kBytesPerMebibyte = 1048576.0;
    const auto cpus = static_cast<double>(sample.cpus);
    const double forward = scan_rates[VXI_SCAN_BYTES_FORWARD];
    const double backward = scan_rates[VXI_SCAN_BYTES_BACKWARD];
    const double value = (forward + backward) / (cpus * kBytesPerMebibyte);
    Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
          "scanbytes_fwd=%f scanbytes_bwd=%f numCpus=%f scan_mbytes_per_cpu=%f", forward, backward,
          cpus, value);
    return value;
}

// The trace has the two values in the wrong order and the wrong unit; log filters match it.
double FreeMemoryPct(const Sample&)
{
    const unsigned long long physical = vxa_syshealth_vmstat_metrics[kVmstatPhysicalMemory].value;
    const unsigned long long free = vxa_syshealth_vmstat_metrics[kVmstatFreeMemory].value;
    const double value = static_cast<double>(free) * 100.0 / static_cast<double>(physical);
    Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
          "fremem pages=%llu phsymem MB=%llu fremem_pct=%f", physical, free, value);
    return value;
}

double Interval(const Sample& sample)
{
    return sample.interval_s;
}

struct MetricRow {
    Metric metric;
    const char* name;
    const char* short_name;
    std::int32_t direction;
    double initial_threshold;  // reported before the first cycle
    Setting setting;           // its threshold
    double (*value)(const Sample&);
    // Without one, the metric is off when the setting is not set.
    std::optional<double> default_threshold = std::nullopt;
};

constexpr MetricRow kMetrics[] = {
    // Unit: one-minute load average.
    {kMetricRunQueue, "runnable_processes_per_cpu_pct", "rqpct", kBadAbove, 50, kSettingRunQueue,
     RunQueue},
    // Unit: percent of the new connections.
    {kMetricRefusalPct, "connections_refused_per_new_conn_pct", "refusalpct", kBadAbove, 10,
     kSettingRefusalPct, RefusalPct},
    // Unit: connections per second and processor.
    {kMetricEstablished, "connections_established_per_cpu", "estab", kBadAbove, 50,
     kSettingEstablished, EstablishedPerCpu},
    // Unit: MiB per second and processor.
    {kMetricScanMbytes, "total_scan_mbytes_per_cpu", "scanmb", kBadAbove, 100, kSettingScanMbytes,
     ScanMbytesPerCpu},
    // Unit: percent of the physical memory.
    {kMetricFreeMemory, "free_memory_pct", "frepct", kBadBelow, 100, kSettingFreeMemory,
     FreeMemoryPct},
    // Unit: seconds since the previous cycle.
    {kMetricInterval, "iteration interval", "delta_t", kBadAbove, 100, kSettingMaxInterval,
     Interval, kDefaultMaxIntervalS},
};

constexpr bool EachMetricHasItsRow()
{
    int next = 0;
    for (const auto& row : kMetrics)
        if (row.metric != next++ || !row.value) return false;
    return next == kMetricCount;
}
static_assert(EachMetricHasItsRow(), "kMetrics has one complete row per Metric, in the same order");

constexpr MetricTable InitialMetrics()
{
    MetricTable table{};
    for (const auto& row : kMetrics)
        table[row.metric] = {row.name, row.short_name, row.direction, 0, row.initial_threshold, 0};
    return table;
}

void TraceCrossing(const health_metrics_s& metric, double factor)
{
    if (metric.direction == kBadAbove)
        Trace(s_TraceEngine, SYSHEALTH_AT(kCheck),
              "%s value of %f exceeds threshold of %f (%f x %f)", metric.name, metric.value,
              metric.threshold, factor, metric.threshold);
    else
        Trace(s_TraceEngine, SYSHEALTH_AT(kCheck),
              "%s value of %f less than threshold of %f (%f / %f)", metric.name, metric.value,
              metric.threshold, metric.threshold, factor);
}

}  // namespace
}  // namespace fc

MetricTable health_metrics = fc::InitialMetrics();

void applyMetricConfigs(unsigned long long* min_duration_minutes)
{
    for (const auto& row : fc::kMetrics) {
        const auto& setting = vxa_syshealth_config[row.setting];
        auto& metric = health_metrics[row.metric];
        metric.value = 0.0;
        metric.threshold = setting.set != 0 ? setting.value : row.default_threshold.value_or(0.0);
        metric.enabled = setting.set != 0 || row.default_threshold ? 1 : 0;
    }
    const auto& duration = vxa_syshealth_config[fc::kSettingMinDuration];
    if (duration.set != 0) *min_duration_minutes = static_cast<unsigned long long>(duration.value);
}

void calculateHealthMetrics(double rq_len, unsigned long long num_cpus, double delta_t)
{
    const fc::Sample sample{rq_len, num_cpus, delta_t};
    for (const auto& row : fc::kMetrics)
        if (health_metrics[row.metric].enabled != 0)
            health_metrics[row.metric].value = row.value(sample);
}

int check_health_metric_thresholds(double factor)
{
    int over = 0;
    for (const auto& metric : health_metrics) {
        if (metric.enabled == 0 ||
            !fc::IsBeyond(metric.value, metric.threshold, metric.direction, factor))
            continue;
        fc::TraceCrossing(metric, factor);
        ++over;
    }
    return over;
}
