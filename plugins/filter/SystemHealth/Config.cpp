// The settings, and their two readers: the local file and the policy.

#include "Config.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <cjson/cJSON.h>

#include "HealthTrace.h"
#include "Lock.h"
#include "VxaCore/Dom.h"

namespace fc {
namespace {

static_assert(kJsonNumber == cJSON_Number && kJsonObject == cJSON_Object);

struct SettingRow {
    Setting setting;
    const char* file_key;
    const char* policy_key;
    double maximum;
    int json_kind;
    // For a threshold that needs the monitored port: its name in the error that the port is not
    // set.
    const char* needs_port = nullptr;
};

constexpr SettingRow kSettings[] = {
    // TCP or UDP port to monitor.
    {kSettingPort, "SYSTEM_CONNECTION_REFUSAL_PORT=", "SYS_CONF_CONN_REFUSAL_PORT", 65535,
     kJsonNumber},
    // 1: the port is monitored outbound, otherwise inbound.
    {kSettingOutbound, "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYS_CONF_CONN_REFUSAL_OUTBOUND", 1,
     kJsonNumber},
    // Only written to the JSON diagnostic file.
    {kSettingRecoveryFactor, "SYSTEM_RECOVERY_FACTOR=", "SYS_CONF_RECOVER_FACTOR", 100,
     kJsonNumber},
    // Minimum time in fail-open, minutes.
    {kSettingMinDuration, "SYSTEM_MIN_ACT_DURATION=", "SYS_CONF_MIN_ACT_DURATION", 60, kJsonNumber},
    // Thresholds, in the units of their metrics.
    {kSettingRefusalPct, "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", "SYS_THR_CONN_REFUSAL_PCT",
     100, kJsonObject, "Conn Refusal"},
    {kSettingRunQueue, "SYSTEM_RUNQ_PCT_THRESHOLD=", "SYS_THR_RUNQ", 200, kJsonObject},
    {kSettingEstablished, "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYS_THR_CONN_EST_PER_CPU",
     10000000, kJsonObject, "Conn Established"},
    {kSettingScanMbytes, "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU",
     100000, kJsonObject, "Scan Mbytes"},
    {kSettingFreeMemory, "SYSTEM_MIN_FREE_MEM_PCT=", "SYS_THR_FREE_MEM", 25, kJsonObject},
    {kSettingMaxInterval, "SYSTEM_MAX_ITERATION_INTERVAL=", "SYS_THR_MAX_ITERATION_INVL", 60,
     kJsonObject},
    // 1: the driver is to be unloaded in fail-open.
    {kSettingUnloadDriver, "SYSTEM_UNLOAD_DRIVER=", "SYS_CONF_UNLOAD_DRIVER", 1, kJsonNumber},
};

constexpr bool EachSettingHasItsRow()
{
    int next = 0;
    for (const auto& row : kSettings)
        if (row.setting != next++ || (row.json_kind != kJsonNumber && row.json_kind != kJsonObject))
            return false;
    return next == kSettingCount;
}
static_assert(EachSettingHasItsRow(),
              "kSettings has one complete row per Setting, in the same order");

constexpr ConfigTable UnsetConfig()
{
    ConfigTable table{};
    for (const auto& row : kSettings)
        table[row.setting] = {row.file_key, row.policy_key, row.maximum, 0, 0, row.json_kind};
    return table;
}

constexpr const char* kConfigFile = "/etc/vx_filter.conf";
const std::string s_UnloadDriverKey("vxp.filter.FailOpenUnloadDriver");

void ClearThresholdsOfPort(ConfigTable& table)
{
    for (const auto& row : kSettings)
        if (row.needs_port) table[row.setting].set = 0;
}

// In fail-open the thresholds that need the port are off; they still count as settings.
void StoreConfig(ConfigTable& table, int state)
{
    if (state == 1) ClearThresholdsOfPort(table);
    wxCriticalSectionLocker lock(g_syshealth_cs);
    vxa_syshealth_config = table;
}

void SetUnloadDriver(VxaCore::CDom* dom, const ConfigTable& table)
{
    dom->Set(s_UnloadDriverKey, table[kSettingUnloadDriver].value == 1.0);
}

void StoreSetting(vxa_syshealth_config_s& row, double value)
{
    row.value = value;
    row.set = 1;
}

// Both readers emit exactly this message; log filters match it.
int TraceCount(int count, const char* function)
{
    if (count > 0)
        Trace(s_TraceConf, SYSHEALTH_AT(function), "readSystemHealthConfig returning %d", count);
    return count;
}

// ---- file ------------------------------------------------------------------------------

// Returns 1 if the line sets this row to a value within bounds. The error shows the value in
// force, not the rejected one; log filters match it.
int ReadFileSetting(const char* line, vxa_syshealth_config_s& row)
{
    const std::size_t key_length = std::strlen(row.file_key);
    if (std::strncmp(line, row.file_key, key_length) != 0) return 0;
    const double value = std::strtof(line + key_length, nullptr);
    if (value > 0 && value <= row.maximum) {
        StoreSetting(row, value);
        return 1;
    }
    LogError(SYSHEALTH_AT("readSystemHealthConfig"), "value %f for  %s is out of range, max= %f",
             row.value, row.file_key, row.maximum);
    return 0;
}

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

// Does not block on a FIFO or a device. Returns null and sets errno on failure.
File OpenConfigFile()
{
    const int descriptor = open(kConfigFile, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    File file(fdopen(descriptor, "r"));
    if (!file) close(descriptor);
    return file;
}

// Returns how many lines set a setting; of several for the same key the last one wins. Anything
// but a regular file has no settings.
int ReadFileSettings(FILE* file, ConfigTable& table)
{
    struct stat status {};
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    char line[1024] = {};
    int count = 0;
    while (std::fgets(line, sizeof line, file))
        for (auto& row : table) count += ReadFileSetting(line, row);
    return count;
}

// ---- policy ----------------------------------------------------------------------------

constexpr const char* kPolicyReader = "readSystemHealthPolicy";

struct DeleteJson {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

// Returns null for a string that is not JSON, with the position of the fault in *error. Unlike
// cJSON_GetErrorPtr, this position is not shared between threads.
//
// cJSON returns null for a lack of memory as well, and that must not drop the policy. Only malloc
// sets ENOMEM here. glibc's malloc may do so although it succeeds, when brk fails and mmap does
// not (sysmalloc in malloc/malloc.c), but not twice in a row: there is room left then.
Json ParsePolicy(const char* json, const char** error)
{
    for (int attempts_left = 2; attempts_left > 0; --attempts_left) {
        errno = 0;
        Json policy(cJSON_ParseWithOpts(json, error, 0));
        if (policy || errno != ENOMEM) return policy;
    }
    throw std::bad_alloc();
}

int StorePolicySetting(vxa_syshealth_config_s& row, double value, bool in_bounds)
{
    if (!in_bounds) {
        Trace(s_TraceEngine, SYSHEALTH_AT(kPolicyReader), " value out of boundary [%s]",
              row.policy_key);
        return 0;
    }
    StoreSetting(row, value);
    Trace(s_TraceConf, SYSHEALTH_AT(kPolicyReader), "stored %s  %f", row.policy_key, value);
    return 1;
}

// Returns 1 if the policy sets this row to a value within bounds. Unlike the file, a policy may set
// a plain number to 0.
int ReadPolicySetting(const cJSON* policy, vxa_syshealth_config_s& row)
{
    const cJSON* member = cJSON_GetObjectItem(policy, row.policy_key);
    if (!member) return 0;
    if (row.json_kind == kJsonNumber) {
        const double value = member->valuedouble;
        return StorePolicySetting(row, value, value >= 0 && value <= row.maximum);
    }
    if (row.json_kind == kJsonObject) {
        const cJSON* number = cJSON_GetObjectItem(member, "value");
        if (!cJSON_IsNumber(number)) return 0;
        const double value = number->valuedouble;
        return StorePolicySetting(row, value, value > 0 && value <= row.maximum);
    }
    Trace(s_TraceEngine, SYSHEALTH_AT(kPolicyReader), "unsupport json type[%d]", member->type);
    row.set = 0;
    return 0;
}

// ---- thresholds without a port -----------------------------------------------------------

// Switches the threshold off if no port is set. Returns whether it did.
bool RejectWithoutPort(Setting threshold)
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    auto& row = vxa_syshealth_config[threshold];
    if (row.set == 0 || vxa_syshealth_config[kSettingPort].set != 0) return false;
    row.set = 0;
    return true;
}

}  // namespace

ConfigTable CopyConfig()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return vxa_syshealth_config;
}

bool RejectThresholdsWithoutPort()
{
    bool rejected = false;
    for (const auto& row : kSettings) {
        if (!row.needs_port || !RejectWithoutPort(row.setting)) continue;
        LogError(SYSHEALTH_AT("CheckSystemHealthMetrics"),
                 "SysHealth - %s enabled but monitoring port not configured", row.needs_port);
        rejected = true;
    }
    return rejected;
}

}  // namespace fc

