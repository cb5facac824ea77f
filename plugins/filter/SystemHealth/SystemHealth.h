// The system health monitor: shared tables and globals.
//
// One cycle (Cycle.cpp) rebuilds the configuration (Config.cpp), samples the machine
// (Collectors.cpp) and the monitored port (ScanMetrics.cpp), derives six metrics and
// counts those beyond their thresholds (Metrics.cpp), and decides about fail-open
// (FailOpen.h). Scripts look at the outcome through Queries.cpp.
//
// Threads. Every global below is read and written under g_syshealth_cs only. The cycle calls
// the driver, runs the collectors and uses files without it, on local copies that are committed
// in one step. One query, GetSysHealthMetrics, runs queryCpuCount while it holds the lock; a
// cycle may have to wait for that. The lock is never held while another is taken.
#pragma once

#include <array>
#include <cstdint>

#include <wx/string.h>
#include <wx/thread.h>
#include <lua.hpp>

#include "Export.h"
#include "Trace.h"
#include "vxi/vxi.h"

namespace VxaCore {
class CDom;
}

// ---- lock and trace categories ---------------------------------------------------------

extern wxCriticalSection g_syshealth_cs;

extern const wxString s_TraceEngine;  // "SysHealth.eng": cycle, collectors, faults
extern const wxString s_TraceScan;    // "SysHealth.scan": scan monitoring
extern const wxString s_TraceConf;    // "SysHealth.conf": settings accepted
extern const wxString s_TraceMetr;    // "SysHealth.metr": metric queries

// The place of a trace in this area: one file text for all of its sources.
#define SYSHEALTH_AT(function) (::fc::TracePoint{"plugins/filter/SystemHealth", __LINE__, function})

// ---- configuration ---------------------------------------------------------------------

// How a setting stands in the policy; the numbers are cJSON's type codes.
enum { kJsonNumber = 8, kJsonObject = 64 };

struct vxa_syshealth_config_s {
    const char* file_key;    // as it starts a line of the file, "=" included
    const char* policy_key;  // member name in the policy and in the written JSON
    double maximum;
    double value;  // 0 when not set
    int set;       // 1 when a valid value was read in this cycle
    int json_kind;
};

enum ConfigRow {
    kConfPort,            // monitored port
    kConfOutbound,        // 1: monitored as outbound
    kConfRecoveryFactor,  // reported only
    kConfMinActDuration,  // minutes in fail-open at least
    kConfRefusalPct,      // threshold, needs the port
    kConfRunQueue,        // threshold
    kConfEstablished,     // threshold, needs the port
    kConfScanMbytes,      // threshold, needs the port
    kConfFreeMemory,      // threshold, percent
    kConfMaxInterval,     // threshold, seconds
    kConfUnloadDriver,    // 1: the driver is to be unloaded in fail-open
    kConfRows
};

using ConfigTable = std::array<vxa_syshealth_config_s, kConfRows>;
extern ConfigTable vxa_syshealth_config;

ConfigTable CopyConfig();

// Rebuild the table, from the local file or from the policy's JSON text, and set in the
// document whether the driver is to be unloaded in fail-open. `state` is 1 while the
// caller is in fail-open: the thresholds that need the port are off then. Return the
// number of settings accepted; 0 also when the source cannot be read, and then the
// document is left alone. Raise std::bad_alloc, with the table unchanged, when memory runs
// out: that is not a source that cannot be read.
FC_PUBLIC int readSystemHealthConfig(VxaCore::CDom* dom, int state);
FC_PUBLIC int readSystemHealthPolicy(VxaCore::CDom* dom, int state, const char* json);

// Writes the settings in force as JSON to the diagnostic file, which must be a regular file with
// one name or not exist. False when it could not.
FC_PUBLIC bool outputCloudConfig();

// Clears the set flag of the three thresholds that need the port's counters. Returns 0.
FC_PUBLIC int DisableScanMetric();

// ---- collectors ------------------------------------------------------------------------

