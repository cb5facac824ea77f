// The Lua queries of the health state. Each copies a plain record under the lock and
// pushes it afterwards: Lua may raise while it pushes.

#include "LuaBoundary.h"
#include "SystemHealth.h"

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
    fc::Trace(s_TraceEngine, SYSHEALTH_AT("GetSysHealthEnabled"), "GetSysHealthEnabled() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    fc::Trace(s_TraceEngine, SYSHEALTH_AT("GetSysHealthEnabled"),
              "GetSysHealthEnabled() returning %d", syshealth_enabled);
    return syshealth_enabled;
}

// The two lines go to different categories; log filters select on each.
ScanPort ReadScanPort()
{
    fc::Trace(s_TraceMetr, SYSHEALTH_AT("GetScanMetricPort"), "GetScanMetricPort() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    const auto& row = vxa_syshealth_config[kConfPort];
    ScanPort port{false, 0};
    if (syshealth_enabled == 1 && row.set != 0) port = {true, fc::TruncateToInt64(row.value)};
    fc::Trace(s_TraceEngine, SYSHEALTH_AT("GetScanMetricPort"), "GetScanMetricPort() returning");
    return port;
}

// The processor count is taken under the lock, so that it belongs to these metrics.
void ReadMetrics(MetricsRecord* record)
{
    fc::Trace(s_TraceMetr, SYSHEALTH_AT("GetSysHealthMetrics"), "GetSysHealthMetrics() called");
    wxCriticalSectionLocker lock(g_syshealth_cs);
    record->metrics = health_metrics;
    record->cpus = queryCpuCount();
    fc::Trace(s_TraceMetr, SYSHEALTH_AT("GetSysHealthMetrics"), "GetSysHealthMetrics() returning");
}

void SetInteger(lua_State* L, const char* field, std::int64_t value)  // [-0, +0, m]
{
    lua_pushnumber(L, static_cast<lua_Number>(value));
    lua_setfield(L, -2, field);
}

void PushMetric(lua_State* L, const health_metrics_s& metric)  // [-0, +1, m]
{
    lua_createtable(L, 0, 3);
    SetInteger(L, "value", fc::TruncateToInt64(metric.value));
    SetInteger(L, "threshold", fc::TruncateToInt64(metric.threshold));
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

int GetSysHealthEnabled(lua_State* L)
{
    int enabled = 0;
    fc::Guarded(L, [&] { enabled = ReadEnabled(); });
    lua_pushboolean(L, enabled != 0);
    return 1;
}

int GetScanMetricPort(lua_State* L)
{
    ScanPort port{false, 0};
    fc::Guarded(L, [&] { port = ReadScanPort(); });
    lua_pushboolean(L, port.monitored);
    lua_pushnumber(L, static_cast<lua_Number>(port.port));
    return 2;
}

int GetSysHealthMetrics(lua_State* L)
{
    MetricsRecord record{};
    fc::Guarded(L, [&] { ReadMetrics(&record); });
    lua_pushboolean(L, 1);
    lua_createtable(L, kMetRows + 1, 0);
    for (int row = 0; row < kMetRows; ++row) {
        PushMetric(L, record.metrics[row]);
        lua_rawseti(L, -2, row + 1);
    }
    PushCpuCount(L, record.cpus);
    lua_rawseti(L, -2, kMetRows + 1);
    return 2;
}
