#include "engines/linux/netlink/ConntrackDump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "api/Cancel.h"

namespace vxi {

namespace {

constexpr uint16_t message_type(uint16_t type)
{
    return NFNL_SUBSYS_CTNETLINK << 8 | type;
}

struct Request {
    nlmsghdr header;
    nfgenmsg family;  // zero: all
};

int ask(uint16_t type, uint16_t flags, const Netlink::Visit& visit)
{
    Netlink netlink;
    const int status = netlink.open(NETLINK_NETFILTER);
    if (status < 0) {
        return status;
    }
    Request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = message_type(type);
    request.header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    return netlink.request(request.header, visit);
}

bool copy_whole(const nlattr* attribute, void* to, size_t size)
{
    if (!attribute || mnl_attr_get_payload_len(attribute) != size) {
        return false;
    }
    memcpy(to, mnl_attr_get_payload(attribute), size);
    return true;
}

bool take_addresses(const Attributes& tuple, vxa_conntrack_entry_s& entry)
{
    static constexpr struct {
        uint8_t family;
        uint16_t source;
        uint16_t destination;
        size_t size;
    } families[] = {{4, CTA_IP_V4_SRC, CTA_IP_V4_DST, 4}, {6, CTA_IP_V6_SRC, CTA_IP_V6_DST, 16}};
    const nlattr* const addresses = tuple.find(CTA_TUPLE_IP);
    if (!addresses) {
        return false;
    }
    const Attributes ip(*addresses);
    for (const auto& family : families) {
        if (copy_whole(ip.find(family.source), entry.source, family.size) &&
            copy_whole(ip.find(family.destination), entry.destination, family.size)) {
            entry.family = family.family;
            return true;
        }
    }
    return false;
}

// False when the tuple is not whole. Ports are taken of UDP and TCP only: other protocols
// have none, or other things in their place.
bool take_tuple(const nlattr& attribute, vxa_conntrack_entry_s& entry, uint8_t& protocol)
{
    const Attributes tuple(attribute);
    const nlattr* const ends = tuple.find(CTA_TUPLE_PROTO);
    if (!ends || !copy_whole(Attributes(*ends).find(CTA_PROTO_NUM), &protocol, sizeof protocol)) {
        return false;
    }
    if (protocol != IPPROTO_UDP && protocol != IPPROTO_TCP) {
        return true;
    }
    const Attributes ports(*ends);
    return take_addresses(tuple, entry) &&
           copy_whole(ports.find(CTA_PROTO_SRC_PORT), entry.source_port, 2) &&
           copy_whole(ports.find(CTA_PROTO_DST_PORT), entry.destination_port, 2);
}

uint8_t flags_of(uint32_t status)
{
    static constexpr struct {
        uint32_t status;
        unsigned flag;
    } flags[] = {{IPS_SEEN_REPLY, VXA_FLOW_SEEN_REPLY},
                 {IPS_ASSURED, VXA_FLOW_ASSURED},
                 {IPS_SRC_NAT, VXA_FLOW_SNAT},
                 {IPS_DST_NAT, VXA_FLOW_DNAT},
                 {IPS_OFFLOAD | IPS_HW_OFFLOAD, VXA_FLOW_OFFLOADED}};
    unsigned result = 0;
    for (const auto& each : flags) {
        result |= status & each.status ? each.flag : 0;
    }
    return static_cast<uint8_t>(result);
}

uint8_t tcp_state_of(const nlattr& protocol_info)
{
    uint8_t state = 0;
    if (const nlattr* tcp = Attributes(protocol_info).find(CTA_PROTOINFO_TCP)) {
        copy_whole(Attributes(*tcp).find(CTA_PROTOINFO_TCP_STATE), &state, sizeof state);
    }
    return state;
}

// Packets and bytes of one direction; false when the kernel does not count them.
bool take_counters(const nlattr* attribute, uint32_t& packets, uint64_t& bytes)
{
    if (!attribute) {
        return false;
    }
    const Attributes counters(*attribute);
    const auto counted = be64_of(counters.find(CTA_COUNTERS_PACKETS));
    const auto size = be64_of(counters.find(CTA_COUNTERS_BYTES));
    if (!counted || !size) {
        return false;
    }
    packets = static_cast<uint32_t>(std::min<uint64_t>(*counted, UINT32_MAX));
    bytes = *size;
    return true;
}

void take_both_counters(const nlattr* forward, const nlattr* backward, vxa_conntrack_entry_s& entry)
{
    vxa_conntrack_entry_s counted = entry;
    if (take_counters(forward, counted.packets_forward, counted.bytes_forward) &&
        take_counters(backward, counted.packets_backward, counted.bytes_backward)) {
        entry = counted;
        entry.flags |= VXA_FLOW_COUNTERS_VALID;
    }
}

void take_zone(const nlattr* attribute, const char* name, FlowDetail& detail)
{
    uint16_t zone = 0;
    if (copy_whole(attribute, &zone, sizeof zone) && zone != 0) {
        detail.zone = ntohs(zone);
        detail.zone_name = name;
    }
}

// The answer's tuple has the ends as they are after translation, the other way round.
void take_translation(const nlattr& reply, uint8_t family, FlowDetail& detail)
{
    vxa_conntrack_entry_s answer = {};
    uint8_t protocol = 0;
    detail.translated = take_tuple(reply, answer, protocol) && answer.family == family;
    memcpy(detail.source, answer.destination, sizeof detail.source);
    memcpy(detail.destination, answer.source, sizeof detail.destination);
    memcpy(detail.source_port, answer.destination_port, sizeof detail.source_port);
    memcpy(detail.destination_port, answer.source_port, sizeof detail.destination_port);
}

// False for most flows: they are in the default zone and not translated.
bool take_detail(const nlattr* const* found, const vxa_conntrack_entry_s& entry, FlowDetail& detail)
{
    const nlattr* const reply = found[CTA_TUPLE_REPLY];
    take_zone(found[CTA_ZONE], "zone", detail);
    take_zone(Attributes(*found[CTA_TUPLE_ORIG]).find(CTA_TUPLE_ZONE), "zone-orig", detail);
    if (reply) {
        take_zone(Attributes(*reply).find(CTA_TUPLE_ZONE), "zone-reply", detail);
        if (entry.flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT)) {
            take_translation(*reply, entry.family, detail);
        }
    }
    return detail.zone != 0 || detail.translated;
}

}  // namespace

