#include <string>

#include "api/Message.h"
#include "api/Scan.h"
#include "engines/linux/scan/ProcessMonitor.h"
#include "engines/linux/Slots.h"

namespace vxi::linux_slots {

namespace {

constexpr const char* trace_source = "host/driver/engines/linux";

enum TraceLevel { Problems = 1, Changes = 2, Everything = 3 };

// For the host's log, because the call succeeds, and for the handle's trace.
void report_problem(vxi_handle_ops_s* handle, const std::string& message)
{
    report(message);
    VXI_TRACE(handle, Problems, trace_source, "%s", message.c_str());
}

void report_reading(vxi_handle_ops_s* handle, const ScanTarget& target, const ScanReading& reading)
{
    const std::string port = "port " + std::to_string(target.port) + ": ";
    if (reading.rebuilt) {
        report_problem(handle, port +
                                   "the nf_tables table had been removed and was built again: "
                                   "all counters restart at 0");
    }
    if (reading.uncounted) {
        report_problem(handle, port + std::to_string(reading.uncounted) +
                                   " new connections are not counted: more than " +
                                   std::to_string(half_open_max) + " were half-open at once");
    }
    VXI_TRACE(handle, Everything, trace_source, "%llu connections are half-open",
              static_cast<unsigned long long>(reading.half_open));
}

}  // namespace

int set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config)
{
    ScanTarget target;
    scan_target(*config, target);
    ScanMonitor& monitor = process_scan_monitor();
    const Outcome outcome = monitor.set(target);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s", outcome.text.c_str());
    }
    if (handle->trace_level >= Changes) {
        VXI_TRACE(handle, Changes, trace_source, "%s", monitor.description().c_str());
    }
    return 0;
}

int get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request, unsigned int)
{
    ScanReading reading;
    const ScanTarget target = scan_target(*request);
    const Outcome outcome = process_scan_monitor().get(target, reading);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s", outcome.text.c_str());
    }
    report_reading(handle, target, reading);
    deliver_counters(reading.figures, *request);
    return 0;
}

}  // namespace vxi::linux_slots
