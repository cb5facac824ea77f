// Collectors: each runs one command or reads one file, and parses its lines.

#include "Collectors.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "HealthTrace.h"
#include "StringConversion.h"

VmstatTable vxa_syshealth_vmstat_metrics = {{
    // No column has this heading: physical memory comes from the line "System configuration:".
    {"vmstat_phys_mem", "null", 0, 0},
    {"vmstat_runQ", "r", 0, 0},
    {"vmstat_avm", "avm", 0, 0},
    {"vmstat_freemem", "fre", 0, 0},
    {"user_cpu", "us", 0, 0},
    // Fixed column: an earlier column, of system calls, may have the heading "sy" as well.
    {"sys_cpu", "sy", 15, 0},
    {"idle_cpu", "id", 0, 0},
    {"wait_cpu", "wa", 0, 0},
}};

namespace fc {
namespace {

constexpr std::size_t kLineSize = 256;

struct ClosePipe {
    void operator()(FILE* pipe) const { pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, ClosePipe>;

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};

Pipe RunCommand(const char* command)
{
    return Pipe(popen(command, "re"));
}

void TraceFailure(const TracePoint& at, const char* message)
{
    Trace(s_TraceEngine, at, "%s", message);
}

// ---- run queue -------------------------------------------------------------------------

// Reads the one-minute load average from the output of uptime. The last digit is dropped, so that
// 0.52 yields 0.5: thresholds are compared with this value. Positions are 32-bit unsigned.
bool ParseRunQueue(const char* line, double* out)
{
    const TracePoint at = SYSHEALTH_AT("queryRunQueueLength");
    const char* average = std::strstr(line, "average:");
    if (!average) {
        TraceFailure(at, "no match on average:");
        return false;
    }
    const std::string_view rest(average + std::strlen("average:"));
    const std::size_t comma = rest.find(',');
    if (comma == std::string_view::npos) {
        TraceFailure(at, "no match on comma");
        return false;
    }
    const std::string length(rest.substr(0, static_cast<std::uint32_t>(comma) - 1u));
    if (Decode(length).ToDouble(out)) return true;
    Trace(s_TraceEngine, at, "failed to convert runqueue length string %s", length.c_str());
    return false;
}

// ---- memory ----------------------------------------------------------------------------

// Returns 1 and stores the value if the line could be parsed.
int StoreMemory(bool parsed, unsigned long long value, const char* complaint,
                vxa_health_vmstat_metrics_t* row)
{
    if (!parsed) {
        TraceFailure(SYSHEALTH_AT("getMemoryMetrics"), complaint);
        return 0;
    }
    row->value = value;
    return 1;
}

// Returns how many values of the line were stored.
int ReadMemoryLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    unsigned long long kb = 0;
    if (std::strstr(line, "MemTotal:")) {
        const bool parsed = std::sscanf(line, "MemTotal: %llu kB", &kb) == 1;
        return StoreMemory(parsed, kb, "failed to parse MemTotal value",
                           &table[kVmstatPhysicalMemory]);
    }
    if (std::strstr(line, "MemFree:")) {
        const bool parsed = std::sscanf(line, "MemFree: %llu kB", &kb) == 1;
        return StoreMemory(parsed, kb, "failed to parse MemFree value", &table[kVmstatFreeMemory]);
    }
    return 0;
}

// ---- vmstat ----------------------------------------------------------------------------

// Calls visit(token, number) for each non-empty token between delimiters, numbered from 1.
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

unsigned long long LeadingNumber(const std::string& token)
{
    return std::strtoull(token.c_str(), nullptr, 10);
}

int ReadConfigurationLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    int stored = 0;
    ForEachToken(line, '=', [&](const std::string& token, int number) {
        if (number == 3) {
            table[kVmstatPhysicalMemory].value = LeadingNumber(token);
            stored = 1;
        }
    });
    return stored;
}

// Locates each row at the first heading that matches; located rows keep their column.
void ReadHeadingLine(const char* line, vxa_health_vmstat_metrics_t* table)
{
    ForEachToken(line, ' ', [&](const std::string& token, int number) {
        for (int row = 0; row < kVmstatCount; ++row)
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
        for (int row = 0; row < kVmstatCount; ++row)
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
    if (std::strstr(line, "configuration:")) return ReadConfigurationLine(line, table);
    if (std::strstr(line, "avm")) {
        ReadHeadingLine(line, table);
        return 0;
    }
    // The time stamp of a data line has colons.
    return std::strchr(line, ':') ? ReadDataLine(line, table) : 0;
}

}  // namespace
}  // namespace fc

unsigned long long queryCpuCount()
{
    constexpr const char* kFunction = "queryCpuCount";
    fc::Pipe pipe = fc::RunCommand("nproc");
    if (!pipe) {
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "failed to run command");
        return 0;
    }
    unsigned long long count = 0;
    const int converted = std::fscanf(pipe.get(), "%llu", &count);
    pipe.reset();
    if (converted != 1) {
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "failed to parse cpu count");
        return 0;
    }
    return count;
}

int queryRunQueueLength(double* out)
{
    constexpr const char* kFunction = "queryRunQueueLength";
    fc::Pipe pipe = fc::RunCommand("uptime");
    if (!pipe) {
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "could not run command, failing");
        return 1;
    }
    char line[fc::kLineSize] = {};
    const bool read = std::fgets(line, sizeof line, pipe.get()) != nullptr;
    pipe.reset();
    if (!read) {
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "could not retrieve command output, failing");
        return 1;
    }
    double length = 0;
    if (!fc::ParseRunQueue(line, &length)) return 1;
    *out = length;
    return 0;
}

int getMemoryMetrics(vxa_health_vmstat_metrics_t* table)
{
    constexpr const char* kFunction = "getMemoryMetrics";
    const std::unique_ptr<FILE, fc::CloseFile> file(std::fopen("/proc/meminfo", "re"));
    if (!file) {
        // Log filters match the same message as for the commands.
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "failed to run command");
        return 0;
    }
    char line[fc::kLineSize] = {};
    int found = 0;
    // Reads one line more after the second value.
    while (std::fgets(line, sizeof line, file.get())) {
        if (found == 2) return found;
        found += fc::ReadMemoryLine(line, table);
    }
    if (found == 2) return found;
    fc::TraceFailure(SYSHEALTH_AT(kFunction), "could not retrieve command output, failing");
    return 0;
}

int getVmstatMetrics(vxa_health_vmstat_metrics_t* table)
{
    constexpr const char* kFunction = "getVmstatMetrics";
    const fc::Pipe pipe = fc::RunCommand("vmstat -t 10 1");
    if (!pipe) {
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "failed to run command");
        return 0;
    }
    char line[fc::kLineSize] = {};
    int stored = 0;
    while (std::fgets(line, sizeof line, pipe.get())) stored += fc::ReadVmstatLine(line, table);
    if (stored == 0)
        fc::TraceFailure(SYSHEALTH_AT(kFunction), "could not retrieve command output, failing");
    return stored;
}
