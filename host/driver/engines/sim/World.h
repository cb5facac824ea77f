// The simulated machine's flows, sockets and blacklist. They follow from the settings; rows are
// computed on request.
#pragma once

#include <cstdint>

#include "engines/sim/Settings.h"
#include "vxi/records.h"

namespace vxi::sim {

struct World {
    explicit World(Settings chosen);

    Settings settings;
    std::uint32_t udp_flows;
    std::uint32_t tcp_flows;
    vxa_get_conn_states_s sockets;  // with the port open
};

// Returns row `index` of a protocol (17 or 6) with its counts at `tick`.
vxa_conntrack_entry_s Flow(const World& world, std::uint8_t protocol, std::uint32_t index,
                           std::uint64_t tick);

inline constexpr std::uint32_t kBlacklistSets = 2;  // one per family

vxa_blacklist_entry_s Blacklisted(const World& world, std::uint32_t index, std::uint64_t tick);

}  // namespace vxi::sim
