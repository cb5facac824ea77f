// Computes flows, sockets and blacklisted addresses of the simulated machine.
#include "engines/sim/World.h"

#include <linux/netfilter/nf_conntrack_tcp.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "engines/sim/Random.h"

namespace vxi::sim {

namespace {

enum Stream : std::uint64_t { kUdpStream = 100, kTcpStream, kBlacklistStream };

constexpr std::uint8_t kUdp = 17;
constexpr std::uint64_t kDefaultPort = 443;

// The distribution of a server's flows over the TCP states, with the state of their sockets.
struct State {
    unsigned percent;  // cumulative
    std::uint8_t tracked;
    std::uint8_t socket;
    std::uint32_t timeout_s;  // nf_conntrack's defaults
};

constexpr State kStates[] = {
    {70, TCP_CONNTRACK_ESTABLISHED, TCP_ESTABLISHED, 432000},
    {85, TCP_CONNTRACK_TIME_WAIT, TCP_TIME_WAIT, 120},
    {90, TCP_CONNTRACK_SYN_RECV, TCP_SYN_RECV, 60},
    {94, TCP_CONNTRACK_FIN_WAIT, TCP_FIN_WAIT1, 120},
    {98, TCP_CONNTRACK_CLOSE_WAIT, TCP_CLOSE_WAIT, 60},
    {100, TCP_CONNTRACK_LAST_ACK, TCP_LAST_ACK, 30},
};

const State& DrawnState(std::uint64_t drawn)
{
    const unsigned drawn_percent = static_cast<unsigned>(drawn % 100);
    return *std::find_if(
        std::begin(kStates), std::end(kStates) - 1,
        [drawn_percent](const State& each) { return drawn_percent < each.percent; });
}

bool IsIpv6(std::uint64_t drawn)
{
    return (drawn >> 8) % 4 == 0;
}

std::uint64_t DrawFlow(const World& world, std::uint8_t protocol, std::uint32_t index)
{
    return Draw(world.settings.seed, protocol == kUdp ? kUdpStream : kTcpStream, index);
}

// Uses 10.0.0.0/8 and 2001:db8::/32 (RFC 1918, RFC 3849), so that no simulated row looks like a
// real machine on the internet. Numbers below 2^24 have different addresses.
void PutAddress(std::uint8_t (&address)[16], bool ipv6, std::uint32_t number)
{
    static constexpr std::uint8_t kPrefix6[] = {0x20, 0x01, 0x0d, 0xb8};
    std::uint8_t* const low = address + (ipv6 ? 12 : 0);
    if (ipv6) {
        std::memcpy(address, kPrefix6, sizeof kPrefix6);
    }
    low[0] = ipv6 ? 0 : 10;
    low[1] = static_cast<std::uint8_t>(number >> 16);
    low[2] = static_cast<std::uint8_t>(number >> 8);
    low[3] = static_cast<std::uint8_t>(number);
}

void PutPort(std::uint8_t (&field)[2], std::uint64_t port)
{
    field[0] = static_cast<std::uint8_t>(port >> 8);
    field[1] = static_cast<std::uint8_t>(port);
}

void PutTraffic(vxa_conntrack_entry_s& entry, std::uint64_t drawn, std::uint64_t ticks)
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

vxa_get_conn_states_s CountSockets(const World& world)
{
    vxa_get_conn_states_s sockets{};
    sockets.version = 1;
    for (std::uint32_t i = 0; i < world.tcp_flows; ++i) {
        const std::uint64_t drawn = DrawFlow(world, 6, i);
        ++(IsIpv6(drawn) ? sockets.tcp6 : sockets.tcp4)[DrawnState(drawn).socket];
    }
    for (std::uint32_t i = 0; i < world.udp_flows; ++i) {
        ++(IsIpv6(DrawFlow(world, kUdp, i)) ? sockets.udp6 : sockets.udp4);
    }
    sockets.count = world.tcp_flows + world.udp_flows;
    return sockets;
}

}  // namespace

World::World(Settings chosen)
    : settings(std::move(chosen)),
      udp_flows(static_cast<std::uint32_t>(settings.flows / 5)),
      tcp_flows(static_cast<std::uint32_t>(settings.flows) - udp_flows),
      sockets(CountSockets(*this))
{
}

vxa_conntrack_entry_s Flow(const World& world, std::uint8_t protocol, std::uint32_t index,
                           std::uint64_t tick)
{
    const std::uint64_t drawn = DrawFlow(world, protocol, index);
    const bool ipv6 = IsIpv6(drawn);
    vxa_conntrack_entry_s entry{};
    // The host itself is number 1; each flow has its own client.
    PutAddress(entry.source, ipv6, index + 2);
    PutAddress(entry.destination, ipv6, 1);
    PutPort(entry.source_port, 1024 + (drawn >> 16) % 64512);
    PutPort(entry.destination_port, world.settings.port ? world.settings.port : kDefaultPort);
    entry.family = ipv6 ? 6 : 4;
    entry.flags = VXA_FLOW_COUNTERS_VALID | VXA_FLOW_SEEN_REPLY;
    entry.timeout_s = 180;
    if (protocol != kUdp) {
        const State& state = DrawnState(drawn);
        entry.tcp_state = state.tracked;
        entry.timeout_s = state.timeout_s;
        entry.flags |= state.tracked == TCP_CONNTRACK_SYN_RECV ? 0 : VXA_FLOW_ASSURED;
    }
    PutTraffic(entry, drawn, tick);
    return entry;
}

vxa_blacklist_entry_s Blacklisted(const World& world, std::uint32_t index, std::uint64_t tick)
{
    constexpr std::uint32_t kBlock = 256;  // addresses per row; a range lists all of them
    const std::uint64_t drawn = Draw(world.settings.seed, kBlacklistStream, index);
    const bool ipv6 = IsIpv6(drawn);
    vxa_blacklist_entry_s entry{};
    entry.family = ipv6 ? 6 : 4;
    entry.set_index = ipv6 ? 1 : 0;
    PutAddress(entry.address, ipv6, index * kBlock);
    std::memcpy(entry.last, entry.address, sizeof entry.last);
    if (drawn % 8 == 0) {
        entry.flags |= VXA_BLACKLIST_RANGE;
        entry.last[ipv6 ? 15 : 3] = kBlock - 1;
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
