// Decodes conntrack entries (linux/netfilter/nfnetlink_conntrack.h).
#include "engines/linux/tables/FlowsFromConntrack.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <cstring>

#include "api/Cancel.h"
#include "engines/linux/netlink/Ctnetlink.h"

namespace vxi {

namespace {

bool DecodeAddresses(const Attributes& tuple, vxa_conntrack_entry_s& entry)
{
    static constexpr struct {
        std::uint8_t family;
        std::uint16_t source;
        std::uint16_t destination;
        std::size_t size;
    } kFamilies[] = {{4, CTA_IP_V4_SRC, CTA_IP_V4_DST, 4}, {6, CTA_IP_V6_SRC, CTA_IP_V6_DST, 16}};
    const nlattr* const addresses = tuple.Find(CTA_TUPLE_IP);
    if (!addresses) {
        return false;
    }
    const Attributes ip(*addresses);
    for (const auto& family : kFamilies) {
        if (CopyPayload(ip.Find(family.source), entry.source, family.size) &&
            CopyPayload(ip.Find(family.destination), entry.destination, family.size)) {
            entry.family = family.family;
            return true;
        }
    }
    return false;
}

// False when the tuple is incomplete. Only UDP and TCP tuples are read further than the protocol:
// others have no ports, or something else in their place.
bool DecodeTuple(const nlattr& attribute, vxa_conntrack_entry_s& entry, std::uint8_t& protocol)
{
    const Attributes tuple(attribute);
    const nlattr* const transport = tuple.Find(CTA_TUPLE_PROTO);
    if (!transport ||
        !CopyPayload(Attributes(*transport).Find(CTA_PROTO_NUM), &protocol, sizeof protocol)) {
        return false;
    }
    if (protocol != IPPROTO_UDP && protocol != IPPROTO_TCP) {
        return true;
    }
    const Attributes ports(*transport);
    return DecodeAddresses(tuple, entry) &&
           CopyPayload(ports.Find(CTA_PROTO_SRC_PORT), entry.source_port, 2) &&
           CopyPayload(ports.Find(CTA_PROTO_DST_PORT), entry.destination_port, 2);
}

std::uint8_t FlowFlags(std::uint32_t status)
{
    static constexpr struct {
        std::uint32_t status;
        unsigned flag;
    } kFlags[] = {{IPS_SEEN_REPLY, VXA_FLOW_SEEN_REPLY},
                  {IPS_ASSURED, VXA_FLOW_ASSURED},
                  {IPS_SRC_NAT, VXA_FLOW_SNAT},
                  {IPS_DST_NAT, VXA_FLOW_DNAT},
                  {IPS_OFFLOAD | IPS_HW_OFFLOAD, VXA_FLOW_OFFLOADED}};
    unsigned result = 0;
    for (const auto& each : kFlags) {
        result |= status & each.status ? each.flag : 0;
    }
    return static_cast<std::uint8_t>(result);
}

std::uint8_t DecodeTcpState(const nlattr& protocol_info)
{
    std::uint8_t state = 0;
    if (const nlattr* tcp = Attributes(protocol_info).Find(CTA_PROTOINFO_TCP)) {
        CopyPayload(Attributes(*tcp).Find(CTA_PROTOINFO_TCP_STATE), &state, sizeof state);
    }
    return state;
}

// Packets and bytes of one direction; false where the kernel does not count them
// (nf_conntrack_acct is 0).
bool DecodeCounters(const nlattr* attribute, std::uint32_t& packets, std::uint64_t& bytes)
{
    if (!attribute) {
        return false;
    }
    const Attributes counters(*attribute);
    const auto counted = DecodeBe64(counters.Find(CTA_COUNTERS_PACKETS));
    const auto size = DecodeBe64(counters.Find(CTA_COUNTERS_BYTES));
    if (!counted || !size) {
        return false;
    }
    packets = static_cast<std::uint32_t>(std::min<std::uint64_t>(*counted, UINT32_MAX));
    bytes = *size;
    return true;
}

void DecodeBothCounters(const nlattr* forward, const nlattr* backward, vxa_conntrack_entry_s& entry)
{
    vxa_conntrack_entry_s counted = entry;
    if (DecodeCounters(forward, counted.packets_forward, counted.bytes_forward) &&
        DecodeCounters(backward, counted.packets_backward, counted.bytes_backward)) {
        entry = counted;
        entry.flags |= VXA_FLOW_COUNTERS_VALID;
    }
}

void DecodeZone(const nlattr* attribute, const char* name, FlowDetail& detail)
{
    std::uint16_t zone = 0;
    if (CopyPayload(attribute, &zone, sizeof zone) && zone != 0) {
        detail.zone = ntohs(zone);
        detail.zone_name = name;
    }
}

// The reply tuple has the addresses and ports after translation, with source and destination
// exchanged.
void DecodeTranslation(const nlattr& reply, std::uint8_t family, FlowDetail& detail)
{
    vxa_conntrack_entry_s answer = {};
    std::uint8_t protocol = 0;
    detail.translated = DecodeTuple(reply, answer, protocol) && answer.family == family;
    memcpy(detail.source, answer.destination, sizeof detail.source);
    memcpy(detail.destination, answer.source, sizeof detail.destination);
    memcpy(detail.source_port, answer.destination_port, sizeof detail.source_port);
    memcpy(detail.destination_port, answer.source_port, sizeof detail.destination_port);
}

// False for most flows, which are in the default zone and not translated.
bool DecodeDetail(const nlattr* const* found, const vxa_conntrack_entry_s& entry,
                  FlowDetail& detail)
{
    const nlattr* const reply = found[CTA_TUPLE_REPLY];
    DecodeZone(found[CTA_ZONE], "zone", detail);
    DecodeZone(Attributes(*found[CTA_TUPLE_ORIG]).Find(CTA_TUPLE_ZONE), "zone-orig", detail);
    if (reply) {
        DecodeZone(Attributes(*reply).Find(CTA_TUPLE_ZONE), "zone-reply", detail);
        if (entry.flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT)) {
            DecodeTranslation(*reply, entry.family, detail);
        }
    }
    return detail.zone != 0 || detail.translated;
}

}  // namespace

