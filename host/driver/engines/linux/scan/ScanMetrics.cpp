// The arithmetic of scan metrics.
#include "engines/linux/scan/ScanMetrics.h"

#include <algorithm>

namespace vxi {

namespace {

bool AnyFell(const ScanCounters& earlier, const ScanCounters& later)
{
    return !std::equal(
        earlier.values.begin(), earlier.values.end(), later.values.begin(),
        [](const auto& was, const auto& is) { return !is.present || was.packets <= is.packets; });
}

std::int64_t ClosedSinceStart(const ScanCounters& before, std::uint64_t half_open,
                              const ScanCounters& after)
{
    return static_cast<std::int64_t>(before[ScanCounter::kNew].packets -
                                     after[ScanCounter::kEstablished].packets - half_open);
}

}  // namespace

std::uint64_t HalfOpenClosed::Update(const ScanCounters& before, std::uint64_t half_open,
                                     const ScanCounters& after)
{
    const bool restarted = AnyFell(m_last, before) || AnyFell(before, after);
    m_last = after;
    if (restarted) {
        m_offset = ClosedSinceStart(after, half_open, after);
        m_closed = 0;
        return m_closed;
    }
    const std::int64_t closed = ClosedSinceStart(before, half_open, after) - m_offset;
    m_closed = std::max(m_closed, static_cast<std::uint64_t>(std::max<std::int64_t>(closed, 0)));
    return m_closed;
}

ScanMetrics ComputeScanMetrics(const ScanCounters& counters, std::uint64_t half_open_closed)
{
    const auto packets = [&](ScanCounter counter) { return counters[counter].packets; };
    ScanMetrics metrics = {};
    metrics[VXI_SCAN_NEW] = packets(ScanCounter::kNew);
    metrics[VXI_SCAN_CLOSED] = packets(ScanCounter::kFinished) + packets(ScanCounter::kRefused) +
                               packets(ScanCounter::kReset);
    metrics[VXI_SCAN_ESTABLISHED] = packets(ScanCounter::kEstablished);
    metrics[VXI_SCAN_HALF_OPEN_CLOSED] = half_open_closed;
    metrics[VXI_SCAN_RESET] = packets(ScanCounter::kReset);
    metrics[VXI_SCAN_SYN_RETRANSMITTED] = packets(ScanCounter::kRetransmitted);
    metrics[VXI_SCAN_BYTES_FORWARD] = counters[ScanCounter::kForward].bytes;
    metrics[VXI_SCAN_BYTES_BACKWARD] = counters[ScanCounter::kBackward].bytes;
    metrics[VXI_SCAN_PACKETS_FORWARD] = packets(ScanCounter::kForward);
    metrics[VXI_SCAN_PACKETS_BACKWARD] = packets(ScanCounter::kBackward);
    return metrics;
}

}  // namespace vxi
