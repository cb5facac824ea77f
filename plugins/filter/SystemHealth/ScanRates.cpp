// Scan monitoring: configures the port in the driver, fetches its counters, computes their rates.

#include "ScanRates.h"

#include <algorithm>
#include <memory>

#include "HealthTrace.h"
#include "Lock.h"
#include "Numbers.h"

int initial_monitored_port = 0;
int first_run = 1;
std::array<double, VXI_SCAN_COUNTERS> scan_rates{};
std::array<std::uint64_t, VXI_SCAN_COUNTERS> prev_scan_metrics{};

namespace fc {
namespace {

constexpr std::uint32_t kRequestedEntries = 1;

struct CloseHandle {
    void operator()(vxi_handle_ops_s* handle) const { vxi_close(handle); }
};
using Handle = std::unique_ptr<vxi_handle_ops_s, CloseHandle>;

// The handle's last error. The buffer has one byte more than the driver may fill, so that it ends
// with a NUL in any case.
struct DriverError {
    static constexpr unsigned int kSize = 128;
    char message[kSize + 1] = {};
    explicit DriverError(vxi_handle_ops_s* handle) { vxi_get_error(handle, message, kSize); }
};

int ConfiguredPort(const ConfigTable& config)
{
    return static_cast<int>(TruncateToInt64(config[kSettingPort].value) & 0xffff);
}

int ConfiguredOutbound(const ConfigTable& config)
{
    const auto& row = config[kSettingOutbound];
    return row.set == 1 && TruncateToInt64(row.value) == 1 ? 1 : 0;
}

bool NeedsConfiguration()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return first_run != 0;
}

int MonitoredPort()
{
    wxCriticalSectionLocker lock(g_syshealth_cs);
    return initial_monitored_port;
}

// A failure is only logged: the fetch after it decides about this cycle.
void SetScanMetricsConfig(vxi_handle_ops_s* handle, int port, int outbound)
{
    Trace(s_TraceScan, SYSHEALTH_AT("set_scan_metrics_config"), "setting scan config %d, %d", port,
          outbound);
    scan_monitor_config config{};
    config.version = 1;
    auto& bitmap = outbound == 1 ? config.outbound : config.inbound;
    bitmap[port / 32] = UINT32_C(1) << (port % 32);
    const int rc = vxi_set_scan_monitoring(handle, &config);
    if (rc != 0)
        LogError(SYSHEALTH_AT("set_scan_metrics_config"),
                 "vxi_set_scan_monitoring failed rc= %d buf{%s}", rc, DriverError(handle).message);
    wxCriticalSectionLocker lock(g_syshealth_cs);
    initial_monitored_port = port;
}

int GetScanMetrics(vxi_handle_ops_s* handle, int outbound, scan_metrics_request* request)
{
    Trace(s_TraceScan, SYSHEALTH_AT("get_scan_metrics"), "Collecting scan metrics");
    *request = {};
    request->version = 1;
    request->direction = static_cast<std::uint32_t>(outbound + 1);
    request->port = static_cast<std::uint16_t>(MonitoredPort());
    request->counters = VXI_SCAN_COUNTERS;
    request->entries = kRequestedEntries;
    const int rc = vxi_get_scan_metrics(handle, request, sizeof *request);
    if (rc != 0)
        LogError(SYSHEALTH_AT("get_scan_metrics"), "vxi_get_scan_metrics failed rc= %d, buf{%s}",
                 rc, DriverError(handle).message);
    return rc;
}

// Traces the driver's own numbers if they exceed the request. What is beyond it is ignored.
void TraceExcess(const scan_metrics_request& request)
{
    if (request.counters > VXI_SCAN_COUNTERS || request.entries > kRequestedEntries)
        Trace(s_TraceScan, SYSHEALTH_AT("get_scan_metrics"),
              "driver reported %u counters, %u entries, room for %u, %u", request.counters,
              request.entries, static_cast<unsigned int>(VXI_SCAN_COUNTERS), kRequestedEntries);
}

// Returns 0 for a counter that ran backwards because the driver restarted it.
double Rate(std::uint64_t current, std::uint64_t previous, double delta_t)
{
    return current >= previous ? static_cast<double>(current - previous) / delta_t : 0.0;
}

}  // namespace

bool FetchScanMetrics(const ConfigTable& config, scan_metrics_request* request)
{
    const int outbound = ConfiguredOutbound(config);
    const Handle handle(vxi_open());
    if (!handle) {
        DisableScanMetric();
        return false;
    }
    // The configuration is sent in every cycle until a fetch succeeds, and never again in this
    // process: all later fetches are for the port that was sent.
    if (NeedsConfiguration()) SetScanMetricsConfig(handle.get(), ConfiguredPort(config), outbound);
    const int rc = GetScanMetrics(handle.get(), outbound, request);
    if (rc == 0) {
        TraceExcess(*request);
        return true;
    }
    LogError(SYSHEALTH_AT("FetchScanMetrics"), "get_scan_metrics() failed rc=%d, exiting, buf{%s}",
             rc, DriverError(handle.get()).message);
    DisableScanMetric();
    return false;
}

void UpdateScanRates(const scan_metrics_request& request, double delta_t)
{
    // The driver sets both counts; the request has room for one entry.
    const std::uint32_t counters =
        request.entries == 0 ? 0 : std::min<std::uint32_t>(request.counters, VXI_SCAN_COUNTERS);
    for (std::uint32_t j = 0; j < counters; ++j) {
        if (first_run == 0) scan_rates[j] = Rate(request.counter[j], prev_scan_metrics[j], delta_t);
        prev_scan_metrics[j] = request.counter[j];
    }
    first_run = 0;
}

}  // namespace fc
