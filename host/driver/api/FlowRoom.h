// A flow count is 16 bits wide: how UDP and TCP share the room in a table of that many.
#pragma once

#include <algorithm>
#include <cstdint>

namespace vxi {

inline constexpr std::uint32_t kMostFlows = 65535;

struct FlowRoom {
    std::uint32_t udp;
    std::uint32_t tcp;
};

// Each protocol gets what it needs up to half of the room, and what the smaller leaves.
inline FlowRoom ShareFlowRoom(std::uint32_t udp, std::uint32_t tcp)
{
    if (std::uint64_t{udp} + tcp <= kMostFlows) {
        return {udp, tcp};
    }
    const std::uint32_t smaller = std::min({udp, tcp, kMostFlows / 2});
    const std::uint32_t larger = kMostFlows - smaller;
    return udp < tcp ? FlowRoom{smaller, larger} : FlowRoom{larger, smaller};
}

}  // namespace vxi
