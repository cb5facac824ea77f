// How UDP and TCP share a connection table, whose flow count is 16 bits wide.
#pragma once

#include <algorithm>
#include <cstdint>

namespace vxi {

inline constexpr std::uint32_t kFlowsMax = 65535;

struct FlowShares {
    std::uint32_t udp;
    std::uint32_t tcp;
};

// Each protocol gets what it needs up to half of the table, and what the other leaves.
inline FlowShares ShareFlowTable(std::uint32_t udp, std::uint32_t tcp)
{
    if (std::uint64_t{udp} + tcp <= kFlowsMax) {
        return {udp, tcp};
    }
    const std::uint32_t smaller = std::min({udp, tcp, kFlowsMax / 2});
    const std::uint32_t larger = kFlowsMax - smaller;
    return udp < tcp ? FlowShares{smaller, larger} : FlowShares{larger, smaller};
}

}  // namespace vxi
