// Kernel answers made to order, each in a heap block of exactly its size, so that a sanitizer sees
// every read beyond it; and a whole one of each kind that the engine reads.
#pragma once

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tcp.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/sock_diag.h>
#include <linux/tcp.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engines/linux/netlink/SockDiag.h"

class Message {
public:
    explicit Message(const std::string& bytes) : m_size(bytes.size()), m_bytes(new char[m_size])
    {
        memcpy(m_bytes.get(), bytes.data(), m_size);
        Header().nlmsg_len = static_cast<std::uint32_t>(m_size);
    }

    // The first `size` bytes, whose header says so.
    Message Cut(std::size_t size) const { return Message({m_bytes.get(), size}); }

    nlmsghdr& Header() const { return *reinterpret_cast<nlmsghdr*>(m_bytes.get()); }
    char* Bytes() const { return m_bytes.get(); }
    std::size_t size() const { return m_size; }

private:
    std::size_t m_size;
    std::unique_ptr<char[]> m_bytes;
};

template <class Plain>
std::string BytesOf(const Plain& plain)
{
    return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

// An attribute with bytes, or with others in it.
struct Attribute {
    std::uint16_t type;
    std::string bytes;
    std::vector<Attribute> nested = {};
};
using AttributeList = std::vector<Attribute>;

inline Attribute Nest(std::uint16_t type, AttributeList nested)
{
    return {type, "", std::move(nested)};
}

inline std::string Serialize(const AttributeList& attributes)
{
    std::string all;
    for (const Attribute& each : attributes) {
        std::string body = each.bytes + Serialize(each.nested);
        all +=
            BytesOf(nlattr{static_cast<std::uint16_t>(MNL_ATTR_HDRLEN + body.size()), each.type});
        body.resize(MNL_ALIGN(body.size()));
        all += body;
    }
    return all;
}

// `head` is what stands between the netlink header and the attributes.
inline Message Compose(std::uint16_t type, const std::string& head, const AttributeList& attributes)
{
    nlmsghdr header = {};
    header.nlmsg_type = type;
    return Message(BytesOf(header) + head + Serialize(attributes));
}

// The attribute that a path of types leads to gets another size, or goes away with -1.
inline AttributeList Resized(AttributeList attributes, const std::vector<std::uint16_t>& path,
                             int size)
{
    AttributeList* level = &attributes;
    auto at = level->end();
    for (const std::uint16_t type : path) {
        level = at == level->end() ? level : &at->nested;
        at = level->begin();
        while (at->type != type) {
            ++at;
        }
    }
    if (size < 0) {
        level->erase(at);
    } else {
        at->bytes.resize(static_cast<std::size_t>(size));
    }
    return attributes;
}

constexpr std::uint16_t kNewFlow = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;

inline Attribute Counters(std::uint16_t type, std::uint64_t packets, std::uint64_t bytes)
{
    return Nest(type, {{CTA_COUNTERS_PACKETS, BytesOf(htobe64(packets))},
                       {CTA_COUNTERS_BYTES, BytesOf(htobe64(bytes))}});
}

// 10.0.0.1:1234 > 10.0.0.2:80
inline AttributeList FlowAttributes(std::uint8_t protocol = IPPROTO_TCP)
{
    const std::uint32_t status = IPS_SEEN_REPLY | IPS_ASSURED | IPS_CONFIRMED | IPS_OFFLOAD;
    const std::uint8_t established = TCP_CONNTRACK_ESTABLISHED;
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

inline Message Flow(const AttributeList& attributes = FlowAttributes(),
                    std::uint16_t type = kNewFlow)
{
    return Compose(type, BytesOf(nfgenmsg{}), attributes);
}

struct SocketSample {
    std::uint8_t state = vxi::kSocketEstablished;
    std::uint16_t near_port = 40000;
    std::uint16_t far_port = 443;
    std::size_t info_size = sizeof(tcp_info);
    std::size_t mark_size = 4;
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
                                      {INET_DIAG_MARK, BytesOf(std::uint64_t{77})}};
    return Compose(SOCK_DIAG_BY_FAMILY, BytesOf(head),
                   Resized(Resized(attributes, {INET_DIAG_INFO}, int(sample.info_size)),
                           {INET_DIAG_MARK}, int(sample.mark_size)));
}

inline Message Nft(std::uint16_t type, const AttributeList& attributes)
{
    return Compose(static_cast<std::uint16_t>(NFNL_SUBSYS_NFTABLES << 8 | type),
                   BytesOf(nfgenmsg{NFPROTO_BRIDGE, 0, 0}), attributes);
}

// With `key_size` bytes of 1.2.3.4.
inline Message SetElement(std::size_t key_size = 4)
{
    std::string key = BytesOf(inet_addr("1.2.3.4"));
    key.resize(key_size);
    return Nft(
        NFT_MSG_NEWSETELEM,
        {Nest(NFTA_SET_ELEM_LIST_ELEMENTS,
              {Nest(NFTA_LIST_ELEM, {Nest(NFTA_SET_ELEM_KEY, {{NFTA_DATA_VALUE, key}}),
                                     {NFTA_SET_ELEM_TIMEOUT, BytesOf(htobe64(61999))},
                                     {NFTA_SET_ELEM_EXPIRATION, BytesOf(~std::uint64_t{0})}})})});
}

inline Message Set(const std::string& name, std::uint32_t key_type)
{
    return Nft(NFT_MSG_NEWSET, {{NFTA_SET_TABLE, "t"},
                                {NFTA_SET_NAME, name},
                                {NFTA_SET_KEY_TYPE, BytesOf(htonl(key_type))}});
}

inline AttributeList CounterAttributes()
{
    return {{NFTA_COUNTER_BYTES, BytesOf(std::uint64_t{1})},
            {NFTA_COUNTER_PACKETS, BytesOf(std::uint64_t{2})}};
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
