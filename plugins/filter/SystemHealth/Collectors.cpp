// Metric collectors: each runs one command or reads one file and parses one line format.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "SystemHealth.h"
#include "Text.h"

VmstatTable vxa_syshealth_vmstat_metrics = {{
    // No heading is ever "null": physical memory comes from the configuration line.
    {"vmstat_phys_mem", "null", 0, 0},
    {"vmstat_runQ", "r", 0, 0},
    {"vmstat_avm", "avm", 0, 0},
    {"vmstat_freemem", "fre", 0, 0},
    {"user_cpu", "us", 0, 0},
    // Located beforehand: "sy" heads the system calls too, further left.
    {"sys_cpu", "sy", 15, 0},
    {"idle_cpu", "id", 0, 0},
    {"wait_cpu", "wa", 0, 0},
}};

namespace {

constexpr std::size_t kLineSize = 256;

struct ClosePipe {
    void operator()(FILE* pipe) const { pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, ClosePipe>;

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

Pipe Run(const char* command)
{
    return Pipe(popen(command, "re"));
}

bool Complain(const fc::TracePoint& at, const char* message)
{
    fc::Trace(s_TraceEngine, at, "%s", message);
    return false;
}

// ---- run queue -------------------------------------------------------------------------

// The one-minute load average from the line of uptime. Positions are 32-bit, and the
// text ends one character before the comma: the last digit is dropped, so that the
// figure is the load in tenths that the thresholds were tuned with.
bool ParseRunQueue(const char* line, double* out)
{
    const fc::TracePoint at = SYSHEALTH_AT("queryRunQueueLength");
    const char* average = std::strstr(line, "average:");
    if (average == nullptr) return Complain(at, "no match on average:");
    const std::string_view rest(average + std::strlen("average:"));
    const std::size_t comma = rest.find(',');
    if (comma == std::string_view::npos) return Complain(at, "no match on comma");
    const std::string length(rest.substr(0, static_cast<std::uint32_t>(comma) - 1u));
    if (fc::Decode(length).ToDouble(out)) return true;
    fc::Trace(s_TraceEngine, at, "failed to convert runqueue length string %s", length.c_str());
    return false;
}

// ---- memory ----------------------------------------------------------------------------

// 1 when the line gave the figure, which is then stored.
int StoreMemoryFigure(bool parsed, unsigned long long figure, const char* complaint,
                      vxa_health_vmstat_metrics_t* row)
{
    if (!parsed) {
        Complain(SYSHEALTH_AT("getMemoryMetrics"), complaint);
        return 0;
    }
    row->value = figure;
    return 1;
}

int ReadMemoryLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    unsigned long long figure = 0;
    if (std::strstr(line, "MemTotal:") != nullptr) {
        const bool parsed = std::sscanf(line, "MemTotal: %llu kB", &figure) == 1;
        return StoreMemoryFigure(parsed, figure, "failed to parse MemTotal value",
                                 &table[kVmPhysicalMemory]);
    }
    if (std::strstr(line, "MemFree:") != nullptr) {
        const bool parsed = std::sscanf(line, "MemFree: %llu kB", &figure) == 1;
        return StoreMemoryFigure(parsed, figure, "failed to parse MemFree value",
                                 &table[kVmFreeMemory]);
    }
    return 0;
}

// ---- vmstat ----------------------------------------------------------------------------

// Calls visit(token, number) for the tokens between delimiters, numbered from 1. Runs of
// delimiters separate like one.
template <typename Visit>
void ForEachToken(std::string_view line, char delimiter, Visit visit)
{
    int number = 0;
    while (!line.empty()) {
        const std::size_t length = std::min(line.find(delimiter), line.size());
        if (length != 0) visit(std::string(line.substr(0, length)), ++number);
        line.remove_prefix(std::min(length + 1, line.size()));
    }
}

unsigned long long LeadingNumber(const std::string& text)
{
    return std::strtoull(text.c_str(), nullptr, 10);
}

int ReadConfigurationLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    int stored = 0;
    ForEachToken(line, '=', [&](const std::string& token, int number) {
        if (number == 3) {
            table[kVmPhysicalMemory].value = LeadingNumber(token);
            stored = 1;
        }
    });
    return stored;
}

// Each heading locates the first row that waits for it; located rows keep their column.
void ReadHeadingLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    ForEachToken(line, ' ', [&](const std::string& token, int number) {
        for (int row = 0; row < kVmRows; ++row)
            if (table[row].column == 0 && token == table[row].header) {
                table[row].column = number;
                return;
            }
    });
}

int ReadDataLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    int stored = 0;
    ForEachToken(line, ' ', [&](const std::string& token, int number) {
        for (int row = 0; row < kVmRows; ++row)
            if (table[row].column == number) {
                table[row].value = LeadingNumber(token);
                ++stored;
                return;
            }
    });
    return stored;
}

int ReadVmstatLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    if (std::strstr(line, "configuration:") != nullptr) return ReadConfigurationLine(line, table);
    if (std::strstr(line, "avm") != nullptr) {
        ReadHeadingLine(line, table);
        return 0;
    }
    // A data line is known by the colons of its time stamp.
    return std::strchr(line, ':') != nullptr ? ReadDataLine(line, table) : 0;
}

}  // namespace

unsigned long long queryCpuCount()
{
    Pipe pipe = Run("nproc");
    if (!pipe) {
        Complain(SYSHEALTH_AT("queryCpuCount"), "failed to run command");
        return 0;
    }
    unsigned long long count = 0;
    const int converted = std::fscanf(pipe.get(), "%llu", &count);
    pipe.reset();
    if (converted != 1) {
        Complain(SYSHEALTH_AT("queryCpuCount"), "failed to parse cpu count");
        return 0;
    }
    return count;
}

int queryRunQueueLength(double* out)
{
    constexpr const char* kSelf = "queryRunQueueLength";
    Pipe pipe = Run("uptime");
    if (!pipe) {
        Complain(SYSHEALTH_AT(kSelf), "could not run command, failing");
        return 1;
    }
    char line[kLineSize] = {};
    const bool read = std::fgets(line, sizeof line, pipe.get()) != nullptr;
    pipe.reset();
    if (!read) {
        Complain(SYSHEALTH_AT(kSelf), "could not retrieve command output, failing");
        return 1;
    }
    double length = 0;
    if (!ParseRunQueue(line, &length)) return 1;
    *out = length;
    return 0;
}

int getMemoryMetrics(vxa_health_vmstat_metrics_t* table)
{
    const std::unique_ptr<FILE, CloseFile> file(std::fopen("/proc/meminfo", "re"));
    if (!file) {
        Complain(SYSHEALTH_AT("getMemoryMetrics"), "failed to run command");
        return 0;
    }
    char line[kLineSize] = {};
    int found = 0;
    // One line beyond the second figure is read before the search ends.
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        if (found == 2) return found;
        found += ReadMemoryLine(line, table);
    }
    if (found == 2) return found;
    Complain(SYSHEALTH_AT("getMemoryMetrics"), "could not retrieve command output, failing");
    return 0;
}

int getVmstatMetrics(vxa_health_vmstat_metrics_t* table)
{
    const Pipe pipe = Run("vmstat -t 10 1");
    if (!pipe) {
        Complain(SYSHEALTH_AT("getVmstatMetrics"), "failed to run command");
        return 0;
    }
    char line[kLineSize] = {};
    int stored = 0;
    while (std::fgets(line, sizeof line, pipe.get()) != nullptr)
        stored += ReadVmstatLine(line, table);
    if (stored == 0)
        Complain(SYSHEALTH_AT("getVmstatMetrics"), "could not retrieve command output, failing");
    return stored;
}
