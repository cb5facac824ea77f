// Six metrics, their thresholds, and how the configuration reaches them.

#include <cmath>
#include <limits>

#include "Fixture.h"

namespace {

class MetricsTest : public HealthTest {};

// Calls the calculation with one row enabled and tells its value.
double Value(int row, double run_queue, unsigned long long cpus, double interval_s)
{
    for (auto& metric : health_metrics) {
        metric.enabled = 0;
        metric.value = -1;
    }
    health_metrics[row].enabled = 1;
    calculateHealthMetrics(run_queue, cpus, interval_s);
    for (int other = 0; other < kMetRows; ++other)
        EXPECT_TRUE(other == row || health_metrics[other].value == -1)
            << health_metrics[other].name;
    return health_metrics[row].value;
}

TEST_F(MetricsTest, ValuesAndTraces)
{
    using Rates = std::array<double, VXI_SCAN_COUNTERS>;
    const struct {
        int row;
        Rates rates;
        unsigned long long physical, free;
        double run_queue;
        unsigned long long cpus;
        double interval_s;
        double value;
        const char* trace;
    } cases[] = {
        {0, {}, 0, 0, 2.5, 8, 0, 2.5, "rqlen=2.500000 numCpus=8 rqlen_pct=2.500000"},
        {1,
         {5.0, 0, 0, 3},
         0,
         0,
         0,
         1,
         0,
         0.0,
         "conn_halfopen2close=3.000000 conn_new=5.000000 conn_ref_pct=0.000000"},
        {1,
         {6.0, 0, 0, 3},
         0,
         0,
         0,
         1,
         0,
         50.0,
         "conn_halfopen2close=3.000000 conn_new=6.000000 conn_ref_pct=50.000000"},
        {1,
         {0, 9, 9, 9},
         0,
         0,
         0,
         1,
         0,
         0.0,
         "conn_halfopen2close=9.000000 conn_new=0.000000 conn_ref_pct=0.000000"},
        {2,
         {9, 9, 30, 9},
         0,
         0,
         0,
         8,
         0,
         3.75,
         "conn_established=30.000000 numCpus=8.000000 conn_est_per_cpu=3.750000"},
        {3,
         {9, 9, 9, 9, 9, 9, 16000000, 777216, 9, 9},
         0,
         0,
         0,
         8,
         0,
         2.0,
         "scanbytes_fwd=16000000.000000 scanbytes_bwd=777216.000000 numCpus=8.000000 "
         "scan_mbytes_per_cpu=2.000000"},
        // The figures stand in the opposite order to their labels.
        {4,
         {},
         1000000,
         250000,
         0,
         1,
         0,
         25.0,
         "fremem pages=1000000 phsymem MB=250000 fremem_pct=25.000000"},
        {4,
         {},
         18446744073709551615ull,
         18446744073709551615ull,
         0,
         1,
         0,
         100.0,
         "fremem pages=18446744073709551615 phsymem MB=18446744073709551615 "
         "fremem_pct=100.000000"},
        {5, {}, 0, 0, 9, 9, 12.25, 12.25, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(health_metrics[c.row].name);
        scan_rates = c.rates;
        vxa_syshealth_vmstat_metrics[0].value = c.physical;
        vxa_syshealth_vmstat_metrics[3].value = c.free;
        EXPECT_DOUBLE_EQ(Value(c.row, c.run_queue, c.cpus, c.interval_s), c.value);
        const Lines traces = host::TakeTraceLines();
        if (c.trace == nullptr)
            EXPECT_EQ(traces, Lines{});
        else
            EXPECT_EQ(traces,
                      Lines{std::string("SysHealth.eng calculateHealthMetrics: ") + c.trace});
    }
}

TEST_F(MetricsTest, ZeroDivisorsAreNotGuarded)
{
    scan_rates = {0, 0, 5, 0, 0, 0, 5};
    EXPECT_TRUE(std::isinf(Value(2, 0, 0, 0)));
    EXPECT_TRUE(std::isinf(Value(3, 0, 0, 0)));
    EXPECT_TRUE(std::isnan(Value(4, 0, 1, 0)));
}

TEST_F(MetricsTest, ThresholdCount)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct {
        int row;
        double value, threshold, factor;
        int count;
        const char* trace;
    } cases[] = {
        {0, 50, 50, 1, 0, nullptr},
        {0, 50.5, 50, 1, 1,
         "runnable_processes_per_cpu_pct value of 50.500000 exceeds threshold of 50.000000 "
         "(1.000000 x 50.000000)"},
        {1, 11, 10, 1, 1,
         "connections_refused_per_new_conn_pct value of 11.000000 exceeds threshold of 10.000000 "
         "(1.000000 x 10.000000)"},
        {4, 25, 25, 1, 0, nullptr},
        {4, 24.5, 25, 1, 1,
         "free_memory_pct value of 24.500000 less than threshold of 25.000000 "
         "(25.000000 / 1.000000)"},
        {5, 45.5, 45, 1, 1,
         "iteration interval value of 45.500000 exceeds threshold of 45.000000 "
         "(1.000000 x 45.000000)"},
        {0, nan, 50, 1, 0, nullptr},
        {4, nan, 25, 1, 0, nullptr},
        {0, 60, 50, 2, 0, nullptr},
        {4, 20, 25, 2, 0, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(health_metrics[c.row].name);
        for (auto& metric : health_metrics) metric.enabled = 0;
        health_metrics[c.row].enabled = 1;
        health_metrics[c.row].value = c.value;
        health_metrics[c.row].threshold = c.threshold;
        for (bool traced : {true, false}) {
            host::EnableTraces(traced);
            EXPECT_EQ(check_health_metric_thresholds(c.factor), c.count);
            Lines traces;
            if (traced && c.trace != nullptr)
                traces = {std::string("SysHealth.eng check_health_metric_thresholds: ") + c.trace};
            EXPECT_EQ(host::TakeTraceLines(), traces);
        }
    }
}

TEST_F(MetricsTest, CountsEveryEnabledMetric)
{
    for (auto& metric : health_metrics) {
        metric.enabled = 1;
        metric.value = metric.direction == 0 ? 2 : 0.5;
        metric.threshold = 1;
    }
    EXPECT_EQ(check_health_metric_thresholds(1.0), 6);
    health_metrics[2].enabled = 0;
    EXPECT_EQ(check_health_metric_thresholds(1.0), 5);
}

// Which metric a setting's value arrives at; -1: none.
TEST_F(MetricsTest, SettingsReachTheirMetrics)
{
    const int metric_of[kConfRows] = {-1, -1, -1, -1, 1, 0, 2, 3, 4, 5, -1};
    for (int setting = 0; setting < kConfRows; ++setting) {
        SCOPED_TRACE(vxa_syshealth_config[setting].file_key);
        HealthTest::SetUp();
        vxa_syshealth_config[setting].value = 7.5;
        vxa_syshealth_config[setting].set = 1;
        for (auto& metric : health_metrics) metric.value = 3;
        unsigned long long minutes = 30;
        applyMetricConfigs(&minutes);
        EXPECT_EQ(minutes, setting == kConfMinActDuration ? 7u : 30u);
        for (int row = 0; row < kMetRows; ++row) {
            const bool given = metric_of[setting] == row;
            EXPECT_EQ(health_metrics[row].value, 0);
            EXPECT_EQ(health_metrics[row].enabled, given || row == kMetInterval ? 1 : 0);
            EXPECT_EQ(health_metrics[row].threshold, given                 ? 7.5
                                                     : row == kMetInterval ? 45.0
                                                                           : 0.0);
        }
    }
}

}  // namespace
