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

constexpr std::uint16_t MessageType(std::uint16_t type)
{
    return NFNL_SUBSYS_CTNETLINK << 8 | type;
}

struct Request {
    nlmsghdr header;
    nfgenmsg family;  // zero: all
};

int Ask(std::uint16_t type, std::uint16_t flags, const Netlink::Visit& visit)
{
    Netlink netlink;
    const int status = netlink.Open(NETLINK_NETFILTER);
    if (status < 0) {
        return status;
    }
    Request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = MessageType(type);
    request.header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    return netlink.Request(request.header, visit);
}

bool CopyWhole(const nlattr* attribute, void* to, std::size_t size)
{
    if (!attribute || mnl_attr_get_payload_len(attribute) != size) {
        return false;
    }
    memcpy(to, mnl_attr_get_payload(attribute), size);
    return true;
}

bool TakeAddresses(const Attributes& tuple, vxa_conntrack_entry_s& entry)
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
        if (CopyWhole(ip.Find(family.source), entry.source, family.size) &&
            CopyWhole(ip.Find(family.destination), entry.destination, family.size)) {
            entry.family = family.family;
            return true;
        }
    }
    return false;
}

// False when the tuple is not whole. Ports are taken of UDP and TCP only: other protocols
// have none, or other things in their place.
bool TakeTuple(const nlattr& attribute, vxa_conntrack_entry_s& entry, std::uint8_t& protocol)
{
    const Attributes tuple(attribute);
    const nlattr* const ends = tuple.Find(CTA_TUPLE_PROTO);
    if (!ends || !CopyWhole(Attributes(*ends).Find(CTA_PROTO_NUM), &protocol, sizeof protocol)) {
        return false;
    }
    if (protocol != IPPROTO_UDP && protocol != IPPROTO_TCP) {
        return true;
    }
    const Attributes ports(*ends);
    return TakeAddresses(tuple, entry) &&
           CopyWhole(ports.Find(CTA_PROTO_SRC_PORT), entry.source_port, 2) &&
           CopyWhole(ports.Find(CTA_PROTO_DST_PORT), entry.destination_port, 2);
}

std::uint8_t FlagsOf(std::uint32_t status)
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

std::uint8_t TcpStateOf(const nlattr& protocol_info)
{
    std::uint8_t state = 0;
    if (const nlattr* tcp = Attributes(protocol_info).Find(CTA_PROTOINFO_TCP)) {
        CopyWhole(Attributes(*tcp).Find(CTA_PROTOINFO_TCP_STATE), &state, sizeof state);
    }
    return state;
}

// Packets and bytes of one direction; false when the kernel does not count them.
bool TakeCounters(const nlattr* attribute, std::uint32_t& packets, std::uint64_t& bytes)
{
    if (!attribute) {
        return false;
    }
    const Attributes counters(*attribute);
    const auto counted = Be64Of(counters.Find(CTA_COUNTERS_PACKETS));
    const auto size = Be64Of(counters.Find(CTA_COUNTERS_BYTES));
    if (!counted || !size) {
        return false;
    }
    packets = static_cast<std::uint32_t>(std::min<std::uint64_t>(*counted, UINT32_MAX));
    bytes = *size;
    return true;
}

void TakeBothCounters(const nlattr* forward, const nlattr* backward, vxa_conntrack_entry_s& entry)
{
    vxa_conntrack_entry_s counted = entry;
    if (TakeCounters(forward, counted.packets_forward, counted.bytes_forward) &&
        TakeCounters(backward, counted.packets_backward, counted.bytes_backward)) {
        entry = counted;
        entry.flags |= VXA_FLOW_COUNTERS_VALID;
    }
}

void TakeZone(const nlattr* attribute, const char* name, FlowDetail& detail)
{
    std::uint16_t zone = 0;
    if (CopyWhole(attribute, &zone, sizeof zone) && zone != 0) {
        detail.zone = ntohs(zone);
        detail.zone_name = name;
    }
}

// The answer's tuple has the ends as they are after translation, the other way round.
void TakeTranslation(const nlattr& reply, std::uint8_t family, FlowDetail& detail)
{
    vxa_conntrack_entry_s answer = {};
    std::uint8_t protocol = 0;
    detail.translated = TakeTuple(reply, answer, protocol) && answer.family == family;
    memcpy(detail.source, answer.destination, sizeof detail.source);
    memcpy(detail.destination, answer.source, sizeof detail.destination);
    memcpy(detail.source_port, answer.destination_port, sizeof detail.source_port);
    memcpy(detail.destination_port, answer.source_port, sizeof detail.destination_port);
}

// False for most flows: they are in the default zone and not translated.
bool TakeDetail(const nlattr* const* found, const vxa_conntrack_entry_s& entry, FlowDetail& detail)
{
    const nlattr* const reply = found[CTA_TUPLE_REPLY];
    TakeZone(found[CTA_ZONE], "zone", detail);
    TakeZone(Attributes(*found[CTA_TUPLE_ORIG]).Find(CTA_TUPLE_ZONE), "zone-orig", detail);
    if (reply) {
        TakeZone(Attributes(*reply).Find(CTA_TUPLE_ZONE), "zone-reply", detail);
        if (entry.flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT)) {
            TakeTranslation(*reply, entry.family, detail);
        }
    }
    return detail.zone != 0 || detail.translated;
}

}  // namespace

int DumpConntrack(const Netlink::Visit& visit)
{
    return Ask(IPCTNL_MSG_CT_GET, NLM_F_DUMP, visit);
}

void TakeFlow(const nlmsghdr& message, FlowSnapshot& flows)
{
    if (message.nlmsg_type != MessageType(IPCTNL_MSG_CT_NEW)) {
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
    if (!found[CTA_TUPLE_ORIG] || !TakeTuple(*found[CTA_TUPLE_ORIG], entry, protocol)) {
        ++flows.unreadable;
        return;
    }
    FlowList* const list = flows.Of(protocol);
    if (!list) {
        ++flows.other_protocols;
        return;
    }
    entry.flags = FlagsOf(Be32Of(found[CTA_STATUS]).value_or(0));
    entry.timeout_s = Be32Of(found[CTA_TIMEOUT]).value_or(0);
    entry.mark = Be32Of(found[CTA_MARK]).value_or(0);
    if (protocol == IPPROTO_TCP && found[CTA_PROTOINFO]) {
        entry.tcp_state = TcpStateOf(*found[CTA_PROTOINFO]);
    }
    TakeBothCounters(found[CTA_COUNTERS_ORIG], found[CTA_COUNTERS_REPLY], entry);
    FlowDetail detail = {};
    list->Add(entry, TakeDetail(found, entry, detail) ? &detail : nullptr);
}

int read_conntrack(const Dump& dump, FlowSnapshot& flows)
{
    return RetryInterrupted([&] {
        flows = {};
        return dump([&](const nlmsghdr& message) {
            TakeFlow(message, flows);
            return IsCancelled() ? -ECANCELED : 0;
        });
    });
}

int CountTracked(std::uint32_t& count)
{
    std::optional<std::uint32_t> answer;
    const int status = Ask(IPCTNL_MSG_CT_GET_STATS, NLM_F_ACK, [&](const nlmsghdr& message) {
        if (message.nlmsg_type == MessageType(IPCTNL_MSG_CT_GET_STATS)) {
            const Attributes figures(message, sizeof(nfgenmsg));
            answer = Be32Of(figures.Find(CTA_STATS_GLOBAL_ENTRIES));
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
