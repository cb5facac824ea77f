// Dumps connection tables. docs/diagnostic-texts.md describes the format.
#include <linux/netfilter/nf_conntrack_tcp.h>

#include <iterator>
#include <string>

#include "dumps/Heading.h"
#include "dumps/LineWriter.h"
#include "records/FlowDetails.h"
#include "vxi/vxi.h"

namespace vxi {

namespace {

constexpr std::uint8_t kProtocolTcp = 6;
constexpr std::uint8_t kProtocolUdp = 17;

const char* ConntrackStateName(std::uint8_t state)
{
    static const char* const kNames[] = {"NONE",     "SYN_SENT",   "SYN_RECV", "ESTABLISHED",
                                         "FIN_WAIT", "CLOSE_WAIT", "LAST_ACK", "TIME_WAIT",
                                         "CLOSE",    "SYN_SENT2"};
    static_assert(TCP_CONNTRACK_ESTABLISHED == 3 && TCP_CONNTRACK_SYN_SENT2 == 9, "states");
    return state < std::size(kNames) ? kNames[state] : nullptr;
}

void WriteEndpoint(LineWriter& lines, const std::uint8_t (&address)[16], std::uint8_t family,
                   const std::uint8_t (&port)[2])
{
    const bool bracketed = family == 6;
    lines.Text(bracketed ? "[" : "").Address(address, family).Text(bracketed ? "]:" : ":");
    lines.Number(static_cast<unsigned>(port[0] << 8 | port[1]));
}

void WriteState(LineWriter& lines, std::uint8_t protocol, std::uint8_t state)
{
    const char* const name = ConntrackStateName(state);
    if (protocol != kProtocolTcp) {
        lines.Text(" - ");
    } else if (name) {
        lines.Text(" ").Text(name).Text(" ");
    } else {
        lines.Text(" state").Number(state).Text(" ");
    }
}

// Most sockets have no timer.
void WriteTimeout(LineWriter& lines, const vxa_conntrack_entry_s& entry)
{
    if (entry.timeout_s == 0 && entry.flags & VXA_FLOW_FROM_SOCK_DIAG) {
        lines.Text("-");
    } else {
        lines.Number(entry.timeout_s).Text("s");
    }
}

void WriteCounts(LineWriter& lines, const vxa_conntrack_entry_s& entry)
{
    if (!(entry.flags & VXA_FLOW_COUNTERS_VALID)) {
        lines.Text(" - -");
        return;
    }
    lines.Text(" ").Number(entry.packets_forward).Text("/").Number(entry.bytes_forward);
    lines.Text(" ").Number(entry.packets_backward).Text("/").Number(entry.bytes_backward);
}

// Returns the detail of an entry, null if it has none. `next` moves through the section's details.
const FlowDetail* NextDetail(const FlowDetails& details, std::uint32_t index, std::size_t& next)
{
    const bool has = next < details.size() && details[next].index == index;
    return has ? &details[next++] : nullptr;
}

void WriteTranslation(LineWriter& lines, const vxa_conntrack_entry_s& entry,
                      const FlowDetail* detail)
{
    const bool known = detail && detail->translated;
    if (entry.flags & VXA_FLOW_SNAT) {
        lines.Text(known ? " snat=" : " snat");
        if (known) {
            WriteEndpoint(lines, detail->source, entry.family, detail->source_port);
        }
    }
    if (entry.flags & VXA_FLOW_DNAT) {
        lines.Text(known ? " dnat=" : " dnat");
        if (known) {
            WriteEndpoint(lines, detail->destination, entry.family, detail->destination_port);
        }
    }
}

void WriteFlags(LineWriter& lines, const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
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
    // sock_diag does not report replies; a tracked flow without one is remarkable.
    if (!(entry.flags & (VXA_FLOW_SEEN_REPLY | VXA_FLOW_FROM_SOCK_DIAG))) {
        lines.Text(" unreplied");
    }
    if (entry.mark != 0) {
        lines.Text(" mark=").Number(entry.mark);
    }
    WriteTranslation(lines, entry, detail);
    if (detail && detail->zone != 0) {
        lines.Text(" ").Text(detail->zone_name).Text("=").Number(detail->zone);
    }
}

void WriteFlow(LineWriter& lines, std::string_view name, std::uint8_t protocol,
               const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    lines.Text(name).Text(" ");
    WriteEndpoint(lines, entry.source, entry.family, entry.source_port);
    lines.Text(" > ");
    WriteEndpoint(lines, entry.destination, entry.family, entry.destination_port);
    WriteState(lines, protocol, entry.tcp_state);
    WriteTimeout(lines, entry);
    WriteCounts(lines, entry);
    WriteFlags(lines, entry, detail);
    lines.EndLine();
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

// Returns the end of the section, where the next one begins.
const vxa_dump_conntrack_s* WriteSection(LineWriter& lines, const vxa_dump_conntrack_s* section)
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
    lines.EndLine();
    const auto* const entries = reinterpret_cast<const vxa_conntrack_entry_s*>(section + 1);
    const FlowDetails& details = FindFlowDetails(*section);
    std::size_t next = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        const FlowDetail* const detail = NextDetail(details, i, next);
        WriteFlow(lines, name, section->protocol, entries[i], detail);
    }
    return reinterpret_cast<const vxa_dump_conntrack_s*>(entries + count);
}

void WriteConnections(LineWriter& lines, const vxa_dump_conntrack_s& table)
{
    WriteHeading(lines, "connections", LastOrigin(Table::kConntrack));
    lines.EndLine();
    WriteSection(lines, WriteSection(lines, &table));
}

}  // namespace

}  // namespace vxi

void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table)
{
    vxi::Dump(sink, table, vxi::WriteConnections);
}
