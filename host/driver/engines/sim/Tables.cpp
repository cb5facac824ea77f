#include "engines/sim/Tables.h"

#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "api/Source.h"
#include "api/Variables.h"
#include "engines/sim/Random.h"

namespace vxi::sim {

namespace {

constexpr std::uint32_t conntrack_max = 262144;
constexpr std::uint32_t conntrack_buckets = 65536;
constexpr std::uint32_t rule_tables = 1;
constexpr std::uint32_t rule_chains = 1;

bool listening(const View& view)
{
    return !port_closed(moment_at(view.world->settings, view.tick));
}

std::uint64_t sockets_in(const View& view, unsigned state)
{
    return view.world->sockets.tcp4[state] + view.world->sockets.tcp6[state];
}

std::uint64_t tcp_sockets(const View& view)
{
    return view.world->tcp_flows + (listening(view) ? 1U : 0U);
}

template <unsigned counter>
std::uint64_t scan_counter(const View& view)
{
    return view.counters[counter];
}

struct Slot {
    Area area;
    unsigned index;
    const char* name;
    std::uint64_t (*value)(const View&);
};

constexpr Slot slots[] = {
    {Area::statistics1, 0, "Ip.InReceives", scan_counter<VXI_SCAN_PACKETS_FORWARD>},
    {Area::statistics1, 1, "Ip.OutRequests", scan_counter<VXI_SCAN_PACKETS_BACKWARD>},
    {Area::statistics1, 2, "Tcp.PassiveOpens", scan_counter<VXI_SCAN_ESTABLISHED>},
    {Area::statistics1, 3, "Tcp.AttemptFails", scan_counter<VXI_SCAN_HALF_OPEN_CLOSED>},
    {Area::statistics1, 4, "Tcp.EstabResets", scan_counter<VXI_SCAN_RESET>},
    {Area::statistics1, 5, "Tcp.CurrEstab",
     [](const View& view) { return sockets_in(view, TCP_ESTABLISHED); }},
    {Area::statistics1, 192, "sockets.used",
     [](const View& view) { return tcp_sockets(view) + view.world->udp_flows; }},
    {Area::statistics1, 193, "TCP.inuse",
     [](const View& view) { return tcp_sockets(view) - sockets_in(view, TCP_TIME_WAIT); }},
    {Area::statistics1, 194, "TCP.tw",
     [](const View& view) { return sockets_in(view, TCP_TIME_WAIT); }},
    {Area::statistics1, 195, "UDP.inuse",
     [](const View& view) { return std::uint64_t{view.world->udp_flows}; }},

    {Area::statistics2, 0, "conntrack.count",
     [](const View& view) { return view.world->settings.flows; }},
    {Area::statistics2, 1, "conntrack.max",
     [](const View&) { return std::uint64_t{conntrack_max}; }},
    {Area::statistics2, 2, "conntrack.buckets",
     [](const View&) { return std::uint64_t{conntrack_buckets}; }},
    {Area::statistics2, 3, "rules.tables", [](const View&) { return std::uint64_t{rule_tables}; }},
    {Area::statistics2, 4, "rules.chains", [](const View&) { return std::uint64_t{rule_chains}; }},
    {Area::statistics2, 5, "rules.rules",
     [](const View& view) { return view.world->settings.rules; }},
    {Area::statistics2, 6, "rules.sets", [](const View&) { return std::uint64_t{blacklist_sets}; }},
    {Area::statistics2, 7, "blacklist.elements",
     [](const View& view) { return view.world->settings.blacklist; }},
    {Area::statistics2, 8, "scan.on",
     [](const View& view) { return std::uint64_t{view.target.direction != 0}; }},
    {Area::statistics2, 9, "scan.port",
     [](const View& view) { return std::uint64_t{view.target.port}; }},
    {Area::statistics2, 10, "sim.tick", [](const View& view) { return view.tick; }},

    {Area::statistics3, 0, "TcpExt.TCPSynRetrans", scan_counter<VXI_SCAN_SYN_RETRANSMITTED>},
    {Area::statistics3, 256, "eth0.rx_bytes", scan_counter<VXI_SCAN_BYTES_FORWARD>},
    {Area::statistics3, 257, "eth0.rx_packets", scan_counter<VXI_SCAN_PACKETS_FORWARD>},
    {Area::statistics3, 264, "eth0.tx_bytes", scan_counter<VXI_SCAN_BYTES_BACKWARD>},
    {Area::statistics3, 265, "eth0.tx_packets", scan_counter<VXI_SCAN_PACKETS_BACKWARD>},
    {Area::statistics3, 528, "softnet.processed",
     [](const View& view) {
         return view.counters[VXI_SCAN_PACKETS_FORWARD] + view.counters[VXI_SCAN_PACKETS_BACKWARD];
     }},
};

// A machine with these settings; what depends on the view is computed instead.
constexpr std::uint32_t settings_values[] = {
    1,      2,       0,       0,       127,  0,    0,       0,       66,          65536,
    0,      1,       1,       0,       0,    1,    1,       65536,   1,           0,
    2,      4096,    4194304, 3145728, 60,   600,  30,      180,     30,          30,
    0,      262144,  10,      3,       3,    210,  30,      3,       3,           3,
    0,      0,       1,       3,       10,   60,   432000,  120,     30,          300,
    60,     120,     120,     300,     0,    30,   120,     0,       0,           0,
    0,      0,       0,       0,       0,    1,    31,      1,       1024,        2147483647,
    44,     1,       1,       3,       2,    1,    0,       1,       0,           60,
    2,      0,       500,     75,      9,    7200, 0,       4194304, 131072,      300,
    2048,   131072,  300,     48,      2,    1,    0,       0,       0xffffffffU, 0,
    120,    200,     1,       3,       1,    3,    15,      0,       1,           0,
    1,      4,       6,       5,       1,    0,    1,       3,       2,           1,
    0,      64,      0,       0,       1,    0,    0,       1024,    0,           0,
    1,      1,       1000,    6168,    1000, 50,   4194304, 30,      1,           0,
    0,      0,       1,       0,       1,    0,    0,       0,       0,           0,
    1,      1,       1,       0,       0,    0,    0,       0,       1,           1,
    0,      4194304, 60,      0,       0,    4096, 1000,    300,     4194304,     4194304,
    212992, 212992,  131072,
};
static_assert(std::size(settings_values) == VXA_FILTER_VARIABLE_COUNT, "one value a number");

std::uint64_t rule_packets(const View& view, std::uint64_t rule, std::uint64_t ticks)
{
    return draw(view.world->settings.seed, 200, rule) % 50 * ticks;
}

constexpr std::uint64_t packet_bytes = 400;

std::string counted(std::uint64_t packets)
{
    return "\"packets\": " + std::to_string(packets) +
           ", \"bytes\": " + std::to_string(packets * packet_bytes);
}

std::string rule_json(const View& view, std::uint64_t rule)
{
    return R"(, {"rule": {"family": "inet", "table": "filter", "chain": "input", "handle": )" +
           std::to_string(rule + 3) +
           R"(, "expr": [{"match": {"op": "==", "left": {"payload": {"protocol": "tcp", )"
           R"("field": "dport"}}, "right": )" +
           std::to_string(1 + rule % 65535) + "}}, {\"counter\": {" +
           counted(rule_packets(view, rule, view.tick)) + R"(}}, {"accept": null}]}})";
}

std::string profile_json(const View& view)
{
    const std::uint64_t ticks = view.tick - view.profiled_since;
    std::string text = R"(, {"profile": {"ticks": )" + std::to_string(ticks) + R"(, "rules": [)";
    for (std::uint64_t rule = 0; rule < view.world->settings.rules; ++rule) {
        text += std::string(rule ? ", " : "") + "{\"handle\": " + std::to_string(rule + 3) + ", " +
                counted(rule_packets(view, rule, ticks)) + "}";
    }
    return text + "]}}";
}

}  // namespace

void name_statistics()
{
    SlotNames areas[3];
    for (const Slot& slot : slots) {
        auto& names = areas[static_cast<unsigned>(slot.area)].names;
        names.resize(std::max<std::size_t>(names.size(), slot.index + 1));
        names[slot.index] = slot.name;
    }
    for (unsigned area = 0; area < 3; ++area) {
        set_slot_names(engine_name, static_cast<Area>(area), std::move(areas[area]));
    }
}

void fill_statistics(const View& view, vxa_stats_v2_s& stats)
{
    std::uint64_t* const areas[] = {stats.area1, stats.area2, stats.area3};
    std::fill_n(stats.area1, 0 + VXA_STATS_AREA1_COUNT, 0);
    std::fill_n(stats.area2, 0 + VXA_STATS_AREA2_COUNT, 0);
    std::fill_n(stats.area3, 0 + VXA_STATS_AREA3_COUNT, 0);
    for (const Slot& slot : slots) {
        areas[static_cast<unsigned>(slot.area)][slot.index] = slot.value(view);
    }
}

void fill_conn_states(const View& view, vxa_get_conn_states_s& states)
{
    states = view.world->sockets;
    if (listening(view)) {
        ++states.tcp4[TCP_LISTEN];
        ++states.count;
    }
}

std::uint32_t variable_value(const View& view, int trace_level, std::uint32_t number)
{
    const Settings& settings = view.world->settings;
    switch (number) {
        case variable_scan_on:
            return view.target.direction != 0;
        case variable_scan_port:
            return view.target.port;
        case variable_scan_direction:
            return view.target.direction;
        case variable_trace_level:
            return static_cast<std::uint32_t>(trace_level);
        case variable_process_id:
            return static_cast<std::uint32_t>(getpid());
        case variable_conntrack_count:
            return static_cast<std::uint32_t>(settings.flows);
        case variable_conntrack_max:
            return conntrack_max;
        case variable_conntrack_buckets:
            return conntrack_buckets;
        case variable_nft_tables:
            return rule_tables;
        case variable_nft_rules:
            return static_cast<std::uint32_t>(settings.rules);
        case variable_blacklist_elements:
            return static_cast<std::uint32_t>(settings.blacklist);
        case variable_rule_profiling:
            return view.rule_profiling;
        default:
            return settings_values[number];
    }
}

std::string rule_profile(const View& view)
{
    std::string text = R"({"nftables": [{"metainfo": {"version": "simulated", )"
                       R"("json_schema_version": 1}}, )"
                       R"({"table": {"family": "inet", "name": "filter", "handle": 1}}, )"
                       R"({"chain": {"family": "inet", "table": "filter", "name": "input", )"
                       R"("handle": 2}})";
    for (std::uint64_t rule = 0; rule < view.world->settings.rules; ++rule) {
        text += rule_json(view, rule);
    }
    return text + (view.rule_profiling == 1 ? profile_json(view) : "") + "]}\n";
}

}  // namespace vxi::sim
