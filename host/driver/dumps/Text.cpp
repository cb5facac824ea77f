// The records as text. Every format is described in docs/diagnostic-texts.md.
#include <linux/netfilter/nf_conntrack_tcp.h>

#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "dumps/Lines.h"
#include "api/Source.h"
#include "api/Variables.h"
#include "vxi/engine.h"

namespace vxi {

namespace {

bool usable(const tb_dump_s* sink, const void* record)
{
    return sink && sink->print && record;
}

const char* engine_of(const Source& source)
{
    return source.engine ? source.engine : vxi_engine_name();
}

// "# WHAT: SOURCE (engine NAME)", to be continued.
void head(Lines& lines, const char* what, const Source& source)
{
    lines.text("# ").text(what).text(": ");
    lines.escaped(source.text[0] ? source.text : "source unknown", true);
    lines.text(" (engine ").escaped(engine_of(source), true).text(")");
}

// ---- statistics ------------------------------------------------------------

struct StatisticsArea {
    const std::uint64_t* slots;
    unsigned count;
    std::shared_ptr<const SlotNames> names;

    bool named(unsigned i) const
    {
        return names && i < names->names.size() && !names->names[i].empty();
    }
    // A slot that nobody named and nobody filled says nothing.
    bool shown(unsigned i) const { return named(i) || slots[i] != 0; }
};

unsigned shown_slots(const StatisticsArea& area)
{
    unsigned shown = 0;
    for (unsigned i = 0; i < area.count; ++i) {
        shown += area.shown(i);
    }
    return shown;
}

// No counter comes near half of its range, but the kernel's "no limit" is -1.
void print_figure(Lines& lines, std::uint64_t value)
{
    const bool negative = value >> 63;
    lines.text(negative ? "-" : "").number(negative ? -value : value);
}

void print_slots(Lines& lines, unsigned number, const StatisticsArea& area)
{
    for (unsigned i = 0; i < area.count; ++i) {
        if (!area.shown(i)) {
            continue;
        }
        if (area.named(i)) {
            lines.escaped(area.names->names[i], false);
        } else {
            lines.number(number).text("/").number(i);
        }
        print_figure(lines.text(" "), area.slots[i]);
        lines.end_line();
    }
}

StatisticsArea area_of(const char* engine, Area area, const std::uint64_t* slots, unsigned count)
{
    return {slots, slots ? count : 0, slot_names(engine, area)};
}

void print_statistics_head(Lines& lines, const Source& source, const StatisticsArea (&areas)[3])
{
    unsigned all = 0;
    unsigned shown = 0;
    unsigned dropped = 0;
    for (const StatisticsArea& area : areas) {
        all += area.count;
        shown += shown_slots(area);
        dropped += area.names ? area.names->dropped : 0;
    }
    head(lines, "statistics", source);
    lines.text(", showing ").number(shown).text(" of ").number(all);
    lines.text(" slots, the others are unused");
    if (dropped > 0) {
        lines.text("; ").number(dropped).text(" items found no slot");
    }
    lines.end_line();
}

void print_statistics(Lines& lines, const vxa_stats_v2_s& stats)
{
    const Source& source = last_source(Table::statistics);
    const char* const engine = engine_of(source);
    const StatisticsArea areas[] = {
        area_of(engine, Area::statistics1, stats.area1, VXA_STATS_AREA1_COUNT),
        area_of(engine, Area::statistics2, stats.area2, VXA_STATS_AREA2_COUNT),
        area_of(engine, Area::statistics3, stats.area3, VXA_STATS_AREA3_COUNT)};
    print_statistics_head(lines, source, areas);
    for (unsigned i = 0; i < 3; ++i) {
        print_slots(lines, i + 1, areas[i]);
    }
}

// ---- connections -----------------------------------------------------------

constexpr std::uint8_t protocol_tcp = 6;
constexpr std::uint8_t protocol_udp = 17;

const char* tracked_state(std::uint8_t state)
{
    static const char* const names[] = {"NONE",     "SYN_SENT",   "SYN_RECV", "ESTABLISHED",
                                        "FIN_WAIT", "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT",
                                        "CLOSE",    "SYN_SENT2"};
    static_assert(TCP_CONNTRACK_ESTABLISHED == 3 && TCP_CONNTRACK_SYN_SENT2 == 9, "states");
    return state < std::size(names) ? names[state] : nullptr;
}

void print_end(Lines& lines, const std::uint8_t (&address)[16], std::uint8_t family,
               const std::uint8_t (&port)[2])
{
    const bool bracketed = family == 6;
    lines.text(bracketed ? "[" : "").address(address, family).text(bracketed ? "]:" : ":");
    lines.number(static_cast<unsigned>(port[0] << 8 | port[1]));
}

void print_state(Lines& lines, std::uint8_t protocol, std::uint8_t state)
{
    const char* const name = tracked_state(state);
    if (protocol != protocol_tcp) {
        lines.text(" - ");
    } else if (name) {
        lines.text(" ").text(name).text(" ");
    } else {
        lines.text(" state").number(state).text(" ");
    }
}

// Most sockets have no time to end at.
void print_timeout(Lines& lines, const vxa_conntrack_entry_s& entry)
{
    if (entry.timeout_s == 0 && entry.flags & VXA_FLOW_FROM_SOCK_DIAG) {
        lines.text("-");
    } else {
        lines.number(entry.timeout_s).text("s");
    }
}

void print_counts(Lines& lines, const vxa_conntrack_entry_s& entry)
{
    if (!(entry.flags & VXA_FLOW_COUNTERS_VALID)) {
        lines.text(" - -");
        return;
    }
    lines.text(" ").number(entry.packets_forward).text("/").number(entry.bytes_forward);
    lines.text(" ").number(entry.packets_backward).text("/").number(entry.bytes_backward);
}

// The detail of an entry that has one; `next` moves on through the details of its section.
const FlowDetail* detail_of(const FlowDetails& details, std::uint32_t index, std::size_t& next)
{
    const bool has = next < details.size() && details[next].index == index;
    return has ? &details[next++] : nullptr;
}

void print_translation(Lines& lines, const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    const bool known = detail && detail->translated;
    if (entry.flags & VXA_FLOW_SNAT) {
        lines.text(known ? " snat=" : " snat");
        if (known) {
            print_end(lines, detail->source, entry.family, detail->source_port);
        }
    }
    if (entry.flags & VXA_FLOW_DNAT) {
        lines.text(known ? " dnat=" : " dnat");
        if (known) {
            print_end(lines, detail->destination, entry.family, detail->destination_port);
        }
    }
}

void print_flags(Lines& lines, const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    static constexpr struct {
        unsigned flag;
        const char* word;
    } words[] = {{VXA_FLOW_ASSURED, " assured"},
                 {VXA_FLOW_OFFLOADED, " offloaded"},
                 {VXA_FLOW_FROM_SOCK_DIAG, " socket"}};
    for (const auto& each : words) {
        if (entry.flags & each.flag) {
            lines.text(each.word);
        }
    }
    // A socket says nothing about replies; a tracked flow without one stands out.
    if (!(entry.flags & (VXA_FLOW_SEEN_REPLY | VXA_FLOW_FROM_SOCK_DIAG))) {
        lines.text(" unreplied");
    }
    if (entry.mark != 0) {
        lines.text(" mark=").number(entry.mark);
    }
    print_translation(lines, entry, detail);
    if (detail && detail->zone != 0) {
        lines.text(" ").text(detail->zone_name).text("=").number(detail->zone);
    }
}

void print_flow(Lines& lines, std::string_view name, std::uint8_t protocol,
                const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    lines.text(name).text(" ");
    print_end(lines, entry.source, entry.family, entry.source_port);
    lines.text(" > ");
    print_end(lines, entry.destination, entry.family, entry.destination_port);
    print_state(lines, protocol, entry.tcp_state);
    print_timeout(lines, entry);
    print_counts(lines, entry);
    print_flags(lines, entry, detail);
    lines.end_line();
}

std::string protocol_name(std::uint8_t protocol)
{
    switch (protocol) {
        case protocol_tcp:
            return "tcp";
        case protocol_udp:
            return "udp";
        default:
            return "protocol" + std::to_string(protocol);
    }
}

// Returns the header that follows the section.
const vxa_dump_conntrack_s* print_section(Lines& lines, const vxa_dump_conntrack_s* section)
{
    const std::string name = protocol_name(section->protocol);
    const std::uint32_t count = section->entry_ct;
    lines.text("# ").text(name).text(": ");
    if (section->total > count) {
        lines.text("showing ").number(count).text(" of ").number(section->total).text(" flows");
    } else {
        lines.number(count).text(" flows");
        lines.text(section->total == 0 && count > 0 ? ", total unknown" : "");
    }
    lines.end_line();
    const auto* const entries = reinterpret_cast<const vxa_conntrack_entry_s*>(section + 1);
    const FlowDetails& details = flow_details(*section);
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const FlowDetail* const detail = detail_of(details, i, next);
        print_flow(lines, name, section->protocol, entries[i], detail);
    }
    return reinterpret_cast<const vxa_dump_conntrack_s*>(entries + count);
}

// ---- blacklist -------------------------------------------------------------

void print_blacklisted(Lines& lines, const vxa_blacklist_entry_s& entry)
{
    lines.address(entry.address, entry.family);
    if (entry.flags & VXA_BLACKLIST_RANGE) {
        lines.text("-").address(entry.last, entry.family);
    }
    lines.text(" set ").number(entry.set_index);
    if (entry.flags & VXA_BLACKLIST_TIMEOUT) {
        lines.text(" expires ").number(entry.expires_s).text("s of ");
        lines.number(entry.timeout_s).text("s");
    }
    lines.end_line();
}

void print_set_names(Lines& lines, const char* engine)
{
    const auto sets = slot_names(engine, Area::blacklist_sets);
    for (std::size_t i = 0; sets && i < sets->names.size(); ++i) {
        lines.text("# set ").number(i).text(": ").escaped(sets->names[i], true).end_line();
    }
    const auto skipped = slot_names(engine, Area::blacklist_skipped);
    for (std::size_t i = 0; skipped && i < skipped->names.size(); ++i) {
        lines.text("# skipped ").escaped(skipped->names[i], true).end_line();
    }
}

void print_blacklist(Lines& lines, const vxa_blacklist_get_addrs_s* list)
{
    constexpr std::uint32_t entry_size = sizeof(vxa_blacklist_entry_s);
    const std::uint32_t count = list->entries_size / entry_size;
    const Source& source = last_source(Table::blacklist);
    head(lines, "blacklist", source);
    lines.text(", ").number(count).text(" entries, ").number(list->set_count).text(" sets");
    if (list->entries_size % entry_size != 0) {
        lines.text("; the last entry is cut");
    }
    lines.end_line();
    print_set_names(lines, engine_of(source));
    const auto* const bytes = reinterpret_cast<const unsigned char*>(list + 1);
    for (std::uint32_t i = 0; i < count; ++i) {
        // The header is 44 bytes long, so the entries behind it are not aligned.
        vxa_blacklist_entry_s entry;
        std::memcpy(&entry, bytes + std::size_t{i} * entry_size, entry_size);
        print_blacklisted(lines, entry);
    }
}

// ---- sockets ---------------------------------------------------------------

// By TCP_ESTABLISHED.. of <netinet/tcp.h>, then the kernel's TCP_NEW_SYN_RECV and
// TCP_BOUND_INACTIVE, which that header does not have.
constexpr const char* socket_states[] = {
    nullptr, "ESTABLISHED", "SYN_SENT", "SYN_RECV", "FIN_WAIT1", "FIN_WAIT2",    "TIME_WAIT",
    "CLOSE", "CLOSE_WAIT",  "LAST_ACK", "LISTEN",   "CLOSING",   "NEW_SYN_RECV", "BOUND"};

void print_sockets(Lines& lines, const char* family, const std::uint64_t (&counts)[16])
{
    for (unsigned i = 0; i < std::size(counts); ++i) {
        const char* const state = i < std::size(socket_states) ? socket_states[i] : nullptr;
        // The known states always stand, so that two dumps can be compared by line.
        if (state) {
            lines.text(family).text(" ").text(state).text(" ").number(counts[i]).end_line();
        } else if (counts[i] != 0) {
            lines.text(family).text(" ").text(family).text("/").number(i);
            lines.text(" ").number(counts[i]).end_line();
        }
    }
}

}  // namespace

}  // namespace vxi

