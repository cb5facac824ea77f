// A flow count is 16 bits wide: how UDP and TCP share the room in a table of that many.
#pragma once

#include <algorithm>
#include <cstdint>

namespace vxi {

inline constexpr std::uint32_t most_flows = 65535;

struct FlowRoom {
    std::uint32_t udp;
    std::uint32_t tcp;
};

// Each protocol gets what it needs up to half of the room, and what the smaller leaves.
inline FlowRoom share_flow_room(std::uint32_t udp, std::uint32_t tcp)
{
    if (std::uint64_t{udp} + tcp <= most_flows) {
        return {udp, tcp};
    }
    const std::uint32_t smaller = std::min({udp, tcp, most_flows / 2});
    const std::uint32_t larger = most_flows - smaller;
    return udp < tcp ? FlowRoom{smaller, larger} : FlowRoom{larger, smaller};
}

}  // namespace vxi
