// Health configuration: the two readers and the JSON log of what is in force.

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

#include "SystemHealth.h"
#include "VxaCore/Dom.h"

wxCriticalSection g_syshealth_cs;

const wxString s_TraceEngine(L"SysHealth.eng");
const wxString s_TraceScan(L"SysHealth.scan");
const wxString s_TraceConf(L"SysHealth.conf");
const wxString s_TraceMetr(L"SysHealth.metr");

ConfigTable vxa_syshealth_config = {{
    {"SYSTEM_CONNECTION_REFUSAL_PORT=", "SYS_CONF_CONN_REFUSAL_PORT", 65535, 0, 0, kJsonNumber},
    {"SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYS_CONF_CONN_REFUSAL_OUTBOUND", 1, 0, 0, kJsonNumber},
    {"SYSTEM_RECOVERY_FACTOR=", "SYS_CONF_RECOVER_FACTOR", 100, 0, 0, kJsonNumber},
    {"SYSTEM_MIN_ACT_DURATION=", "SYS_CONF_MIN_ACT_DURATION", 60, 0, 0, kJsonNumber},
    {"SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=", "SYS_THR_CONN_REFUSAL_PCT", 100, 0, 0,
     kJsonObject},
    {"SYSTEM_RUNQ_PCT_THRESHOLD=", "SYS_THR_RUNQ", 200, 0, 0, kJsonObject},
    {"SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYS_THR_CONN_EST_PER_CPU", 10000000, 0, 0,
     kJsonObject},
    {"SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", 100000, 0, 0,
     kJsonObject},
    {"SYSTEM_MIN_FREE_MEM_PCT=", "SYS_THR_FREE_MEM", 25, 0, 0, kJsonObject},
    {"SYSTEM_MAX_ITERATION_INTERVAL=", "SYS_THR_MAX_ITERATION_INVL", 60, 0, 0, kJsonObject},
    {"SYSTEM_UNLOAD_DRIVER=", "SYS_CONF_UNLOAD_DRIVER", 1, 0, 0, kJsonNumber},
}};

