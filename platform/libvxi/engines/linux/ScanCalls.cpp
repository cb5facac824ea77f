#include <algorithm>

#include "Scan.h"
#include "engines/linux/ProcessMonitor.h"
#include "engines/linux/Slots.h"

namespace vxi::linux_slots {

namespace {

constexpr const char* trace_source = "platform/libvxi/engines/linux";

enum TraceLevel { Problems = 1, Changes = 2, Everything = 3 };

void trace_reading(vxi_handle_ops_s* handle, const ScanReading& reading)
{
    if (reading.rebuilt) {
        VXI_TRACE(handle, Problems, trace_source,
                  "the table had been removed: built anew, counters restart");
    }
    if (reading.untracked) {
        VXI_TRACE(handle, Problems, trace_source,
                  "%llu connections not counted: %u were half-open at once",
                  static_cast<unsigned long long>(reading.untracked), half_open_max);
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
    const Outcome outcome = process_scan_monitor().get(scan_target(*request), reading);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s", outcome.text.c_str());
    }
    trace_reading(handle, reading);
    deliver_counters(reading.figures, *request);
    return 0;
}

}  // namespace vxi::linux_slots