int dump_conntrack(const Netlink::Visit& visit)
{
    return ask(IPCTNL_MSG_CT_GET, NLM_F_DUMP, visit);
}

void take_flow(const nlmsghdr& message, FlowSnapshot& flows)
{
    if (message.nlmsg_type != message_type(IPCTNL_MSG_CT_NEW)) {
        return;
    }
    const nlattr* found[CTA_MAX + 1] = {};
    for (const nlattr& attribute : Attributes(message, sizeof(nfgenmsg))) {
        const uint16_t type = mnl_attr_get_type(&attribute);
        if (type <= CTA_MAX) {
            found[type] = &attribute;
        }
    }
    vxa_conntrack_entry_s entry = {};
    uint8_t protocol = 0;
    if (!found[CTA_TUPLE_ORIG] || !take_tuple(*found[CTA_TUPLE_ORIG], entry, protocol)) {
        ++flows.unreadable;
        return;
    }
    FlowList* const list = flows.of(protocol);
    if (!list) {
        ++flows.other_protocols;
        return;
    }
    entry.flags = flags_of(be32_of(found[CTA_STATUS]).value_or(0));
    entry.timeout_s = be32_of(found[CTA_TIMEOUT]).value_or(0);
    entry.mark = be32_of(found[CTA_MARK]).value_or(0);
    if (protocol == IPPROTO_TCP && found[CTA_PROTOINFO]) {
        entry.tcp_state = tcp_state_of(*found[CTA_PROTOINFO]);
    }
    take_both_counters(found[CTA_COUNTERS_ORIG], found[CTA_COUNTERS_REPLY], entry);
    FlowDetail detail = {};
    list->add(entry, take_detail(found, entry, detail) ? &detail : nullptr);
}

int read_conntrack(const Dump& dump, FlowSnapshot& flows)
{
    return retry_interrupted([&] {
        flows = {};
        return dump([&](const nlmsghdr& message) {
            take_flow(message, flows);
            return is_cancelled() ? -ECANCELED : 0;
        });
    });
}

int count_tracked(uint32_t& count)
{
    std::optional<uint32_t> answer;
    const int status = ask(IPCTNL_MSG_CT_GET_STATS, NLM_F_ACK, [&](const nlmsghdr& message) {
        if (message.nlmsg_type == message_type(IPCTNL_MSG_CT_GET_STATS)) {
            const Attributes figures(message, sizeof(nfgenmsg));
            answer = be32_of(figures.find(CTA_STATS_GLOBAL_ENTRIES));
        }
        return 0;
    });
    if (status < 0) {
        return status;
    }
    count = answer.value_or(0);
    return answer ? 0 : -EPROTO;
}

}  // namespace vxi
