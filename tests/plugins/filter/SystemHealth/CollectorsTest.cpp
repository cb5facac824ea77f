// The collectors, on faked commands and files.

#include <sys/resource.h>

#include <sstream>

#include "Fixture.h"

namespace {

class CollectorsTest : public SandboxedHealthTest {
protected:
    // Figures blank-separated, and behind them what the collector complained of.
    static std::string Told(const std::string& figures, const char* collector)
    {
        std::string told = figures;
        for (const std::string& complaint :
             TakeMessages(std::string("SysHealth.eng ") + collector + ": "))
            told += "; " + complaint;
        return told;
    }
};

template <typename... Figures>
std::string Join(Figures... figures)
{
    std::ostringstream text;
    const char* gap = "";
    ((text << gap << figures, gap = " "), ...);
    return text.str();
}

TEST_F(CollectorsTest, RunQueueLength)
{
    const std::string load = "load average: 1.75, 1.20, 0.90\n";
    // Status, length or what it was before, complaint.
    const std::pair<std::string, const char*> cases[] = {
        {" 05:54:01 up 1 day, 2 users,  " + load, "0 1.7"},
        {"load average: 123.99, 1.00, 1.00\nload average: 7.77, 1, 1\n", "0 123.9"},
        {"load average:3.14, 2, 1", "0 3.1"},
        {"load average: 3, 2, 1\n", "1 -1; failed to convert runqueue length string  "},
        {"load average: 1.2x5, 2, 1\n", "1 -1; failed to convert runqueue length string  1.2x"},
        {"load average:1, 2\n", "1 -1; failed to convert runqueue length string "},
        // No text is left of this comma: the length becomes the largest, the rest is taken.
        {"load average:, 2\n", "1 -1; failed to convert runqueue length string , 2\n"},
        {"load average: 1.09 1.38 1.41\n", "1 -1; no match on comma"},
        {"up 3 days, load: 1.75, 1.20\n", "1 -1; no match on average:"},
        // Lines are read up to 255 bytes.
        {std::string(236, ' ') + load, "0 1.7"},
        {std::string(237, ' ') + load, "1 -1; no match on comma"},
        {std::string(250, ' ') + load, "1 -1; no match on average:"},
        {"", "1 -1; could not retrieve command output, failing"},
    };
    for (const auto& [output, told] : cases) {
        sandbox::SetOutput("uptime", output.c_str());
        double length = -1;
        const int status = queryRunQueueLength(&length);
        EXPECT_EQ(Told(Join(status, length), "queryRunQueueLength"), told) << output;
    }
}

TEST_F(CollectorsTest, CpuCount)
{
    const std::pair<const char*, const char*> cases[] = {
        {"8\n", "8"},
        {" \n 12 processors\n", "12"},
        {"18446744073709551615", "18446744073709551615"},
        {"eight\n", "0; failed to parse cpu count"},
        {"", "0; failed to parse cpu count"},
        {nullptr, "0; failed to parse cpu count"},
    };
    for (const auto& [output, told] : cases) {
        sandbox::SetOutput("nproc", output);
        const unsigned long long count = queryCpuCount();
        EXPECT_EQ(Told(Join(count), "queryCpuCount"), told);
    }
}

TEST_F(CollectorsTest, Memory)
{
    const std::string lacking = "; could not retrieve command output, failing";
    // Result, physical and free memory: 1 and 2 beforehand.
    const std::pair<const char*, std::string> cases[] = {
        {"MemTotal:  16000 kB\nMemFree:  4000 kB\nMemAvailable: 1 kB\n", "2 16000 4000"},
        {"MemFree: 0 kB\nBuffers: 5 kB\nMemTotal: 18446744073709551615 kB",
         "2 18446744073709551615 0"},
        {"MemTotal: 16000 kB\n", "0 16000 2" + lacking},
        {"MemFree: 4000 kB\nSwapTotal: 5 kB\n", "0 1 4000" + lacking},
        // Contained, but not at the line's start, where the figure is looked for.
        {"NotMemTotal: 1 kB\nMemTotal: 16000 kB\nMemFree: 4000 kB\n",
         "2 16000 4000; failed to parse MemTotal value"},
        {"MemTotal: 16000 kB\nMemFree: kB\n", "0 16000 2; failed to parse MemFree value" + lacking},
        {"", "0 1 2" + lacking},
    };
    for (const auto& [text, told] : cases) {
        VmstatTable table = vxa_syshealth_vmstat_metrics;
        table[kVmPhysicalMemory].value = 1;
        table[kVmFreeMemory].value = 2;
        sandbox::SetMeminfo(text);
        const int result = getMemoryMetrics(table.data());
        const std::string figures =
            Join(result, table[kVmPhysicalMemory].value, table[kVmFreeMemory].value);
        EXPECT_EQ(Told(figures, "getMemoryMetrics"), told) << text;
    }
}

TEST_F(CollectorsTest, Vmstat)
{
    const std::string heading = "r b avm fre re pi po fr sr cy in sy cs us sy id wa hr mi se\n";
    const std::string data = "1 0 22478 1677 0 0 0 0 0 0 188 1380 157 57 32 1 10 15:27:12\n";
    const std::string located = ", columns 0 1 3 4 14 15 16 17";
    const std::string initial = ", columns 0 0 0 0 0 15 0 0";
    const std::string lacking = "; could not retrieve command output, failing";
    const struct {
        const char* what;
        std::string output;
        std::string told;  // result and values: 9 beforehand
    } cases[] = {
        {"whole", "System configuration: lcpu=2 mem=4096MB\n\nkthr memory page\n" + heading + data,
         "8 4096 1 22478 1677 57 32 1 10" + located},
        {"no third part", "System configuration: mem=4096MB\n" + heading + data,
         "7 9 1 22478 1677 57 32 1 10" + located},
        {"runs of the separator", "configuration: lcpu==2 mem==4096MB\n",
         "1 4096 9 9 9 9 9 9 9" + initial},
        {"short data line", heading + "1 0 22478 15:27:12\n", "3 9 1 22478 15 9 9 9 9" + located},
        {"the last heading keeps its line end", "avm id wa\n7 8 9 10:00:00\n",
         "2 9 9 7 9 9 9 8 9, columns 0 0 1 0 0 15 2 0"},
        {"a second heading line moves nothing", heading + "wa id avm fre r \n" + data,
         "7 9 1 22478 1677 57 32 1 10" + located},
        {"only the fixed column without a heading", data, "1 9 9 9 9 9 32 9 9" + initial},
        {"no data line", heading + "1 0 22478 1677\n", "0 9 9 9 9 9 9 9 9" + located + lacking},
    };
    for (const auto& c : cases) {
        VmstatTable table = vxa_syshealth_vmstat_metrics;
        for (auto& row : table) row.value = 9;
        sandbox::SetOutput("vmstat", c.output.c_str());
        std::string values = Join(getVmstatMetrics(table.data()));
        std::string columns = ", columns";
        for (const auto& row : table) {
            values += Join("", row.value);
            columns += Join("", row.column);
        }
        EXPECT_EQ(Told(values + columns, "getVmstatMetrics"), c.told) << c.what;
        EXPECT_EQ(sandbox::Read(sandbox::Path("vmstat.args")), "-t 10 1\n");
    }
}

TEST_F(CollectorsTest, NothingCanBeOpened)
{
    VmstatTable table = vxa_syshealth_vmstat_metrics;
    double length = -1;
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const unsigned long long cpus = queryCpuCount();
    const int run_queue = queryRunQueueLength(&length);
    const int memory = getMemoryMetrics(table.data());
    const int vmstat = getVmstatMetrics(table.data());
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(Join(cpus, run_queue, length, memory, vmstat), "0 1 -1 0 0");
    EXPECT_EQ(host::TakeTraceLines(),
              (Lines{"SysHealth.eng queryCpuCount: failed to run command",
                     "SysHealth.eng queryRunQueueLength: could not run command, failing",
                     "SysHealth.eng getMemoryMetrics: failed to run command",
                     "SysHealth.eng getVmstatMetrics: failed to run command"}));
}

}  // namespace
