// The collectors, on faked commands and files.

#include <sys/resource.h>

#include "Fixture.h"

namespace {

class CollectorsTest : public HealthTest {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        HealthTest::SetUp();
    }
};

// The messages traced since the last call; all must be that collector's.
Lines Complaints(const char* collector)
{
    Lines messages;
    for (const host::Trace& trace : host::TakeTraces()) {
        EXPECT_EQ(trace.category, "SysHealth.eng");
        EXPECT_EQ(trace.file, "plugins/filter/SystemHealth");
        EXPECT_EQ(trace.function, collector);
        messages.push_back(trace.message);
    }
    return messages;
}

TEST_F(CollectorsTest, RunQueueLength)
{
    const std::string conversion = "failed to convert runqueue length string ";
    const struct {
        std::string output;
        int result;
        double length;
        Lines complaints;
    } cases[] = {
        {" 05:54:01 up 1 day, 2 users,  load average: 1.75, 1.20, 0.90\n", 0, 1.7, {}},
        {"load average: 0.52, 0.58, 0.59", 0, 0.5, {}},
        {"load average: 123.99, 1.00, 1.00\nload average: 7.77, 1, 1\n", 0, 123.9, {}},
        {"load average:3.14, 2, 1\n", 0, 3.1, {}},
        {"load average: 2.5 , 1, 1\n", 0, 2.5, {}},
        {"load average: 3, 2, 1\n", 1, -1, {conversion + " "}},
        {"load average: 1.2x5, 2, 1\n", 1, -1, {conversion + " 1.2x"}},
        {"load average:1, 2\n", 1, -1, {conversion}},
        // No text is left of this comma: the length becomes the largest, the rest is taken.
        {"load average:, 2\n", 1, -1, {conversion + ", 2\n"}},
        {"load average: 1.09 1.38 1.41\n", 1, -1, {"no match on comma"}},
        {"up 3 days, load: 1.75, 1.20\n", 1, -1, {"no match on average:"}},
        {std::string(250, ' ') + "load average: 1.75, 1.20, 0.90\n",
         1,
         -1,
         {"no match on average:"}},
        {std::string(236, ' ') + "load average: 1.75, 1.20, 0.90\n", 0, 1.7, {}},
        {std::string(237, ' ') + "load average: 1.75, 1.20, 0.90\n", 1, -1, {"no match on comma"}},
        {"\n", 1, -1, {"no match on average:"}},
        {"", 1, -1, {"could not retrieve command output, failing"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.output);
        sandbox::SetOutput("uptime", c.output.c_str());
        double length = -1;
        EXPECT_EQ(queryRunQueueLength(&length), c.result);
        EXPECT_DOUBLE_EQ(length, c.length);
        EXPECT_EQ(Complaints("queryRunQueueLength"), c.complaints);
    }
}

TEST_F(CollectorsTest, CpuCount)
{
    const Lines unparsed = {"failed to parse cpu count"};
    const struct {
        const char* output;
        unsigned long long count;
        Lines complaints;
    } cases[] = {
        {"8\n", 8, {}},
        {"8", 8, {}},
        {" \n 12 processors\n", 12, {}},
        {"18446744073709551615\n", 18446744073709551615ull, {}},
        {"0\n", 0, {}},
        {"eight\n", 0, unparsed},
        {"", 0, unparsed},
        {nullptr, 0, unparsed},
    };
    for (const auto& c : cases) {
        sandbox::SetOutput("nproc", c.output);
        EXPECT_EQ(queryCpuCount(), c.count);
        EXPECT_EQ(Complaints("queryCpuCount"), c.complaints);
    }
}

TEST_F(CollectorsTest, Memory)
{
    const std::string lacking = "could not retrieve command output, failing";
    const struct {
        const char* text;
        int result;
        unsigned long long physical, free;
        Lines complaints;
    } cases[] = {
        {"MemTotal:  16000 kB\nMemFree:  4000 kB\nMemAvailable: 1 kB\n", 2, 16000, 4000, {}},
        {"MemTotal: 16000 kB\nMemFree: 4000 kB\n", 2, 16000, 4000, {}},
        {"MemFree: 4000 kB\nBuffers: 5 kB\nMemTotal: 16000 kB", 2, 16000, 4000, {}},
        {"MemTotal: 18446744073709551615 kB\nMemFree: 0 kB\n", 2, 18446744073709551615ull, 0, {}},
        {"MemTotal: 16000 kB\n", 0, 16000, 2, {lacking}},
        {"MemFree: 4000 kB\nSwapTotal: 5 kB\n", 0, 1, 4000, {lacking}},
        {"MemTotal: much\nMemTotal: 16000 kB\nMemFree: 4000 kB\n",
         2,
         16000,
         4000,
         {"failed to parse MemTotal value"}},
        {"MemTotal: 16000 kB\nMemFree: kB\n",
         0,
         16000,
         2,
         {"failed to parse MemFree value", lacking}},
        // Contained, but not at the line's start, where the figure is looked for.
        {"NotMemTotal: 1 kB\nMemTotal: 16000 kB\nMemFree: 4000 kB\n",
         2,
         16000,
         4000,
         {"failed to parse MemTotal value"}},
        {"", 0, 1, 2, {lacking}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        VmstatTable table = vxa_syshealth_vmstat_metrics;
        table[0].value = 1;
        table[3].value = 2;
        sandbox::SetMeminfo(c.text);
        EXPECT_EQ(getMemoryMetrics(table.data()), c.result);
        EXPECT_EQ(table[0].value, c.physical);
        EXPECT_EQ(table[3].value, c.free);
        EXPECT_EQ(Complaints("getMemoryMetrics"), c.complaints);
    }
}

constexpr const char* kHeading = "r b avm fre re pi po fr sr cy in sy cs us sy id wa hr mi se\n";

TEST_F(CollectorsTest, Vmstat)
{
    using Values = std::array<unsigned long long, kVmRows>;
    using Columns = std::array<int, kVmRows>;
    const std::string heading = kHeading;
    const std::string data = "1 0 22478 1677 0 0 0 0 0 0 188 1380 157 57 32 1 10 15:27:12\n";
    const Columns located = {0, 1, 3, 4, 14, 15, 16, 17};
    const Columns initial = {0, 0, 0, 0, 0, 15, 0, 0};
    const struct {
        const char* name;
        std::string output;
        int result;
        Values values;
        Columns columns;
    } cases[] = {
        {"whole",
         "System configuration: lcpu=2 mem=4096MB\n\nkthr memory page\n" + heading + data,
         8,
         {4096, 1, 22478, 1677, 57, 32, 1, 10},
         located},
        {"no third part",
         "System configuration: mem=4096MB\n" + heading + data,
         7,
         {9, 1, 22478, 1677, 57, 32, 1, 10},
         located},
        {"runs of the separator",
         "configuration: lcpu==2 mem==4096MB\n",
         1,
         {4096, 9, 9, 9, 9, 9, 9, 9},
         initial},
        {"short data line",
         heading + "1 0 22478 15:27:12\n",
         3,
         {9, 1, 22478, 15, 9, 9, 9, 9},
         located},
        {"the last heading keeps its line end",
         "avm id wa\n7 8 9 10:00:00\n",
         2,
         {9, 9, 7, 9, 9, 9, 8, 9},
         {0, 0, 1, 0, 0, 15, 2, 0}},
        {"a second heading line moves nothing",
         heading + "wa id avm fre r \n" + data,
         7,
         {9, 1, 22478, 1677, 57, 32, 1, 10},
         located},
        {"only the fixed column without a heading", data, 1, {9, 9, 9, 9, 9, 32, 9, 9}, initial},
        {"no data line", heading + "1 0 22478 1677\n", 0, {9, 9, 9, 9, 9, 9, 9, 9}, located},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        VmstatTable table = vxa_syshealth_vmstat_metrics;
        for (auto& row : table) row.value = 9;
        sandbox::SetOutput("vmstat", c.output.c_str());
        EXPECT_EQ(getVmstatMetrics(table.data()), c.result);
        for (int row = 0; row < kVmRows; ++row) {
            EXPECT_EQ(table[row].value, c.values[row]) << table[row].name;
            EXPECT_EQ(table[row].column, c.columns[row]) << table[row].name;
        }
        EXPECT_EQ(Complaints("getVmstatMetrics"),
                  c.result == 0 ? Lines{"could not retrieve command output, failing"} : Lines{});
        EXPECT_EQ(sandbox::Read(sandbox::Path("vmstat.args")), "-t 10 1\n");
    }
}

// A process that may open nothing more.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft()
    {
        getrlimit(RLIMIT_NOFILE, &m_before);
        const rlimit none{0, m_before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptorsLeft() { setrlimit(RLIMIT_NOFILE, &m_before); }

private:
    rlimit m_before{};
};

TEST_F(CollectorsTest, NothingCanBeOpened)
{
    VmstatTable table = vxa_syshealth_vmstat_metrics;
    double length = -1;
    {
        const NoDescriptorsLeft limit;
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
}

}  // namespace