void AddConntrackFlow(const nlmsghdr& message, FlowSnapshot& flows)
{
    if (!IsConntrackEntry(message)) {
        return;
    }
    const nlattr* found[CTA_MAX + 1] = {};
    for (const nlattr& attribute : Attributes(message, sizeof(nfgenmsg))) {
        const std::uint16_t type = mnl_attr_get_type(&attribute);
        if (type <= CTA_MAX) {
            found[type] = &attribute;
        }
    }
    vxa_conntrack_entry_s entry = {};
    std::uint8_t protocol = 0;
    if (!found[CTA_TUPLE_ORIG] || !DecodeTuple(*found[CTA_TUPLE_ORIG], entry, protocol)) {
        ++flows.unreadable;
        return;
    }
    FlowList* const list = flows.Find(protocol);
    if (!list) {
        ++flows.other_protocols;
        return;
    }
    entry.flags = FlowFlags(DecodeBe32(found[CTA_STATUS]).value_or(0));
    entry.timeout_s = DecodeBe32(found[CTA_TIMEOUT]).value_or(0);
    entry.mark = DecodeBe32(found[CTA_MARK]).value_or(0);
    if (protocol == IPPROTO_TCP && found[CTA_PROTOINFO]) {
        entry.tcp_state = DecodeTcpState(*found[CTA_PROTOINFO]);
    }
    DecodeBothCounters(found[CTA_COUNTERS_ORIG], found[CTA_COUNTERS_REPLY], entry);
    FlowDetail detail = {};
    list->Add(entry, DecodeDetail(found, entry, detail) ? &detail : nullptr);
}

Consistency ReadConntrackFlows(const ConntrackDump& dump, FlowSnapshot& flows)
{
    return RetryInterrupted([&] {
        flows = {};
        return dump([&](const nlmsghdr& message) {
            AddConntrackFlow(message, flows);
            ThrowIfCancelled("ctnetlink");
        });
    });
}

}  // namespace vxi
