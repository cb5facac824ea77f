// Computes the tables of the simulated machine.
#include "engines/sim/Tables.h"

#include <netinet/tcp.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "engines/sim/Random.h"
#include "records/PublishedNames.h"
#include "records/Variables.h"

namespace vxi::sim {

namespace {

constexpr std::uint32_t kConntrackMax = 262144;
constexpr std::uint32_t kConntrackBuckets = 65536;
constexpr std::uint32_t kRuleTables = 1;
constexpr std::uint32_t kRuleChains = 1;

bool Listening(const View& view)
{
    return !PortClosed(MomentAt(view.world->settings, view.tick));
}

std::uint64_t SocketsIn(const View& view, unsigned state)
{
    return view.world->sockets.tcp4[state] + view.world->sockets.tcp6[state];
}

std::uint64_t TcpSockets(const View& view)
{
    return view.world->tcp_flows + (Listening(view) ? 1U : 0U);
}

template <unsigned counter>
std::uint64_t ScanCounter(const View& view)
{
    return view.counters[counter];
}

struct StatisticsSlot {
    NameList list;
    unsigned index;
    const char* name;
    std::uint64_t (*value)(const View&);
};

constexpr StatisticsSlot kSlots[] = {
    {NameList::kStatistics1, 0, "Ip.InReceives", ScanCounter<VXI_SCAN_PACKETS_FORWARD>},
    {NameList::kStatistics1, 1, "Ip.OutRequests", ScanCounter<VXI_SCAN_PACKETS_BACKWARD>},
    {NameList::kStatistics1, 2, "Tcp.PassiveOpens", ScanCounter<VXI_SCAN_ESTABLISHED>},
    {NameList::kStatistics1, 3, "Tcp.AttemptFails", ScanCounter<VXI_SCAN_HALF_OPEN_CLOSED>},
    {NameList::kStatistics1, 4, "Tcp.EstabResets", ScanCounter<VXI_SCAN_RESET>},
    {NameList::kStatistics1, 5, "Tcp.CurrEstab",
     [](const View& view) { return SocketsIn(view, TCP_ESTABLISHED); }},
    {NameList::kStatistics1, 192, "sockets.used",
     [](const View& view) { return TcpSockets(view) + view.world->udp_flows; }},
    {NameList::kStatistics1, 193, "TCP.inuse",
     [](const View& view) { return TcpSockets(view) - SocketsIn(view, TCP_TIME_WAIT); }},
    {NameList::kStatistics1, 194, "TCP.tw",
     [](const View& view) { return SocketsIn(view, TCP_TIME_WAIT); }},
    {NameList::kStatistics1, 195, "UDP.inuse",
     [](const View& view) { return std::uint64_t{view.world->udp_flows}; }},

    {NameList::kStatistics2, 0, "conntrack.count",
     [](const View& view) { return view.world->settings.flows; }},
    {NameList::kStatistics2, 1, "conntrack.max",
     [](const View&) { return std::uint64_t{kConntrackMax}; }},
    {NameList::kStatistics2, 2, "conntrack.buckets",
     [](const View&) { return std::uint64_t{kConntrackBuckets}; }},
    {NameList::kStatistics2, 3, "rules.tables",
     [](const View&) { return std::uint64_t{kRuleTables}; }},
    {NameList::kStatistics2, 4, "rules.chains",
     [](const View&) { return std::uint64_t{kRuleChains}; }},
    {NameList::kStatistics2, 5, "rules.rules",
     [](const View& view) { return view.world->settings.rules; }},
    {NameList::kStatistics2, 6, "rules.sets",
     [](const View&) { return std::uint64_t{kBlacklistSets}; }},
    {NameList::kStatistics2, 7, "blacklist.elements",
     [](const View& view) { return view.world->settings.blacklist; }},
    {NameList::kStatistics2, 8, "scan.on",
     [](const View& view) { return std::uint64_t{view.target.direction != 0}; }},
    {NameList::kStatistics2, 9, "scan.port",
     [](const View& view) { return std::uint64_t{view.target.port}; }},
    {NameList::kStatistics2, 11, "scan.uncounted", [](const View& view) { return view.uncounted; }},
    {NameList::kStatistics2, 10, "sim.tick", [](const View& view) { return view.tick; }},

    {NameList::kStatistics3, 0, "TcpExt.TCPSynRetrans", ScanCounter<VXI_SCAN_SYN_RETRANSMITTED>},
    {NameList::kStatistics3, 256, "eth0.rx_bytes", ScanCounter<VXI_SCAN_BYTES_FORWARD>},
    {NameList::kStatistics3, 257, "eth0.rx_packets", ScanCounter<VXI_SCAN_PACKETS_FORWARD>},
    {NameList::kStatistics3, 264, "eth0.tx_bytes", ScanCounter<VXI_SCAN_BYTES_BACKWARD>},
    {NameList::kStatistics3, 265, "eth0.tx_packets", ScanCounter<VXI_SCAN_PACKETS_BACKWARD>},
    {NameList::kStatistics3, 528, "softnet.processed",
     [](const View& view) {
         return view.counters[VXI_SCAN_PACKETS_FORWARD] + view.counters[VXI_SCAN_PACKETS_BACKWARD];
     }},
};

// The values of a plain server kernel; those that depend on the view are computed.
constexpr std::uint32_t kSettingsValues[] = {
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
static_assert(std::size(kSettingsValues) == VXA_FILTER_VARIABLE_COUNT, "one value per number");

std::uint64_t RulePackets(const View& view, std::uint64_t rule, std::uint64_t ticks)
{
    return Draw(view.world->settings.seed, 200, rule) % 50 * ticks;
}

constexpr std::uint64_t kPacketBytes = 400;

std::string Counted(std::uint64_t packets)
{
    return "\"packets\": " + std::to_string(packets) +
           ", \"bytes\": " + std::to_string(packets * kPacketBytes);
}

std::string RuleJson(const View& view, std::uint64_t rule)
{
    return R"(, {"rule": {"family": "inet", "table": "filter", "chain": "input", "handle": )" +
           std::to_string(rule + 3) +
           R"(, "expr": [{"match": {"op": "==", "left": {"payload": {"protocol": "tcp", )"
           R"("field": "dport"}}, "right": )" +
           std::to_string(1 + rule % 65535) + "}}, {\"counter\": {" +
           Counted(RulePackets(view, rule, view.tick)) + R"(}}, {"accept": null}]}})";
}

std::string ProfileJson(const View& view)
{
    const std::uint64_t ticks = view.tick - view.profiled_since;
    std::string text = R"(, {"profile": {"ticks": )" + std::to_string(ticks) + R"(, "rules": [)";
    for (std::uint64_t rule = 0; rule < view.world->settings.rules; ++rule) {
        text += std::string(rule ? ", " : "") + "{\"handle\": " + std::to_string(rule + 3) + ", " +
                Counted(RulePackets(view, rule, ticks)) + "}";
    }
    return text + "]}}";
}

}  // namespace

void PublishStatisticsNames()
{
    NumberedNames areas[3];
    for (const StatisticsSlot& slot : kSlots) {
        auto& names = areas[static_cast<unsigned>(slot.list)].names;
        names.resize(std::max<std::size_t>(names.size(), slot.index + 1));
        names[slot.index] = slot.name;
    }
    for (unsigned area = 0; area < 3; ++area) {
        PublishNames(kEngineName, static_cast<NameList>(area), std::move(areas[area]));
    }
}

void FillStatistics(const View& view, vxa_stats_v2_s& stats)
{
    std::uint64_t* const areas[] = {stats.area1, stats.area2, stats.area3};
    std::fill_n(stats.area1, 0 + VXA_STATS_AREA1_COUNT, 0);
    std::fill_n(stats.area2, 0 + VXA_STATS_AREA2_COUNT, 0);
    std::fill_n(stats.area3, 0 + VXA_STATS_AREA3_COUNT, 0);
    for (const StatisticsSlot& slot : kSlots) {
        areas[static_cast<unsigned>(slot.list)][slot.index] = slot.value(view);
    }
}

void FillConnStates(const View& view, vxa_get_conn_states_s& states)
{
    states = view.world->sockets;
    if (Listening(view)) {
        ++states.tcp4[TCP_LISTEN];
        ++states.count;
    }
}

std::uint32_t VariableValue(const View& view, int trace_level, std::uint32_t number)
{
    const Settings& settings = view.world->settings;
    switch (number) {
        case kVariableScanOn:
            return view.target.direction != 0;
        case kVariableScanPort:
            return view.target.port;
        case kVariableScanDirection:
            return view.target.direction;
        case kVariableTraceLevel:
            return static_cast<std::uint32_t>(trace_level);
        case kVariableProcessId:
            return static_cast<std::uint32_t>(getpid());
        case kVariableConntrackCount:
            return static_cast<std::uint32_t>(settings.flows);
        case kVariableConntrackMax:
            return kConntrackMax;
        case kVariableConntrackBuckets:
            return kConntrackBuckets;
        case kVariableNftTables:
            return kRuleTables;
        case kVariableNftRules:
            return static_cast<std::uint32_t>(settings.rules);
        case kVariableBlacklistElements:
            return static_cast<std::uint32_t>(settings.blacklist);
        case kVariableRuleProfiling:
            return view.rule_profiling;
        default:
            return kSettingsValues[number];
    }
}

std::string RuleProfile(const View& view)
{
    std::string text = R"({"nftables": [{"metainfo": {"version": "simulated", )"
                       R"("json_schema_version": 1}}, )"
                       R"({"table": {"family": "inet", "name": "filter", "handle": 1}}, )"
                       R"({"chain": {"family": "inet", "table": "filter", "name": "input", )"
                       R"("handle": 2}})";
    for (std::uint64_t rule = 0; rule < view.world->settings.rules; ++rule) {
        text += RuleJson(view, rule);
    }
    return text + (view.rule_profiling == 1 ? ProfileJson(view) : "") + "]}\n";
}

}  // namespace vxi::sim
