// Lua functions that report the state of the health monitor.
//
// Each copies a plain record under the lock and pushes it after unlocking, because Lua may raise
// while it pushes.

#include "Queries.h"

#include "Collectors.h"
#include "Config.h"
#include "Cycle.h"
#include "HealthTrace.h"
#include "Lock.h"
#include "LuaBoundary.h"
#include "Metrics.h"
#include "Numbers.h"

namespace fc {
namespace {

struct ScanPort {
    bool monitored;
    std::int64_t port;
};

struct MetricsRecord {
    MetricTable metrics;
    unsigned long long cpus;
};

int ReadEnabled()
{
    Trace(s_TraceEngine, SYSHEALTH_AT("GetSysHealthEnabled"), "GetSysHealthEnabled() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    Trace(s_TraceEngine, SYSHEALTH_AT("GetSysHealthEnabled"), "GetSysHealthEnabled() returning %d",
          syshealth_enabled);
    return syshealth_enabled;
}

// The two messages are in different categories; log filters match both.
ScanPort ReadScanPort()
{
    Trace(s_TraceMetr, SYSHEALTH_AT("GetScanMetricPort"), "GetScanMetricPort() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    const auto& row = vxa_syshealth_config[kSettingPort];
    ScanPort port{false, 0};
    if (syshealth_enabled == 1 && row.set != 0) port = {true, TruncateToInt64(row.value)};
    Trace(s_TraceEngine, SYSHEALTH_AT("GetScanMetricPort"), "GetScanMetricPort() returning");
    return port;
}

// Counts the processors with the lock held, so that the count belongs to these metrics.
void ReadMetrics(MetricsRecord* record)
{
    Trace(s_TraceMetr, SYSHEALTH_AT("GetSysHealthMetrics"), "GetSysHealthMetrics() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    record->metrics = health_metrics;
    record->cpus = queryCpuCount();
    Trace(s_TraceMetr, SYSHEALTH_AT("GetSysHealthMetrics"), "GetSysHealthMetrics() returning");
}

void SetInteger(lua_State* L, const char* field, std::int64_t value)  // [-0, +0, m]
{
    lua_pushnumber(L, static_cast<lua_Number>(value));
    lua_setfield(L, -2, field);
}

void PushMetric(lua_State* L, const health_metrics_s& metric)  // [-0, +1, m]
{
    lua_createtable(L, 0, 3);
    SetInteger(L, "value", TruncateToInt64(metric.value));
    SetInteger(L, "threshold", TruncateToInt64(metric.threshold));
    lua_pushstring(L, metric.short_name);
    lua_setfield(L, -2, "name");
}

void PushCpuCount(lua_State* L, unsigned long long cpus)  // [-0, +1, m]
{
    lua_createtable(L, 0, 1);
    lua_pushnumber(L, static_cast<lua_Number>(cpus));
    lua_setfield(L, -2, "cpu_count");
}

}  // namespace
}  // namespace fc

int GetSysHealthEnabled(lua_State* L)
{
    int enabled = 0;
    fc::Guarded(L, [&] { enabled = fc::ReadEnabled(); });
    lua_pushboolean(L, enabled != 0);
    return 1;
}

int GetScanMetricPort(lua_State* L)
{
    fc::ScanPort port{false, 0};
    fc::Guarded(L, [&] { port = fc::ReadScanPort(); });
    lua_pushboolean(L, port.monitored);
    lua_pushnumber(L, static_cast<lua_Number>(port.port));
    return 2;
}

int GetSysHealthMetrics(lua_State* L)
{
    fc::MetricsRecord record{};
    fc::Guarded(L, [&] { fc::ReadMetrics(&record); });
    lua_pushboolean(L, 1);
    lua_createtable(L, fc::kMetricCount + 1, 0);
    for (int row = 0; row < fc::kMetricCount; ++row) {
        fc::PushMetric(L, record.metrics[row]);
        lua_rawseti(L, -2, row + 1);
    }
    fc::PushCpuCount(L, record.cpus);
    lua_rawseti(L, -2, fc::kMetricCount + 1);
    return 2;
}
