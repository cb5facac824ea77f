// The records as text. Every format is described in docs/diagnostic-texts.md.
#include <linux/netfilter/nf_conntrack_tcp.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "api/Source.h"
#include "api/Variables.h"
#include "dumps/Lines.h"
#include "vxi/engine.h"

namespace vxi {

namespace {

bool Usable(const tb_dump_s* sink, const void* record)
{
    return sink && sink->print && record;
}

const char* EngineOf(const Source& source)
{
    return source.engine ? source.engine : vxi_engine_name();
}

// "# WHAT: SOURCE (engine NAME)", to be continued.
void Head(Lines& lines, const char* what, const Source& source)
{
    lines.Text("# ").Text(what).Text(": ");
    lines.Escaped(source.text[0] ? source.text : "source unknown", true);
    lines.Text(" (engine ").Escaped(EngineOf(source), true).Text(")");
}

// ---- statistics ------------------------------------------------------------

struct StatisticsArea {
    const std::uint64_t* slots;
    unsigned count;
    std::shared_ptr<const SlotNames> names;

    bool Named(unsigned i) const
    {
        return names && i < names->names.size() && !names->names[i].empty();
    }
    // A slot that nobody named and nobody filled says nothing.
    bool Shown(unsigned i) const { return Named(i) || slots[i] != 0; }
};

unsigned ShownSlots(const StatisticsArea& area)
{
    unsigned shown = 0;
    for (unsigned i = 0; i < area.count; ++i) {
        shown += area.Shown(i);
    }
    return shown;
}

// No counter comes near half of its range, but the kernel's "no limit" is -1.
void PrintFigure(Lines& lines, std::uint64_t value)
{
    const bool negative = value >> 63;
    lines.Text(negative ? "-" : "").Number(negative ? -value : value);
}

void PrintSlots(Lines& lines, unsigned number, const StatisticsArea& area)
{
    for (unsigned i = 0; i < area.count; ++i) {
        if (!area.Shown(i)) {
            continue;
        }
        if (area.Named(i)) {
            lines.Escaped(area.names->names[i], false);
        } else {
            lines.Number(number).Text("/").Number(i);
        }
        PrintFigure(lines.Text(" "), area.slots[i]);
        lines.end_line();
    }
}

StatisticsArea AreaOf(const char* engine, Area area, const std::uint64_t* slots, unsigned count)
{
    return {slots, slots ? count : 0, SlotNamesOf(engine, area)};
}

void PrintStatisticsHead(Lines& lines, const Source& source, const StatisticsArea (&areas)[3])
{
    unsigned all = 0;
    unsigned shown = 0;
    unsigned dropped = 0;
    for (const StatisticsArea& area : areas) {
        all += area.count;
        shown += ShownSlots(area);
        dropped += area.names ? area.names->dropped : 0;
    }
    Head(lines, "statistics", source);
    lines.Text(", showing ").Number(shown).Text(" of ").Number(all);
    lines.Text(" slots, the others are unused");
    if (dropped > 0) {
        lines.Text("; ").Number(dropped).Text(" items found no slot");
    }
    lines.end_line();
}

void PrintStatistics(Lines& lines, const vxa_stats_v2_s& stats)
{
    const Source& source = LastSource(Table::kStatistics);
    const char* const engine = EngineOf(source);
    const StatisticsArea areas[] = {
        AreaOf(engine, Area::kStatistics1, stats.area1, VXA_STATS_AREA1_COUNT),
        AreaOf(engine, Area::kStatistics2, stats.area2, VXA_STATS_AREA2_COUNT),
        AreaOf(engine, Area::kStatistics3, stats.area3, VXA_STATS_AREA3_COUNT)};
    PrintStatisticsHead(lines, source, areas);
    for (unsigned i = 0; i < 3; ++i) {
        PrintSlots(lines, i + 1, areas[i]);
    }
}

// ---- connections -----------------------------------------------------------

constexpr std::uint8_t kProtocolTcp = 6;
constexpr std::uint8_t kProtocolUdp = 17;

const char* TrackedState(std::uint8_t state)
{
    static const char* const kNames[] = {"NONE",     "SYN_SENT",   "SYN_RECV", "ESTABLISHED",
                                         "FIN_WAIT", "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT",
                                         "CLOSE",    "SYN_SENT2"};
    static_assert(TCP_CONNTRACK_ESTABLISHED == 3 && TCP_CONNTRACK_SYN_SENT2 == 9, "states");
    return state < std::size(kNames) ? kNames[state] : nullptr;
}

void print_end(Lines& lines, const std::uint8_t (&address)[16], std::uint8_t family,
               const std::uint8_t (&port)[2])
{
    const bool bracketed = family == 6;
    lines.Text(bracketed ? "[" : "").Address(address, family).Text(bracketed ? "]:" : ":");
    lines.Number(static_cast<unsigned>(port[0] << 8 | port[1]));
}

void PrintState(Lines& lines, std::uint8_t protocol, std::uint8_t state)
{
    const char* const name = TrackedState(state);
    if (protocol != kProtocolTcp) {
        lines.Text(" - ");
    } else if (name) {
        lines.Text(" ").Text(name).Text(" ");
    } else {
        lines.Text(" state").Number(state).Text(" ");
    }
}

// Most sockets have no time to end at.
void PrintTimeout(Lines& lines, const vxa_conntrack_entry_s& entry)
{
    if (entry.timeout_s == 0 && entry.flags & VXA_FLOW_FROM_SOCK_DIAG) {
        lines.Text("-");
    } else {
        lines.Number(entry.timeout_s).Text("s");
    }
}

void PrintCounts(Lines& lines, const vxa_conntrack_entry_s& entry)
{
    if (!(entry.flags & VXA_FLOW_COUNTERS_VALID)) {
        lines.Text(" - -");
        return;
    }
    lines.Text(" ").Number(entry.packets_forward).Text("/").Number(entry.bytes_forward);
    lines.Text(" ").Number(entry.packets_backward).Text("/").Number(entry.bytes_backward);
}

// The detail of an entry that has one; `next` moves on through the details of its section.
const FlowDetail* DetailOf(const FlowDetails& details, std::uint32_t index, std::size_t& next)
{
    const bool has = next < details.size() && details[next].index == index;
    return has ? &details[next++] : nullptr;
}

void PrintTranslation(Lines& lines, const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    const bool known = detail && detail->translated;
    if (entry.flags & VXA_FLOW_SNAT) {
        lines.Text(known ? " snat=" : " snat");
        if (known) {
            print_end(lines, detail->source, entry.family, detail->source_port);
        }
    }
    if (entry.flags & VXA_FLOW_DNAT) {
        lines.Text(known ? " dnat=" : " dnat");
        if (known) {
            print_end(lines, detail->destination, entry.family, detail->destination_port);
        }
    }
}

void PrintFlags(Lines& lines, const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    static constexpr struct {
        unsigned flag;
        const char* word;
    } kWords[] = {{VXA_FLOW_ASSURED, " assured"},
                  {VXA_FLOW_OFFLOADED, " offloaded"},
                  {VXA_FLOW_FROM_SOCK_DIAG, " socket"}};
    for (const auto& each : kWords) {
        if (entry.flags & each.flag) {
            lines.Text(each.word);
        }
    }
    // A socket says nothing about replies; a tracked flow without one stands out.
    if (!(entry.flags & (VXA_FLOW_SEEN_REPLY | VXA_FLOW_FROM_SOCK_DIAG))) {
        lines.Text(" unreplied");
    }
    if (entry.mark != 0) {
        lines.Text(" mark=").Number(entry.mark);
    }
    PrintTranslation(lines, entry, detail);
    if (detail && detail->zone != 0) {
        lines.Text(" ").Text(detail->zone_name).Text("=").Number(detail->zone);
    }
}

void PrintFlow(Lines& lines, std::string_view name, std::uint8_t protocol,
               const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    lines.Text(name).Text(" ");
    print_end(lines, entry.source, entry.family, entry.source_port);
    lines.Text(" > ");
    print_end(lines, entry.destination, entry.family, entry.destination_port);
    PrintState(lines, protocol, entry.tcp_state);
    PrintTimeout(lines, entry);
    PrintCounts(lines, entry);
    PrintFlags(lines, entry, detail);
    lines.end_line();
}

std::string ProtocolName(std::uint8_t protocol)
{
    switch (protocol) {
        case kProtocolTcp:
            return "tcp";
        case kProtocolUdp:
            return "udp";
        default:
            return "protocol" + std::to_string(protocol);
    }
}

// Returns the header that follows the section.
const vxa_dump_conntrack_s* PrintSection(Lines& lines, const vxa_dump_conntrack_s* section)
{
    const std::string name = ProtocolName(section->protocol);
    const std::uint32_t count = section->entry_ct;
    lines.Text("# ").Text(name).Text(": ");
    if (section->total > count) {
        lines.Text("showing ").Number(count).Text(" of ").Number(section->total).Text(" flows");
    } else {
        lines.Number(count).Text(" flows");
        lines.Text(section->total == 0 && count > 0 ? ", total unknown" : "");
    }
    lines.end_line();
    const auto* const entries = reinterpret_cast<const vxa_conntrack_entry_s*>(section + 1);
    const FlowDetails& details = FlowDetailsOf(*section);
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const FlowDetail* const detail = DetailOf(details, i, next);
        PrintFlow(lines, name, section->protocol, entries[i], detail);
    }
    return reinterpret_cast<const vxa_dump_conntrack_s*>(entries + count);
}

// ---- blacklist -------------------------------------------------------------

void PrintBlacklisted(Lines& lines, const vxa_blacklist_entry_s& entry)
{
    lines.Address(entry.address, entry.family);
    if (entry.flags & VXA_BLACKLIST_RANGE) {
        lines.Text("-").Address(entry.last, entry.family);
    }
    lines.Text(" set ").Number(entry.set_index);
    if (entry.flags & VXA_BLACKLIST_TIMEOUT) {
        lines.Text(" expires ").Number(entry.expires_s).Text("s of ");
        lines.Number(entry.timeout_s).Text("s");
    }
    lines.end_line();
}

void PrintSetNames(Lines& lines, const char* engine)
{
    const auto sets = SlotNamesOf(engine, Area::kBlacklistSets);
    for (std::size_t i = 0; sets && i < sets->names.size(); ++i) {
        lines.Text("# set ").Number(i).Text(": ").Escaped(sets->names[i], true).end_line();
    }
    const auto skipped = SlotNamesOf(engine, Area::kBlacklistSkipped);
    for (std::size_t i = 0; skipped && i < skipped->names.size(); ++i) {
        lines.Text("# skipped ").Escaped(skipped->names[i], true).end_line();
    }
}

void PrintBlacklist(Lines& lines, const vxa_blacklist_get_addrs_s* list)
{
    constexpr std::uint32_t kEntrySize = sizeof(vxa_blacklist_entry_s);
    const std::uint32_t count = list->entries_size / kEntrySize;
    const Source& source = LastSource(Table::kBlacklist);
    Head(lines, "blacklist", source);
    lines.Text(", ").Number(count).Text(" entries, ").Number(list->set_count).Text(" sets");
    if (list->entries_size % kEntrySize != 0) {
        lines.Text("; the last entry is cut");
    }
    lines.end_line();
    PrintSetNames(lines, EngineOf(source));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(list + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        // The header is 44 bytes long, so the entries behind it are not aligned.
        vxa_blacklist_entry_s entry;
        std::memcpy(&entry, bytes + std::size_t{i} * kEntrySize, kEntrySize);
        PrintBlacklisted(lines, entry);
    }
}

// ---- sockets ---------------------------------------------------------------

// By TCP_ESTABLISHED.. of <netinet/tcp.h>, then the kernel's TCP_NEW_SYN_RECV and
// TCP_BOUND_INACTIVE, which that header does not have.
constexpr const char* kSocketStates[] = {
    nullptr, "ESTABLISHED", "SYN_SENT", "SYN_RECV", "FIN_WAIT1", "FIN_WAIT2",    "TIME_WAIT",
    "CLOSE", "CLOSE_WAIT",  "LAST_ACK", "LISTEN",   "CLOSING",   "NEW_SYN_RECV", "BOUND"};

void PrintSockets(Lines& lines, const char* family, const std::uint64_t (&counts)[16])
{
    for (unsigned i = 0; i < std::size(counts); ++i) {
        const char* const state = i < std::size(kSocketStates) ? kSocketStates[i] : nullptr;
        // The known states always stand, so that two dumps can be compared by line.
        if (state) {
            lines.Text(family).Text(" ").Text(state).Text(" ").Number(counts[i]).end_line();
        } else if (counts[i] != 0) {
            lines.Text(family).Text(" ").Text(family).Text("/").Number(i);
            lines.Text(" ").Number(counts[i]).end_line();
        }
    }
}

}  // namespace

}  // namespace vxi