using namespace vxi;

void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats)
{
    if (usable(sink, stats)) {
        Lines lines(sink);
        print_statistics(lines, *stats);
        lines.flush();
    }
}

void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table)
{
    if (usable(sink, table)) {
        Lines lines(sink);
        head(lines, "connections", last_source(Table::conntrack));
        lines.end_line();
        print_section(lines, print_section(lines, table));
        lines.flush();
    }
}

void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list)
{
    if (usable(sink, list)) {
        Lines lines(sink);
        print_blacklist(lines, list);
        lines.flush();
    }
}

void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states)
{
    if (usable(sink, states)) {
        Lines lines(sink);
        head(lines, "sockets", last_source(Table::conn_states));
        lines.text(", ").number(states->count).text(" in all").end_line();
        print_sockets(lines, "tcp4", states->tcp4);
        print_sockets(lines, "tcp6", states->tcp6);
        lines.text("udp4 ").number(states->udp4).end_line();
        lines.text("udp6 ").number(states->udp6).end_line();
        lines.flush();
    }
}

// Every style reads the same so far.
void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int)
{
    if (usable(sink, variable)) {
        Lines lines(sink);
        const char* const name = variable_name(variable->number);
        lines.number(variable->number).text(" ");
        if (name) {
            lines.text(name).text(" ");
        } else {
            lines.text("variable/").number(variable->number).text(" ");
        }
        if (variable->value == VXA_FILTER_VARIABLE_ABSENT) {
            lines.text("absent");
        } else {
            const bool cut = variable->value == VXA_FILTER_VARIABLE_ABSENT - 1;
            lines.number(variable->value).text(cut ? " or more" : "");
        }
        lines.end_line();
        lines.flush();
    }
}
