// The counters that the process has read last.
#include "records/LatestScan.h"

#include <algorithm>
#include <mutex>

namespace vxi {

namespace {

std::mutex lock;
vxi_latest_scan_s latest{};

}  // namespace

void RememberScan(const scan_metrics_request& answered)
{
    const std::lock_guard<std::mutex> guard(lock);
    ++latest.reads;
    latest.direction = answered.direction;
    latest.port = answered.port;
    latest.counters = std::min<std::uint32_t>(answered.counters, VXI_SCAN_COUNTERS);
    std::copy_n(answered.counter, latest.counters, latest.counter);
}

}  // namespace vxi

void vxi_latest_scan(vxi_latest_scan_s* scan)
{
    const std::lock_guard<std::mutex> guard(vxi::lock);
    *scan = vxi::latest;
}
