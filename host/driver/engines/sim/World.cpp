#include "engines/sim/World.h"

#include <linux/netfilter/nf_conntrack_tcp.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "engines/sim/Random.h"

namespace vxi::sim {

namespace {

enum Stream : std::uint64_t { udp_stream = 100, tcp_stream, blacklist_stream };

constexpr std::uint8_t udp = 17;
constexpr std::uint64_t default_port = 443;

// How flows of a server spread over the states, out of 100, and the socket of each.
struct State {
    unsigned up_to;
    std::uint8_t tracked;
    std::uint8_t socket;
    std::uint32_t timeout_s;  // nf_conntrack's defaults
};

constexpr State states[] = {
    {70, TCP_CONNTRACK_ESTABLISHED, TCP_ESTABLISHED, 432000},
    {85, TCP_CONNTRACK_TIME_WAIT, TCP_TIME_WAIT, 120},
    {90, TCP_CONNTRACK_SYN_RECV, TCP_SYN_RECV, 60},
    {94, TCP_CONNTRACK_FIN_WAIT, TCP_FIN_WAIT1, 120},
    {98, TCP_CONNTRACK_CLOSE_WAIT, TCP_CLOSE_WAIT, 60},
    {100, TCP_CONNTRACK_LAST_ACK, TCP_LAST_ACK, 30},
};

const State& state_of(std::uint64_t drawn)
{
    const unsigned percent = static_cast<unsigned>(drawn % 100);
    return *std::find_if(std::begin(states), std::end(states) - 1,
                         [percent](const State& each) { return percent < each.up_to; });
}

bool is_ipv6(std::uint64_t drawn)
{
    return (drawn >> 8) % 4 == 0;
}

std::uint64_t draw_flow(const World& world, std::uint8_t protocol, std::uint32_t index)
{
    return draw(world.settings.seed, protocol == udp ? udp_stream : tcp_stream, index);
}

// Hosts of 10.0.0.0/8 and 2001:db8::/32 (RFC 1918, RFC 3849): no simulated row looks like
// somebody's real machine. Below 2^24 different numbers give different addresses.
void put_address(std::uint8_t (&address)[16], bool ipv6, std::uint32_t number)
{
    static constexpr std::uint8_t prefix6[] = {0x20, 0x01, 0x0d, 0xb8};
    std::uint8_t* const low = address + (ipv6 ? 12 : 0);
    if (ipv6) {
        std::memcpy(address, prefix6, sizeof prefix6);
    }
    low[0] = ipv6 ? 0 : 10;
    low[1] = static_cast<std::uint8_t>(number >> 16);
    low[2] = static_cast<std::uint8_t>(number >> 8);
    low[3] = static_cast<std::uint8_t>(number);
}

void put_port(std::uint8_t (&field)[2], std::uint64_t port)
{
    field[0] = static_cast<std::uint8_t>(port >> 8);
    field[1] = static_cast<std::uint8_t>(port);
}

void put_traffic(vxa_conntrack_entry_s& entry, std::uint64_t drawn, std::uint64_t ticks)
{
    const std::uint64_t packets = 1 + (drawn >> 32) % 64 + (drawn >> 40) % 4 * ticks;
    const auto counted = static_cast<std::uint32_t>(std::min<std::uint64_t>(packets, UINT32_MAX));
    entry.packets_forward = counted;
    entry.bytes_forward = packets * 120;
    if (entry.flags & VXA_FLOW_SEEN_REPLY) {
        entry.packets_backward = counted;
        entry.bytes_backward = packets * 900;
    }
}

vxa_get_conn_states_s count_sockets(const World& world)
{
    vxa_get_conn_states_s sockets{};
    sockets.version = 1;
    for (std::uint32_t i = 0; i < world.tcp_flows; ++i) {
        const std::uint64_t drawn = draw_flow(world, 6, i);
        ++(is_ipv6(drawn) ? sockets.tcp6 : sockets.tcp4)[state_of(drawn).socket];
    }
    for (std::uint32_t i = 0; i < world.udp_flows; ++i) {
        ++(is_ipv6(draw_flow(world, udp, i)) ? sockets.udp6 : sockets.udp4);
    }
    sockets.count = world.tcp_flows + world.udp_flows;
    return sockets;
}

}  // namespace

World::World(Settings chosen)
    : settings(std::move(chosen)),
      udp_flows(static_cast<std::uint32_t>(settings.flows / 5)),
      tcp_flows(static_cast<std::uint32_t>(settings.flows) - udp_flows),
      sockets(count_sockets(*this))
{
}

vxa_conntrack_entry_s flow(const World& world, std::uint8_t protocol, std::uint32_t index,
                           std::uint64_t tick)
{
    const std::uint64_t drawn = draw_flow(world, protocol, index);
    const bool ipv6 = is_ipv6(drawn);
    vxa_conntrack_entry_s entry{};
    // The host itself is number 1; each flow has a client of its own.
    put_address(entry.source, ipv6, index + 2);
    put_address(entry.destination, ipv6, 1);
    put_port(entry.source_port, 1024 + (drawn >> 16) % 64512);
    put_port(entry.destination_port, world.settings.port ? world.settings.port : default_port);
    entry.family = ipv6 ? 6 : 4;
    entry.flags = VXA_FLOW_COUNTERS_VALID | VXA_FLOW_SEEN_REPLY;
    entry.timeout_s = 180;
    if (protocol != udp) {
        const State& state = state_of(drawn);
        entry.tcp_state = state.tracked;
        entry.timeout_s = state.timeout_s;
        entry.flags |= state.tracked == TCP_CONNTRACK_SYN_RECV ? 0 : VXA_FLOW_ASSURED;
    }
    put_traffic(entry, drawn, tick);
    return entry;
}

vxa_blacklist_entry_s blacklisted(const World& world, std::uint32_t index, std::uint64_t tick)
{
    constexpr std::uint32_t block = 256;  // a row owns a block, of which it may list all
    const std::uint64_t drawn = draw(world.settings.seed, blacklist_stream, index);
    const bool ipv6 = is_ipv6(drawn);
    vxa_blacklist_entry_s entry{};
    entry.family = ipv6 ? 6 : 4;
    entry.set_index = ipv6 ? 1 : 0;
    put_address(entry.address, ipv6, index * block);
    std::memcpy(entry.last, entry.address, sizeof entry.last);
    if (drawn % 8 == 0) {
        entry.flags |= VXA_BLACKLIST_RANGE;
        entry.last[ipv6 ? 15 : 3] = block - 1;
    }
    if (drawn % 3 == 0) {
        const std::uint64_t age_s = tick * world.settings.interval_s;
        entry.flags |= VXA_BLACKLIST_TIMEOUT;
        entry.timeout_s = 3600;
        entry.expires_s = 3600 - static_cast<std::uint32_t>((age_s + index) % 3600);
    }
    return entry;
}

}  // namespace vxi::sim
