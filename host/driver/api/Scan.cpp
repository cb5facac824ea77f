#include "api/Scan.h"

#include <atomic>

namespace vxi {

namespace {

constexpr unsigned kWords = sizeof(scan_monitor_config::inbound) / sizeof(std::uint32_t);

unsigned BitsIn(const std::uint32_t (&bitmap)[kWords], std::uint16_t& last_port)
{
    unsigned bits = 0;
    for (unsigned word = 0; word < kWords; ++word) {
        if (bitmap[word] == 0) {
            continue;
        }
        bits += static_cast<unsigned>(__builtin_popcount(bitmap[word]));
        const int bit = 31 - __builtin_clz(bitmap[word]);
        last_port = static_cast<std::uint16_t>(word * 32 + static_cast<unsigned>(bit));
    }
    return bits;
}

// Direction and port in one, so that a fork never finds half of it.
std::atomic<std::uint32_t> remembered{0};

}  // namespace

bool TargetOf(const scan_monitor_config& config, ScanTarget& target)
{
    std::uint16_t port = 0;
    const unsigned inbound = BitsIn(config.inbound, port);
    const unsigned outbound = BitsIn(config.outbound, port);
    if (inbound + outbound != 1) {
        return false;
    }
    target.direction = inbound ? VXI_SCAN_INBOUND : VXI_SCAN_OUTBOUND;
    target.port = port;
    return true;
}

scan_monitor_config ScanConfig(const ScanTarget& target)
{
    scan_monitor_config config{};
    config.version = 1;
    auto& bitmap = target.direction == VXI_SCAN_INBOUND ? config.inbound : config.outbound;
    bitmap[target.port / 32] = UINT32_C(1) << target.port % 32;
    return config;
}

void RememberScanTarget(const ScanTarget& target)
{
    remembered = target.direction << 16 | target.port;
}

ScanTarget RememberedScanTarget()
{
    const std::uint32_t both = remembered;
    return {both >> 16, static_cast<std::uint16_t>(both)};
}

}  // namespace vxi
