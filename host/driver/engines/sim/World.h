// The simulated machine's tables: flows, blacklisted addresses, sockets. Made once from
// the settings; rows are computed when they are asked for.
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

// Row `index` of a protocol (17 or 6); counts have grown until `tick`.
vxa_conntrack_entry_s Flow(const World& world, std::uint8_t protocol, std::uint32_t index,
                           std::uint64_t tick);

inline constexpr std::uint32_t kBlacklistSets = 2;  // one a family

vxa_blacklist_entry_s Blacklisted(const World& world, std::uint32_t index, std::uint64_t tick);

}  // namespace vxi::sim
