// vxi_set_scan_monitoring and vxi_get_scan_metrics.
#include <string>

#include "api/HostMessages.h"
#include "engines/linux/Operations.h"
#include "engines/linux/scan/ProcessScanMonitor.h"
#include "records/ScanTarget.h"

namespace vxi {

namespace {

constexpr const char* kTraceSource = "host/driver/engines/linux";

enum TraceLevel { kProblems = 1, kChanges = 2, kEverything = 3 };

// Goes to the host's log, because the call succeeds, and to the handle's trace.
void ReportProblem(vxi_handle_ops_s* handle, const std::string& message)
{
    ReportToHost(message);
    VXI_TRACE(handle, kProblems, kTraceSource, "%s", message.c_str());
}

void ReportReading(vxi_handle_ops_s* handle, const ScanTarget& target, const ScanReading& reading)
{
    if (reading.rebuilt) {
        ReportProblem(handle, "port " + std::to_string(target.port) +
                                  ": the nf_tables table had been removed and was built again: "
                                  "all counters restart at 0");
    }
    if (reading.uncounted) {
        ReportProblem(handle, UncountedMessage(target.port, reading.uncounted,
                                               "more than " + std::to_string(kHalfOpenMax) +
                                                   " were half-open at once"));
    }
    VXI_TRACE(handle, kEverything, kTraceSource, "%llu connections are half-open",
              static_cast<unsigned long long>(reading.half_open));
}

}  // namespace

int LinuxOperations::SetScanMonitoring(vxi_handle_ops_s* handle, const ScanTarget& target)
{
    ScanMonitor& monitor = ProcessScanMonitor();
    monitor.Start(target);
    if (handle->trace_level >= kChanges) {
        VXI_TRACE(handle, kChanges, kTraceSource, "%s", monitor.Description().c_str());
    }
    return 0;
}

int LinuxOperations::GetScanMetrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                                    unsigned int)
{
    const ScanTarget target = RequestedTarget(*request);
    const ScanReading reading = ProcessScanMonitor().Read(target);
    ReportReading(handle, target, reading);
    WriteCounters(reading.metrics, *request);
    return 0;
}

}  // namespace vxi
