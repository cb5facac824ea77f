// Reads scan configurations and remembers the last one.
#include "records/ScanTarget.h"

#include <atomic>
#include <cerrno>

#include "api/Error.h"

namespace vxi {

namespace {

constexpr unsigned kWords = sizeof(scan_monitor_config::inbound) / sizeof(std::uint32_t);

// Counts the bits that are set, and sets `port` to the highest of them.
unsigned CountPorts(const std::uint32_t (&bitmap)[kWords], std::uint16_t& port)
{
    unsigned bits = 0;
    for (unsigned word = 0; word < kWords; ++word) {
        if (bitmap[word] == 0) {
            continue;
        }
        bits += static_cast<unsigned>(__builtin_popcount(bitmap[word]));
        const int bit = 31 - __builtin_clz(bitmap[word]);
        port = static_cast<std::uint16_t>(word * 32 + static_cast<unsigned>(bit));
    }
    return bits;
}

// Direction and port in one value, so that a fork cannot separate them.
std::atomic<std::uint32_t> remembered{0};

}  // namespace

ScanTarget ConfiguredTarget(const scan_monitor_config& config)
{
    std::uint16_t port = 0;
    const unsigned inbound = CountPorts(config.inbound, port);
    const unsigned outbound = CountPorts(config.outbound, port);
    if (inbound + outbound != 1) {
        throw Error(-EINVAL, "exactly one port must be set");
    }
    return {inbound ? 0U + VXI_SCAN_INBOUND : 0U + VXI_SCAN_OUTBOUND, port};
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