using namespace vxi;

void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats)
{
    if (Usable(sink, stats)) {
        Lines lines(sink);
        PrintStatistics(lines, *stats);
        lines.Flush();
    }
}

void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table)
{
    if (Usable(sink, table)) {
        Lines lines(sink);
        Head(lines, "connections", LastSource(Table::kConntrack));
        lines.end_line();
        PrintSection(lines, PrintSection(lines, table));
        lines.Flush();
    }
}

void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list)
{
    if (Usable(sink, list)) {
        Lines lines(sink);
        PrintBlacklist(lines, list);
        lines.Flush();
    }
}

void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states)
{
    if (Usable(sink, states)) {
        Lines lines(sink);
        Head(lines, "sockets", LastSource(Table::kConnStates));
        lines.Text(", ").Number(states->count).Text(" in all").end_line();
        PrintSockets(lines, "tcp4", states->tcp4);
        PrintSockets(lines, "tcp6", states->tcp6);
        lines.Text("udp4 ").Number(states->udp4).end_line();
        lines.Text("udp6 ").Number(states->udp6).end_line();
        lines.Flush();
    }
}

// Every style reads the same so far.
void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int)
{
    if (Usable(sink, variable)) {
        Lines lines(sink);
        const char* const name = VariableName(variable->number);
        lines.Number(variable->number).Text(" ");
        if (name) {
            lines.Text(name).Text(" ");
        } else {
            lines.Text("variable/").Number(variable->number).Text(" ");
        }
        if (variable->value == VXA_FILTER_VARIABLE_ABSENT) {
            lines.Text("absent");
        } else {
            const bool cut = variable->value == VXA_FILTER_VARIABLE_ABSENT - 1;
            lines.Number(variable->value).Text(cut ? " or more" : "");
        }
        lines.end_line();
        lines.Flush();
    }
}
