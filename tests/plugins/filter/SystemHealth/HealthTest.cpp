// What scripts cannot reach: functions that only hosts call, and a process without descriptors.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <sstream>

#include "FakeMachine.h"
#include "HostRecording.h"
#include "SystemHealth/Collectors.h"
#include "SystemHealth/ConfigLog.h"
#include "SystemHealth/Metrics.h"

namespace {

using host::Lines;

class HealthTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        host::EnableTraces(true);
        host::TakeTraces();
    }

    const FakeMachine m_machine;
};

// Limits a resource of the process while it lives.
class Limit {
public:
    Limit(__rlimit_resource resource, rlim_t limit) : m_resource(resource)
    {
        getrlimit(resource, &m_before);
        const rlimit lower{limit, m_before.rlim_max};
        setrlimit(resource, &lower);
    }
    ~Limit() { setrlimit(m_resource, &m_before); }

private:
    __rlimit_resource m_resource;
    rlimit m_before{};
};

TEST_F(HealthTest, Vmstat)
{
    const std::string heading = "r b avm fre re pi po fr sr cy in sy cs us sy id wa hr mi se\n";
    const std::string data = "1 0 22478 1677 0 0 0 0 0 0 188 1380 157 57 32 1 10 15:27:12\n";
    const std::string located = ", columns 0 1 3 4 14 15 16 17";
    const std::string initial = ", columns 0 0 0 0 0 15 0 0";
    const std::string lacking =
        "SysHealth.eng getVmstatMetrics: could not retrieve command output, failing";
    // Output of the command; result, then values, which are 9 before, and columns.
    const std::pair<std::string, std::string> cases[] = {
        {"System configuration: lcpu=2 mem=4096MB\n\nkthr memory page\n" + heading + data,
         "8 4096 1 22478 1677 57 32 1 10" + located},
        {"System configuration: mem=4096MB\n" + heading + data,  // no third part
         "7 9 1 22478 1677 57 32 1 10" + located},
        {"configuration: lcpu==2 mem==4096MB\n", "1 4096 9 9 9 9 9 9 9" + initial},
        {heading + "1 0 22478 15:27:12\n", "3 9 1 22478 15 9 9 9 9" + located},
        // The last heading keeps its line feed.
        {"avm id wa\n7 8 9 10:00:00\n", "2 9 9 7 9 9 9 8 9, columns 0 0 1 0 0 15 2 0"},
        // A second heading line moves nothing.
        {heading + "wa id avm fre r \n" + data, "7 9 1 22478 1677 57 32 1 10" + located},
        {data, "1 9 9 9 9 9 32 9 9" + initial},
        {heading + "1 0 22478 1677\n", "0 9 9 9 9 9 9 9 9" + located},
    };
    for (const auto& [output, expected] : cases) {
        VmstatTable table = vxa_syshealth_vmstat_metrics;
        for (auto& row : table) row.value = 9;
        WriteText(m_machine.Path("vmstat.out"), output);
        const int stored = getVmstatMetrics(table.data());
        std::ostringstream values, columns;
        for (const auto& row : table) values << " " << row.value;
        for (const auto& row : table) columns << " " << row.column;
        EXPECT_EQ(std::to_string(stored) + values.str() + ", columns" + columns.str(), expected);
        EXPECT_EQ(host::TakeTraceLines(), stored != 0 ? Lines{} : Lines{lacking});
        EXPECT_EQ(ReadText(m_machine.Path("vmstat.args")), "-t 10 1\n");
    }
}

TEST_F(HealthTest, NothingCanBeOpenedOrParsed)
{
    VmstatTable table = vxa_syshealth_vmstat_metrics;
    double length = -1;
    {
        const Limit none(RLIMIT_NOFILE, 0);
        EXPECT_EQ(queryCpuCount(), 0u);
        EXPECT_EQ(queryRunQueueLength(&length), 1);
        EXPECT_EQ(getMemoryMetrics(table.data()), 0);
        EXPECT_EQ(getVmstatMetrics(table.data()), 0);
    }
    EXPECT_EQ(length, -1);
    EXPECT_EQ(host::TakeTraceLines(),
              (Lines{"SysHealth.eng queryCpuCount: failed to run command",
                     "SysHealth.eng queryRunQueueLength: could not run command, failing",
                     "SysHealth.eng getMemoryMetrics: failed to run command",
                     "SysHealth.eng getVmstatMetrics: failed to run command"}));
    WriteText(m_machine.Path("uptime.out"), "up 3 days\n");
    EXPECT_EQ(queryRunQueueLength(&length), 1);
    EXPECT_EQ(host::TakeTraceLines(),
              Lines{"SysHealth.eng queryRunQueueLength: no match on average:"});
}

TEST_F(HealthTest, LogOfSettingsThatCannotBeWritten)
{
    const std::string log = m_machine.Path(kConfigLog);
    const mode_t mask = umask(0);
    EXPECT_TRUE(outputCloudConfig());
    umask(mask);
    EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0644));
    std::signal(SIGXFSZ, SIG_IGN);
    const Limit none(RLIMIT_FSIZE, 0);
    EXPECT_FALSE(outputCloudConfig());
    EXPECT_EQ(host::TakeTraceLines(),
              Lines{"SysHealth.eng outputCloudConfig: Failed to write json config to file"});
}

TEST_F(HealthTest, FactorMovesThresholdsAway)
{
    health_metrics[fc::kMetricRunQueue] = {"", "", 0, 50, 25, 1};
    health_metrics[fc::kMetricFreeMemory] = {"", "", 1, 12.5, 25, 1};
    EXPECT_EQ(check_health_metric_thresholds(1), 2);
    EXPECT_EQ(check_health_metric_thresholds(1.5), 2);
    EXPECT_EQ(check_health_metric_thresholds(2), 0);
}

}  // namespace