ConfigTable vxa_syshealth_config = fc::UnsetConfig();

int DisableScanMetric()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    fc::ClearThresholdsOfPort(vxa_syshealth_config);
    return 0;
}

int readSystemHealthConfig(VxaCore::CDom* dom, int state)
{
    const fc::File file = fc::OpenConfigFile();
    // A missing file switches monitoring off; a lack of memory must not.
    if (!file && errno == ENOMEM) throw std::bad_alloc();
    ConfigTable table = fc::UnsetConfig();
    int count = 0;
    if (file) {
        count = fc::ReadFileSettings(file.get(), table);
        fc::SetUnloadDriver(dom, table);
    }
    fc::StoreConfig(table, state);
    return fc::TraceCount(count, "readSystemHealthConfig");
}

int readSystemHealthPolicy(VxaCore::CDom* dom, int state, const char* json)
{
    ConfigTable table = fc::UnsetConfig();
    const char* error = nullptr;
    const fc::Json policy = fc::ParsePolicy(json, &error);
    if (!policy) {
        fc::StoreConfig(table, 0);
        fc::Trace(s_TraceEngine, SYSHEALTH_AT(fc::kPolicyReader), "json parsing error [%s]",
                  error ? error : "");
        return 0;
    }
    int count = 0;
    for (auto& row : table) count += fc::ReadPolicySetting(policy.get(), row);
    fc::SetUnloadDriver(dom, table);
    fc::StoreConfig(table, state);
    return fc::TraceCount(count, fc::kPolicyReader);
}
