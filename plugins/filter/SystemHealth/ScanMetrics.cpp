// Scan monitoring: the port configured in the driver, its counters, their rates.

#include <algorithm>
#include <memory>

#include "LuaBoundary.h"
#include "SystemHealth.h"

int initial_monitored_port = 0;
int first_run = 1;
std::array<double, VXI_SCAN_COUNTERS> scan_rates{};
std::array<std::uint64_t, VXI_SCAN_COUNTERS> prev_scan_metrics{};

namespace {

constexpr unsigned int kErrorTextSize = 128;
constexpr std::uint32_t kEntriesAsked = 1;

struct CloseHandle {
    void operator()(vxi_handle_ops_s* handle) const { vxi_close(handle); }
};
using Handle = std::unique_ptr<vxi_handle_ops_s, CloseHandle>;

// The driver's last error. One byte more than the driver knows of, for one that forgets the
// terminator.
struct ErrorText {
    char text[kErrorTextSize + 1] = {};
    explicit ErrorText(vxi_handle_ops_s* handle) { vxi_get_error(handle, text, kErrorTextSize); }
};

int ConfiguredPort(const ConfigTable& config)
{
    return static_cast<int>(fc::TruncateToInt64(config[kConfPort].value) & 0xffff);
}

int ConfiguredOutbound(const ConfigTable& config)
{
    const auto& row = config[kConfOutbound];
    return row.set == 1 && fc::TruncateToInt64(row.value) == 1 ? 1 : 0;
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

// A failure is only logged: the fetch that follows decides about this cycle.
void SetScanMetricsConfig(vxi_handle_ops_s* handle, int port, int outbound)
{
    fc::Trace(s_TraceScan, SYSHEALTH_AT("set_scan_metrics_config"), "setting scan config %d, %d",
              port, outbound);
    scan_monitor_config config{};
    config.version = 1;
    auto& bitmap = outbound == 1 ? config.outbound : config.inbound;
    bitmap[port / 32] = UINT32_C(1) << (port % 32);
    const int rc = vxi_set_scan_monitoring(handle, &config);
    if (rc != 0)
        fc::LogError(SYSHEALTH_AT("set_scan_metrics_config"),
                     "vxi_set_scan_monitoring failed rc= %d buf{%s}", rc, ErrorText(handle).text);
    wxCriticalSectionLocker lock(g_syshealth_cs);
    initial_monitored_port = port;
}

int get_scan_metrics(vxi_handle_ops_s* handle, int outbound, scan_metrics_request* request)
{
    fc::Trace(s_TraceScan, SYSHEALTH_AT("get_scan_metrics"), "Collecting scan metrics");
    *request = {};
    request->version = 1;
    request->direction = static_cast<std::uint32_t>(outbound + 1);
    request->port = static_cast<std::uint16_t>(MonitoredPort());
    request->counters = VXI_SCAN_COUNTERS;
    request->entries = kEntriesAsked;
    const int rc = vxi_get_scan_metrics(handle, request, sizeof *request);
    if (rc != 0)
        fc::LogError(SYSHEALTH_AT("get_scan_metrics"),
                     "vxi_get_scan_metrics failed rc= %d, buf{%s}", rc, ErrorText(handle).text);
    return rc;
}

// What a driver claims beyond the room is not looked at; the trace shows its own numbers.
void TraceExcess(const scan_metrics_request& request)
{
    if (request.counters > VXI_SCAN_COUNTERS || request.entries > kEntriesAsked)
        fc::Trace(s_TraceScan, SYSHEALTH_AT("get_scan_metrics"),
                  "driver reported %u counters, %u entries, room for %u, %u", request.counters,
                  request.entries, static_cast<unsigned int>(VXI_SCAN_COUNTERS), kEntriesAsked);
}

// A counter that ran backwards was restarted by the driver and has no rate this time.
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
    // Until a fetch succeeds the configuration is sent anew each time; afterwards never
    // again in this process, and every fetch goes on naming the port that was sent.
    if (NeedsConfiguration()) SetScanMetricsConfig(handle.get(), ConfiguredPort(config), outbound);
    const int rc = get_scan_metrics(handle.get(), outbound, request);
    if (rc == 0) {
        TraceExcess(*request);
        return true;
    }
    fc::LogError(SYSHEALTH_AT("FetchScanMetrics"),
                 "get_scan_metrics() failed rc=%d, exiting, buf{%s}", rc,
                 ErrorText(handle.get()).text);
    DisableScanMetric();
    return false;
}

void UpdateScanRates(const scan_metrics_request& request, double delta_t)
{
    // The counts come back from the driver; the request holds ten counters of one entry.
    const std::uint32_t counters =
        request.entries == 0 ? 0 : std::min<std::uint32_t>(request.counters, VXI_SCAN_COUNTERS);
    for (std::uint32_t j = 0; j < counters; ++j) {
        if (first_run == 0) scan_rates[j] = Rate(request.counter[j], prev_scan_metrics[j], delta_t);
        prev_scan_metrics[j] = request.counter[j];
    }
    first_run = 0;
}
