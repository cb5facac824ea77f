// Six metrics, their thresholds, and how the configuration reaches them.

#include <cmath>
#include <limits>

#include "Fixture.h"

namespace {

constexpr const char* kCalculation = "SysHealth.eng calculateHealthMetrics: ";
constexpr const char* kCheck = "SysHealth.eng check_health_metric_thresholds: ";

class MetricsTest : public HealthTest {
protected:
    void SetUp() override
    {
        HealthTest::SetUp();
        for (auto& metric : health_metrics) metric.enabled = 1;
        scan_rates = {6, 9, 30, 3, 9, 9, 16000000, 777216, 9, 9};
        SetMemory(1000000, 250000);
    }

    static void SetMemory(unsigned long long physical, unsigned long long free)
    {
        vxa_syshealth_vmstat_metrics[kVmPhysicalMemory].value = physical;
        vxa_syshealth_vmstat_metrics[kVmFreeMemory].value = free;
    }

    static std::vector<double> Values()
    {
        std::vector<double> values;
        for (const auto& metric : health_metrics) values.push_back(metric.value);
        return values;
    }
};

TEST_F(MetricsTest, ValuesAndTraces)
{
    const std::vector<double> values = {2.5, 50, 3.75, 2, 25, 12.25};
    calculateHealthMetrics(2.5, 8, 12.25);
    EXPECT_EQ(Values(), values);
    EXPECT_EQ(TakeMessages(kCalculation),
              (Lines{"rqlen=2.500000 numCpus=8 rqlen_pct=2.500000",
                     "conn_halfopen2close=3.000000 conn_new=6.000000 conn_ref_pct=50.000000",
                     "conn_established=30.000000 numCpus=8.000000 conn_est_per_cpu=3.750000",
                     "scanbytes_fwd=16000000.000000 scanbytes_bwd=777216.000000 "
                     "numCpus=8.000000 scan_mbytes_per_cpu=2.000000",
                     // The figures stand in the opposite order to their labels.
                     "fremem pages=1000000 phsymem MB=250000 fremem_pct=25.000000"}));
    for (auto& metric : health_metrics) metric.enabled = 0;
    calculateHealthMetrics(1, 1, 1);
    EXPECT_EQ(Values(), values);
    EXPECT_EQ(TakeMessages(kCalculation), Lines{});
}

TEST_F(MetricsTest, ValuesAtTheEdges)
{
    for (double few : {0.0, 5.0}) {
        scan_rates[VXI_SCAN_NEW] = few;
        calculateHealthMetrics(0, 1, 0);
        EXPECT_EQ(health_metrics[kMetRefusalPct].value, 0);
    }
    const auto most = std::numeric_limits<unsigned long long>::max();
    SetMemory(most, most);
    calculateHealthMetrics(0, 0, 0);  // divisors of zero are not guarded
    EXPECT_EQ(health_metrics[kMetFreeMemory].value, 100);
    EXPECT_TRUE(std::isinf(health_metrics[kMetEstablished].value));
    EXPECT_TRUE(std::isinf(health_metrics[kMetScanMbytes].value));
    SetMemory(0, 0);
    calculateHealthMetrics(0, 1, 0);
    EXPECT_TRUE(std::isnan(health_metrics[kMetFreeMemory].value));
}

TEST_F(MetricsTest, ThresholdsAreBoundsThatMayBeReached)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct {
        int row;
        double value, threshold, factor;
        int count;
    } cases[] = {
        {kMetRunQueue, 50, 50, 1, 0},     {kMetRunQueue, 50.5, 50, 1, 1},
        {kMetRunQueue, 100, 50, 2, 0},    {kMetRunQueue, nan, 50, 1, 0},
        {kMetFreeMemory, 25, 25, 1, 0},   {kMetFreeMemory, 24.5, 25, 1, 1},
        {kMetFreeMemory, 12.5, 25, 2, 0}, {kMetFreeMemory, nan, 25, 1, 0},
    };
    for (const auto& c : cases) {
        for (auto& metric : health_metrics) metric.enabled = 0;
        health_metrics[c.row] = {"", "", c.row == kMetFreeMemory, c.value, c.threshold, 1};
        EXPECT_EQ(check_health_metric_thresholds(c.factor), c.count) << c.row << " " << c.value;
        EXPECT_EQ(TakeMessages(kCheck).size(), static_cast<std::size_t>(c.count));
    }
}

TEST_F(MetricsTest, EveryEnabledMetricCountsAndIsTraced)
{
    for (auto& metric : health_metrics) {
        metric.value = metric.direction == 0 ? 2.5 : 0.5;
        metric.threshold = 2;
    }
    const std::string above =
        " value of 2.500000 exceeds threshold of 2.000000 (1.000000 x 2.000000)";
    const Lines traces = {
        "runnable_processes_per_cpu_pct" + above,
        "connections_refused_per_new_conn_pct" + above,
        "connections_established_per_cpu" + above,
        "total_scan_mbytes_per_cpu" + above,
        "free_memory_pct value of 0.500000 less than threshold of 2.000000 (2.000000 / 1.000000)",
        "iteration interval" + above,
    };
    EXPECT_EQ(check_health_metric_thresholds(1.0), 6);
    EXPECT_EQ(TakeMessages(kCheck), traces);
    host::EnableTraces(false);
    health_metrics[kMetEstablished].enabled = 0;
    EXPECT_EQ(check_health_metric_thresholds(1.0), 5);
    EXPECT_EQ(TakeMessages(kCheck), Lines{});
}

TEST_F(MetricsTest, SettingsReachTheirMetrics)
{
    const auto thresholds = [](int enabled) {
        std::vector<double> found;
        for (const auto& metric : health_metrics)
            if (metric.enabled == enabled) found.push_back(metric.threshold);
        return found;
    };
    unsigned long long minutes = 30;
    applyMetricConfigs(&minutes);
    EXPECT_EQ(thresholds(1), std::vector<double>{45});
    EXPECT_EQ(thresholds(0), std::vector<double>(kMetRows - 1, 0));
    EXPECT_EQ(minutes, 30u);
    for (int row = 0; row < kConfRows; ++row) {
        vxa_syshealth_config[row].value = row + 0.5;
        vxa_syshealth_config[row].set = 1;
    }
    for (auto& metric : health_metrics) metric.value = 3;
    applyMetricConfigs(&minutes);
    EXPECT_EQ(thresholds(1), (std::vector<double>{5.5, 4.5, 6.5, 7.5, 8.5, 9.5}));
    EXPECT_EQ(Values(), std::vector<double>(kMetRows, 0));
    EXPECT_EQ(minutes, 3u);
}

}  // namespace
