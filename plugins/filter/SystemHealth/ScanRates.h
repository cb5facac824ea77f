// Scan monitoring: the driver's counters of the monitored port and their rates.
#pragma once

#include <array>
#include <cstdint>

#include "Config.h"
#include "vxi/vxi.h"

// The port last configured in the driver.
extern int initial_monitored_port;
// 1 until the first successful fetch, then 0.
extern int first_run;
// Per second, indexed by VXI_SCAN_NEW and so on.
extern std::array<double, VXI_SCAN_COUNTERS> scan_rates;
// Counters of the last successful fetch.
extern std::array<std::uint64_t, VXI_SCAN_COUNTERS> prev_scan_metrics;

namespace fc {

// Fetches the port's counters through its own driver handle. Configures the driver first
// until a fetch has succeeded. Returns false, with the port's thresholds switched off, if the
// driver fails. Call without the lock.
bool FetchScanMetrics(const ConfigTable& config, scan_metrics_request* request);

// Computes the rates over the delta_t seconds since the previous cycle; a first fetch yields none.
// Call with the lock held.
void UpdateScanRates(const scan_metrics_request& request, double delta_t);

}  // namespace fc