namespace {

constexpr const char* kConfigFile = "/etc/vx_filter.conf";
constexpr const char* kConfigLog = "/var/opt/vx_agent/diag/vx_filter_json.log";
const std::string s_UnloadDriverKey("vxp.filter.FailOpenUnloadDriver");

struct CloseFile {
    void operator()(FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

struct DeleteJson {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, DeleteJson>;

struct FreeJsonText {
    void operator()(char* text) const { cJSON_free(text); }
};

ConfigTable UnsetConfig()
{
    ConfigTable table = CopyConfig();
    for (auto& row : table) {
        row.value = 0;
        row.set = 0;
    }
    return table;
}

void ClearScanThresholds(ConfigTable& table)
{
    for (ConfigRow row : {kConfRefusalPct, kConfEstablished, kConfScanMbytes}) table[row].set = 0;
}

// In fail-open the filter no longer sees the port's connections as it should, so the
// thresholds on them stay off; the count of settings is not lowered.
void Commit(ConfigTable& table, int state)
{
    if (state == 1) ClearScanThresholds(table);
    wxCriticalSectionLocker lock(g_syshealth_cs);
    vxa_syshealth_config = table;
}

void TellUnloadDriver(VxaCore::CDom* dom, const ConfigTable& table)
{
    dom->Set(s_UnloadDriverKey, table[kConfUnloadDriver].value == 1.0);
}

void Store(vxa_syshealth_config_s& row, double value)
{
    row.value = value;
    row.set = 1;
}

// Both readers trace exactly this line; log filters match it.
int ReportCount(int count, const char* function)
{
    if (count > 0)
        fc::Trace(s_TraceConf, SYSHEALTH_AT(function), "readSystemHealthConfig returning %d",
                  count);
    return count;
}

// ---- file ------------------------------------------------------------------------------

// 1 when the line gives this row a value within bounds. The message shows the value in
// force, which the rejected one does not replace.
int ReadFileSetting(const char* line, vxa_syshealth_config_s& row)
{
    const std::size_t key_length = std::strlen(row.file_key);
    if (std::strncmp(line, row.file_key, key_length) != 0) return 0;
    const double value = std::strtof(line + key_length, nullptr);
    if (value > 0 && value <= row.maximum) {
        Store(row, value);
        return 1;
    }
    fc::LogError(SYSHEALTH_AT("readSystemHealthConfig"),
                 "value %f for  %s is out of range, max= %f", row.value, row.file_key, row.maximum);
    return 0;
}

// Neither a FIFO nor a device holds up the cycle. Null with the reason in errno.
File OpenConfigFile()
{
    const int descriptor = open(kConfigFile, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0) return nullptr;
    File file(fdopen(descriptor, "r"));
    if (!file) close(descriptor);
    return file;
}

// A key on several lines counts each time and the last one wins. What is no regular file has
// no settings.
int ReadFileSettings(FILE* file, ConfigTable& table)
{
    struct stat status {};
    if (fstat(fileno(file), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
    char line[1024] = {};
    int count = 0;
    while (std::fgets(line, sizeof line, file) != nullptr)
        for (auto& row : table) count += ReadFileSetting(line, row);
    return count;
}

// ---- policy ----------------------------------------------------------------------------

constexpr const char* kPolicyReader = "readSystemHealthPolicy";

// Null for a text that is not JSON, with `*error` where it stops being JSON: the same place that
// cJSON_GetErrorPtr gives, but this call's own, not one shared by all threads.
//
// cJSON reports a lack of memory in the same way, and a policy must not be dropped for that.
// Only malloc sets ENOMEM. It can do so even when it succeeds, by mmap after brk was refused, but
// not twice in a row: it then has room left.
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
        fc::Trace(s_TraceEngine, SYSHEALTH_AT(kPolicyReader), " value out of boundary [%s]",
                  row.policy_key);
        return 0;
    }
    Store(row, value);
    fc::Trace(s_TraceConf, SYSHEALTH_AT(kPolicyReader), "stored %s  %f", row.policy_key, value);
    return 1;
}

// The policy may set a plain number to 0, which the file cannot: the management side
// sends every such setting, also those that are off.
int ReadPolicySetting(const cJSON* policy, vxa_syshealth_config_s& row)
{
    const cJSON* member = cJSON_GetObjectItem(policy, row.policy_key);
    if (member == nullptr) return 0;
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
    fc::Trace(s_TraceEngine, SYSHEALTH_AT(kPolicyReader), "unsupport json type[%d]", member->type);
    row.set = 0;
    return 0;
}

// ---- JSON log --------------------------------------------------------------------------

bool AddSetting(cJSON* root, const vxa_syshealth_config_s& row)
{
    if (row.json_kind == kJsonNumber)
        return cJSON_AddNumberToObject(root, row.policy_key, row.value) != nullptr;
    cJSON* object = cJSON_AddObjectToObject(root, row.policy_key);
    return object != nullptr && cJSON_AddNumberToObject(object, "value", row.value) != nullptr;
}

struct Descriptor {
    int number;
    explicit Descriptor(int opened) : number(opened) {}
    ~Descriptor()
    {
        if (number >= 0) close(number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
};

bool WriteAll(int file, const std::string& text)
{
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t part = write(file, text.data() + written, text.size() - written);
        if (part < 0 && errno == EINTR) continue;
        if (part <= 0) return false;
        written += static_cast<std::size_t>(part);
    }
    return true;
}

// Another user may own the folder or the file: links are not followed, a FIFO or a lease does not
// hold up the cycle, and a file that also has another name is left alone.
int OpenConfigLog()
{
    const int file =
        open(kConfigLog, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    struct stat status {};
    if (file < 0 || (fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1))
        return file;
    close(file);
    return -1;
}

// Overwrites instead of truncating first: freeing the file's block and allocating it again in
// every cycle cost 2 to 4 ms on ext4, this 0.04 ms. A shorter text is written with line feeds up
// to the old length, in one call, and then cut: a reader never finds the tail of the old one.
bool ReplaceContents(int file, std::string text)
{
    constexpr off_t kLargestOfOurs = 16384;
    const auto length = static_cast<off_t>(text.size());
    struct stat status {};
    if (fstat(file, &status) != 0) return false;
    if (status.st_size > kLargestOfOurs && ftruncate(file, length) != 0) return false;
    const off_t old_length = status.st_size > kLargestOfOurs ? length : status.st_size;
    if (old_length > length) text.resize(static_cast<std::size_t>(old_length), '\n');
    return WriteAll(file, text) && (old_length <= length || ftruncate(file, length) == 0);
}

bool OutputFailed(const char* why, int line)
{
    fc::Trace(s_TraceEngine, {"plugins/filter/SystemHealth", line, "outputCloudConfig"}, "%s", why);
    return false;
}

}  // namespace

ConfigTable CopyConfig()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return vxa_syshealth_config;
}

int DisableScanMetric()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    ClearScanThresholds(vxa_syshealth_config);
    return 0;
}

int readSystemHealthConfig(VxaCore::CDom* dom, int state)
{
    const File file = OpenConfigFile();
    // A missing file switches monitoring off; a lack of memory must not.
    if (!file && errno == ENOMEM) throw std::bad_alloc();
    ConfigTable table = UnsetConfig();
    int count = 0;
    if (file) {
        count = ReadFileSettings(file.get(), table);
        TellUnloadDriver(dom, table);
    }
    Commit(table, state);
    return ReportCount(count, "readSystemHealthConfig");
}

int readSystemHealthPolicy(VxaCore::CDom* dom, int state, const char* json)
{
    ConfigTable table = UnsetConfig();
    const char* error = nullptr;
    const Json policy = ParsePolicy(json, &error);
    if (!policy) {
        Commit(table, 0);
        fc::Trace(s_TraceEngine, SYSHEALTH_AT(kPolicyReader), "json parsing error [%s]",
                  error != nullptr ? error : "");
        return 0;
    }
    int count = 0;
    for (auto& row : table) count += ReadPolicySetting(policy.get(), row);
    TellUnloadDriver(dom, table);
    Commit(table, state);
    return ReportCount(count, kPolicyReader);
}

bool outputCloudConfig()
{
    const Json root(cJSON_CreateObject());
    if (!root) return OutputFailed("Fail to cJSON_CreateObject for root", __LINE__);
    for (const auto& row : CopyConfig())
        if (row.set == 1 && !AddSetting(root.get(), row))
            return OutputFailed("Fail to cJSON_CreateObject for object", __LINE__);
    const std::unique_ptr<char, FreeJsonText> text(cJSON_Print(root.get()));
    if (!text) return OutputFailed("Fail to print JSON", __LINE__);
    const Descriptor file(OpenConfigLog());
    if (file.number < 0)
        return OutputFailed("Failed to open file of json config for writing.", __LINE__);
    if (!ReplaceContents(file.number, text.get() + std::string("\n")))
        return OutputFailed("Failed to write json config to file", __LINE__);
    return true;
}