struct vxa_health_vmstat_metrics_t {
    const char* name;
    const char* header;        // heading of its column in the output of vmstat
    std::int32_t column;       // 1-based field of a data line; 0: not yet located
    unsigned long long value;  // last one collected
};

enum VmstatRow {
    kVmPhysicalMemory,
    kVmRunQueue,
    kVmActive,
    kVmFreeMemory,
    kVmUserCpu,
    kVmSystemCpu,
    kVmIdleCpu,
    kVmWaitCpu,
    kVmRows
};

using VmstatTable = std::array<vxa_health_vmstat_metrics_t, kVmRows>;
extern VmstatTable vxa_syshealth_vmstat_metrics;

// Processors available to this process; 0 on failure.
FC_PUBLIC unsigned long long queryCpuCount();

// Run-queue length (one-minute load average). 0 on success; 1 and *out untouched on failure.
FC_PUBLIC int queryRunQueueLength(double* out);

// Physical and free memory in kB into the 8-row table. 2 on success, else 0.
FC_PUBLIC int getMemoryMetrics(vxa_health_vmstat_metrics_t* table);

// The same record from a vmstat that prints its system configuration and columns "avm"
// and "fre"; blocks for its ten-second sample. Number of values stored, 0 on failure.
FC_PUBLIC int getVmstatMetrics(vxa_health_vmstat_metrics_t* table);

// ---- metrics ---------------------------------------------------------------------------

struct health_metrics_s {
    const char* name;
    const char* short_name;
    std::int32_t direction;  // 0: bad above the threshold; else bad below it
    double value;
    double threshold;
    std::int32_t enabled;
};

enum MetricRow {
    kMetRunQueue,
    kMetRefusalPct,
    kMetEstablished,
    kMetScanMbytes,
    kMetFreeMemory,
    kMetInterval,
    kMetRows
};

using MetricTable = std::array<health_metrics_s, kMetRows>;
extern MetricTable health_metrics;

// The three below: call with g_syshealth_cs held.

// Carries the configuration into the thresholds; stores the configured minimum time in
// fail-open, if any, in *minDurationMinutes.
FC_PUBLIC void applyMetricConfigs(unsigned long long* min_duration_minutes);

// Computes the value of every enabled metric.
FC_PUBLIC void calculateHealthMetrics(double rq_len, unsigned long long num_cpus, double delta_t);

// How many enabled metrics are beyond their threshold scaled by the factor.
FC_PUBLIC int check_health_metric_thresholds(double factor);

// ---- scan monitoring of one port -------------------------------------------------------

extern int initial_monitored_port;  // for which the driver was last configured
extern int first_run;               // 1 until the first successful fetch
extern std::array<double, VXI_SCAN_COUNTERS> scan_rates;  // per second
extern std::array<std::uint64_t, VXI_SCAN_COUNTERS> prev_scan_metrics;

// Fetches the port's counters through a driver handle of its own, configuring the
// driver first until a fetch has succeeded. False, with the port's thresholds switched
// off, when the driver cannot deliver. Without the lock.
bool FetchScanMetrics(const ConfigTable& config, scan_metrics_request* request);

// Turns fetched counters into rates over deltaT seconds. With the lock held.
void UpdateScanRates(const scan_metrics_request& request, double delta_t);

// ---- the cycle's own state -------------------------------------------------------------

extern int syshealth_enabled;  // 0 when the last cycle ended with monitoring disabled
extern std::uint64_t t_act;    // last transition into fail-open, us since the epoch
extern std::uint64_t t_prev;   // previous cycle, us since the epoch; 0 before the first

// ---- Lua functions ---------------------------------------------------------------------

FC_PUBLIC int CheckSystemHealthMetrics(lua_State* L);
FC_PUBLIC int GetSysHealthMetrics(lua_State* L);
FC_PUBLIC int GetSysHealthEnabled(lua_State* L);
FC_PUBLIC int GetScanMetricPort(lua_State* L);
