// Health metrics: six values, their thresholds, and the count of those beyond them.

#include "SystemHealth.h"

MetricTable health_metrics = {{
    {"runnable_processes_per_cpu_pct", "rqpct", 0, 0, 50, 0},
    {"connections_refused_per_new_conn_pct", "refusalpct", 0, 0, 10, 0},
    {"connections_established_per_cpu", "estab", 0, 0, 50, 0},
    {"total_scan_mbytes_per_cpu", "scanmb", 0, 0, 100, 0},
    {"free_memory_pct", "frepct", 1, 0, 100, 0},
    {"iteration interval", "delta_t", 0, 0, 100, 0},
}};

namespace {

constexpr double kDefaultMaxIntervalS = 45.0;

// Below this rate of new connections a percentage of refusals says nothing.
constexpr double kFewNewConnections = 5.0;

constexpr const char* kCalculate = "calculateHealthMetrics";
constexpr const char* kCheck = "check_health_metric_thresholds";

void Enable(MetricRow row, double threshold)
{
    health_metrics[row].threshold = threshold;
    health_metrics[row].enabled = 1;
}

// The run-queue length stands as it is, despite the metric's name: policies in the field
// give their threshold against the bare length.
double RunQueueMetric(double rq_len, unsigned long long num_cpus)
{
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate), "rqlen=%f numCpus=%d rqlen_pct=%f", rq_len,
              static_cast<int>(num_cpus), rq_len);
    return rq_len;
}

double RefusalMetric()
{
    const double opened = scan_rates[VXI_SCAN_NEW];
    const double refused = scan_rates[VXI_SCAN_HALF_OPEN_CLOSED];
    const double value = opened > kFewNewConnections ? 100.0 * refused / opened : 0.0;
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
              "conn_halfopen2close=%f conn_new=%f conn_ref_pct=%f", refused, opened, value);
    return value;
}

double EstablishedMetric(double num_cpus)
{
    const double established = scan_rates[VXI_SCAN_ESTABLISHED];
    const double value = established / num_cpus;
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
              "conn_established=%f numCpus=%f conn_est_per_cpu=%f", established, num_cpus, value);
    return value;
}

double ScanMbytesMetric(double num_cpus)
{
    constexpr double kBytesPerMebibyte = 1048576.0;
    const double forward = scan_rates[VXI_SCAN_BYTES_FORWARD];
    const double backward = scan_rates[VXI_SCAN_BYTES_BACKWARD];
    const double value = (forward + backward) / (num_cpus * kBytesPerMebibyte);
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
              "scanbytes_fwd=%f scanbytes_bwd=%f numCpus=%f scan_mbytes_per_cpu=%f", forward,
              backward, num_cpus, value);
    return value;
}

// The trace names the two figures the wrong way round; readers of these logs know it so.
double FreeMemoryMetric()
{
    const unsigned long long physical = vxa_syshealth_vmstat_metrics[kVmPhysicalMemory].value;
    const unsigned long long free = vxa_syshealth_vmstat_metrics[kVmFreeMemory].value;
    const double value = static_cast<double>(free) * 100.0 / static_cast<double>(physical);
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCalculate),
              "fremem pages=%llu phsymem MB=%llu fremem_pct=%f", physical, free, value);
    return value;
}

double MetricValue(int row, double rq_len, unsigned long long num_cpus, double delta_t)
{
    const auto cpus = static_cast<double>(num_cpus);
    switch (row) {
        case kMetRunQueue:
            return RunQueueMetric(rq_len, num_cpus);
        case kMetRefusalPct:
            return RefusalMetric();
        case kMetEstablished:
            return EstablishedMetric(cpus);
        case kMetScanMbytes:
            return ScanMbytesMetric(cpus);
        case kMetFreeMemory:
            return FreeMemoryMetric();
        default:
            return delta_t;
    }
}

bool ExceedsUpperBound(const health_metrics_s& metric, double factor)
{
    if (!(metric.value > metric.threshold * factor)) return false;
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCheck),
              "%s value of %f exceeds threshold of %f (%f x %f)", metric.name, metric.value,
              metric.threshold, factor, metric.threshold);
    return true;
}

bool FallsBelowLowerBound(const health_metrics_s& metric, double factor)
{
    if (!(metric.value < metric.threshold / factor)) return false;
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kCheck),
              "%s value of %f less than threshold of %f (%f / %f)", metric.name, metric.value,
              metric.threshold, metric.threshold, factor);
    return true;
}

}  // namespace

void applyMetricConfigs(unsigned long long* min_duration_minutes)
{
    static constexpr struct {
        ConfigRow setting;
        MetricRow metric;
    } kThresholds[] = {
        {kConfRefusalPct, kMetRefusalPct},   {kConfRunQueue, kMetRunQueue},
        {kConfEstablished, kMetEstablished}, {kConfScanMbytes, kMetScanMbytes},
        {kConfFreeMemory, kMetFreeMemory},
    };
    for (auto& metric : health_metrics) {
        metric.value = metric.threshold = 0.0;
        metric.enabled = 0;
    }
    for (const auto& pair : kThresholds)
        if (vxa_syshealth_config[pair.setting].set != 0)
            Enable(pair.metric, vxa_syshealth_config[pair.setting].value);
    const auto& interval = vxa_syshealth_config[kConfMaxInterval];
    Enable(kMetInterval, interval.set != 0 ? interval.value : kDefaultMaxIntervalS);
    const auto& duration = vxa_syshealth_config[kConfMinActDuration];
    if (duration.set != 0) *min_duration_minutes = static_cast<unsigned long long>(duration.value);
}

void calculateHealthMetrics(double rq_len, unsigned long long num_cpus, double delta_t)
{
    for (int row = 0; row < kMetRows; ++row)
        if (health_metrics[row].enabled != 0)
            health_metrics[row].value = MetricValue(row, rq_len, num_cpus, delta_t);
}

int check_health_metric_thresholds(double factor)
{
    int over = 0;
    for (const auto& metric : health_metrics)
        if (metric.enabled != 0)
            over += metric.direction == 0 ? ExceedsUpperBound(metric, factor)
                                          : FallsBelowLowerBound(metric, factor);
    return over;
}
