// Decodes conntrack entries (linux/netfilter/nfnetlink_conntrack.h).
#include "engines/linux/tables/FlowsFromConntrack.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "api/Cancel.h"
#include "engines/linux/netlink/Ctnetlink.h"

namespace vxi {

namespace {

// The addresses and ports of one direction (CTA_TUPLE_*).
struct Tuple {
    std::uint8_t protocol = 0;
    std::uint8_t family = 0;  // 4 or 6
    std::uint8_t source[16] = {};
    std::uint8_t destination[16] = {};
    std::uint8_t source_port[2] = {};
    std::uint8_t destination_port[2] = {};
};

bool CopyAddresses(const nlattr* attribute, Tuple& tuple)
{
    static constexpr struct {
        std::uint8_t family;
        std::uint16_t source;
        std::uint16_t destination;
        std::size_t size;
    } kFamilies[] = {{4, CTA_IP_V4_SRC, CTA_IP_V4_DST, 4}, {6, CTA_IP_V6_SRC, CTA_IP_V6_DST, 16}};
    if (!attribute) {
        return false;
    }
    const Attributes addresses(*attribute);
    for (const auto& each : kFamilies) {
        if (CopyPayload(addresses.Find(each.source), tuple.source, each.size) &&
            CopyPayload(addresses.Find(each.destination), tuple.destination, each.size)) {
            tuple.family = each.family;
            return true;
        }
    }
    return false;
}

// Returns nullopt if a part is missing. Of protocols other than UDP and TCP, reads only the number:
// they have no ports, or something else in their place.
std::optional<Tuple> DecodeTuple(const nlattr* attribute)
{
    if (!attribute) {
        return std::nullopt;
    }
    const Attributes attributes(*attribute);
    const nlattr* const transport = attributes.Find(CTA_TUPLE_PROTO);
    if (!transport) {
        return std::nullopt;
    }
    Tuple tuple;
    const Attributes numbers(*transport);
    if (!CopyPayload(numbers.Find(CTA_PROTO_NUM), &tuple.protocol, sizeof tuple.protocol)) {
        return std::nullopt;
    }
    const bool has_ports = tuple.protocol == IPPROTO_UDP || tuple.protocol == IPPROTO_TCP;
    if (has_ports && !(CopyAddresses(attributes.Find(CTA_TUPLE_IP), tuple) &&
                       CopyPayload(numbers.Find(CTA_PROTO_SRC_PORT), tuple.source_port, 2) &&
                       CopyPayload(numbers.Find(CTA_PROTO_DST_PORT), tuple.destination_port, 2))) {
        return std::nullopt;
    }
    return tuple;
}

vxa_conntrack_entry_s MakeEntry(const Tuple& tuple)
{
    vxa_conntrack_entry_s entry = {};
    entry.family = tuple.family;
    memcpy(entry.source, tuple.source, sizeof entry.source);
    memcpy(entry.destination, tuple.destination, sizeof entry.destination);
    memcpy(entry.source_port, tuple.source_port, sizeof entry.source_port);
    memcpy(entry.destination_port, tuple.destination_port, sizeof entry.destination_port);
    return entry;
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

std::uint8_t DecodeTcpState(const nlattr* protocol_info)
{
    std::uint8_t state = TCP_CONNTRACK_NONE;
    const nlattr* const tcp =
        protocol_info ? Attributes(*protocol_info).Find(CTA_PROTOINFO_TCP) : nullptr;
    if (tcp) {
        CopyPayload(Attributes(*tcp).Find(CTA_PROTOINFO_TCP_STATE), &state, sizeof state);
    }
    return state;
}

std::uint32_t Saturated(std::uint64_t packets)
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(packets, UINT32_MAX));
}

// The kernel counts both directions, or none while nf_conntrack_acct is 0.
void CopyCounters(const nlattr* forward, const nlattr* backward, vxa_conntrack_entry_s& entry)
{
    const auto sent = DecodeCounts(forward, CTA_COUNTERS_PACKETS, CTA_COUNTERS_BYTES);
    const auto received = DecodeCounts(backward, CTA_COUNTERS_PACKETS, CTA_COUNTERS_BYTES);
    if (!sent || !received) {
        return;
    }
    entry.flags |= VXA_FLOW_COUNTERS_VALID;
    entry.packets_forward = Saturated(sent->packets);
    entry.bytes_forward = sent->bytes;
    entry.packets_backward = Saturated(received->packets);
    entry.bytes_backward = received->bytes;
}

void CopyZone(const nlattr* attribute, const char* name, FlowDetail& detail)
{
    std::uint16_t zone = 0;
    if (CopyPayload(attribute, &zone, sizeof zone) && zone != 0) {
        detail.zone = ntohs(zone);
        detail.zone_name = name;
    }
}

// The reply tuple has the addresses and ports after translation, with source and destination
// exchanged.
void CopyTranslation(const Tuple& reply, FlowDetail& detail)
{
    detail.translated = true;
    memcpy(detail.source, reply.destination, sizeof detail.source);
    memcpy(detail.destination, reply.source, sizeof detail.destination);
    memcpy(detail.source_port, reply.destination_port, sizeof detail.source_port);
    memcpy(detail.destination_port, reply.source_port, sizeof detail.destination_port);
}

// Returns nullopt for most flows, which are in the default zone and not translated.
std::optional<FlowDetail> DecodeDetail(const nlattr* const* found,
                                       const vxa_conntrack_entry_s& entry)
{
    FlowDetail detail = {};
    const nlattr* const reply = found[CTA_TUPLE_REPLY];
    CopyZone(found[CTA_ZONE], "zone", detail);
    CopyZone(Attributes(*found[CTA_TUPLE_ORIG]).Find(CTA_TUPLE_ZONE), "zone-orig", detail);
    if (reply) {
        CopyZone(Attributes(*reply).Find(CTA_TUPLE_ZONE), "zone-reply", detail);
    }
    if (entry.flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT)) {
        const auto tuple = DecodeTuple(reply);
        if (tuple && tuple->family == entry.family) {
            CopyTranslation(*tuple, detail);
        }
    }
    return detail.zone != 0 || detail.translated ? std::optional(detail) : std::nullopt;
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
    const auto tuple = DecodeTuple(found[CTA_TUPLE_ORIG]);
    if (!tuple) {
        ++flows.unreadable;
        return;
    }
    FlowList* const list = flows.Find(tuple->protocol);
    if (!list) {
        ++flows.other_protocols;
        return;
    }
    vxa_conntrack_entry_s entry = MakeEntry(*tuple);
    entry.flags = FlowFlags(DecodeBe32(found[CTA_STATUS]).value_or(0));
    entry.timeout_s = DecodeBe32(found[CTA_TIMEOUT]).value_or(0);
    entry.mark = DecodeBe32(found[CTA_MARK]).value_or(0);
    if (tuple->protocol == IPPROTO_TCP) {
        entry.tcp_state = DecodeTcpState(found[CTA_PROTOINFO]);
    }
    CopyCounters(found[CTA_COUNTERS_ORIG], found[CTA_COUNTERS_REPLY], entry);
    list->Add(entry, DecodeDetail(found, entry));
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
