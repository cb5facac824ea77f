// A whole message of each kind that the engine reads.
#pragma once

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <sys/socket.h>

#include "Message.h"
#include "engines/linux/SocketDump.h"

// ---- ctnetlink -------------------------------------------------------------

constexpr uint16_t new_flow = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;

inline Attribute Counters(uint16_t type, uint64_t packets, uint64_t bytes)
{
    return Nest(type, {{CTA_COUNTERS_PACKETS, BytesOf(htobe64(packets))},
                       {CTA_COUNTERS_BYTES, BytesOf(htobe64(bytes))}});
}

// 10.0.0.1:1234 > 10.0.0.2:80
inline AttributeList FlowAttributes(uint8_t protocol = IPPROTO_TCP)
{
    const uint32_t status = IPS_SEEN_REPLY | IPS_ASSURED | IPS_CONFIRMED | IPS_OFFLOAD;
    const uint8_t established = TCP_CONNTRACK_ESTABLISHED;
    return {
        Nest(CTA_TUPLE_ORIG, {Nest(CTA_TUPLE_IP, {{CTA_IP_V4_SRC, BytesOf(inet_addr("10.0.0.1"))},
                                                  {CTA_IP_V4_DST, BytesOf(inet_addr("10.0.0.2"))}}),
                              Nest(CTA_TUPLE_PROTO, {{CTA_PROTO_NUM, BytesOf(protocol)},
                                                     {CTA_PROTO_SRC_PORT, BytesOf(htons(1234))},
                                                     {CTA_PROTO_DST_PORT, BytesOf(htons(80))}})}),
        {CTA_STATUS, BytesOf(htonl(status))},
        {CTA_TIMEOUT, BytesOf(htonl(300))},
        Nest(CTA_PROTOINFO,
             {Nest(CTA_PROTOINFO_TCP, {{CTA_PROTOINFO_TCP_STATE, BytesOf(established)}})}),
        Counters(CTA_COUNTERS_ORIG, 5000000000, 7),
        Counters(CTA_COUNTERS_REPLY, 3, 9)};
}

inline Message Flow(const AttributeList& attributes = FlowAttributes(), uint16_t type = new_flow)
{
    return Compose(type, BytesOf(nfgenmsg{}), attributes);
}

// ---- sock_diag -------------------------------------------------------------

struct SocketSample {
    uint8_t state = vxi::SocketEstablished;
    uint16_t near_port = 40000;
    uint16_t far_port = 443;
    size_t info_size = sizeof(tcp_info);
    size_t mark_size = 4;
};

inline Message Socket(const SocketSample& sample = {})
{
    inet_diag_msg head = {};
    head.idiag_family = AF_INET;
    head.idiag_state = sample.state;
    head.id.idiag_sport = htons(sample.near_port);
    head.id.idiag_dport = htons(sample.far_port);
    tcp_info info = {};
    info.tcpi_bytes_sent = 11;
    info.tcpi_bytes_received = 22;
    const AttributeList attributes = {{INET_DIAG_INFO, BytesOf(info)},
                                      {INET_DIAG_MARK, BytesOf(uint64_t{77})}};
    return Compose(SOCK_DIAG_BY_FAMILY, BytesOf(head),
                   Resized(Resized(attributes, {INET_DIAG_INFO}, int(sample.info_size)),
                           {INET_DIAG_MARK}, int(sample.mark_size)));
}

// ---- nf_tables -------------------------------------------------------------

inline Message Nft(uint16_t type, const AttributeList& attributes)
{
    return Compose(static_cast<uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type),
                   BytesOf(nfgenmsg{NFPROTO_BRIDGE, 0, 0}), attributes);
}

// With `key_size` bytes of 1.2.3.4.
inline Message SetElement(size_t key_size = 4)
{
    std::string key = BytesOf(inet_addr("1.2.3.4"));
    key.resize(key_size);
    return Nft(NFT_MSG_NEWSETELEM,
               {Nest(NFTA_SET_ELEM_LIST_ELEMENTS,
                     {Nest(NFTA_LIST_ELEM, {Nest(NFTA_SET_ELEM_KEY, {{NFTA_DATA_VALUE, key}}),
                                            {NFTA_SET_ELEM_TIMEOUT, BytesOf(htobe64(61999))},
                                            {NFTA_SET_ELEM_EXPIRATION, BytesOf(~uint64_t{0})}})})});
}

inline Message Set(const std::string& name, uint32_t key_type, uint32_t flags)
{
    return Nft(NFT_MSG_NEWSET, {{NFTA_SET_TABLE, "t"},
                                {NFTA_SET_NAME, name},
                                {NFTA_SET_KEY_TYPE, BytesOf(htonl(key_type))},
                                {NFTA_SET_FLAGS, BytesOf(htonl(flags))}});
}

constexpr uint64_t counted_packets = 0x0102030405060708, counted_bytes = 0x1112131415161718;

inline AttributeList CounterAttributes()
{
    return {{NFTA_COUNTER_BYTES, BytesOf(htobe64(counted_bytes))},
            {NFTA_COUNTER_PACKETS, BytesOf(htobe64(counted_packets))}};
}

inline Message NamedCounter(const std::string& name)
{
    return Nft(NFT_MSG_NEWOBJ, {{NFTA_OBJ_TABLE, "vxi_scan_1"},
                                {NFTA_OBJ_NAME, name},
                                Nest(NFTA_OBJ_DATA, CounterAttributes())});
}

inline Message RuleWithCounter(const std::string& chain)
{
    const Attribute counter = Nest(
        NFTA_LIST_ELEM, {{NFTA_EXPR_NAME, "counter"}, Nest(NFTA_EXPR_DATA, CounterAttributes())});
    return Nft(NFT_MSG_NEWRULE, {{NFTA_RULE_TABLE, "t"},
                                 {NFTA_RULE_CHAIN, chain},
                                 {NFTA_RULE_HANDLE, BytesOf(htobe64(5))},
                                 Nest(NFTA_RULE_EXPRESSIONS, {counter})});
}
