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

#include "engines/linux/netlink/SocketDump.h"

class Message {
public:
    explicit Message(const std::string& bytes) : size_(bytes.size()), bytes_(new char[size_])
    {
        memcpy(bytes_.get(), bytes.data(), size_);
        header().nlmsg_len = static_cast<uint32_t>(size_);
    }

    // The first `size` bytes, whose header says so.
    Message Cut(size_t size) const { return Message({bytes_.get(), size}); }

    nlmsghdr& header() const { return *reinterpret_cast<nlmsghdr*>(bytes_.get()); }
    char* bytes() const { return bytes_.get(); }
    size_t size() const { return size_; }

private:
    size_t size_;
    std::unique_ptr<char[]> bytes_;
};

template <class Plain>
std::string BytesOf(const Plain& plain)
{
    return {reinterpret_cast<const char*>(&plain), sizeof plain};
}

// An attribute with bytes, or with others in it.
struct Attribute {
    uint16_t type;
    std::string bytes;
    std::vector<Attribute> nested = {};
};
using AttributeList = std::vector<Attribute>;

inline Attribute Nest(uint16_t type, AttributeList nested)
{
    return {type, "", std::move(nested)};
}

inline std::string Serialize(const AttributeList& attributes)
{
    std::string all;
    for (const Attribute& each : attributes) {
        std::string body = each.bytes + Serialize(each.nested);
        all += BytesOf(nlattr{static_cast<uint16_t>(MNL_ATTR_HDRLEN + body.size()), each.type});
        body.resize(MNL_ALIGN(body.size()));
        all += body;
    }
    return all;
}

// `head` is what stands between the netlink header and the attributes.
inline Message Compose(uint16_t type, const std::string& head, const AttributeList& attributes)
{
    nlmsghdr header = {};
    header.nlmsg_type = type;
    return Message(BytesOf(header) + head + Serialize(attributes));
}

// The attribute that a path of types leads to gets another size, or goes away with -1.
inline AttributeList Resized(AttributeList attributes, const std::vector<uint16_t>& path, int size)
{
    AttributeList* level = &attributes;
    auto at = level->end();
    for (const uint16_t type : path) {
        level = at == level->end() ? level : &at->nested;
        at = level->begin();
        while (at->type != type) {
            ++at;
        }
    }
    if (size < 0) {
        level->erase(at);
    } else {
        at->bytes.resize(static_cast<size_t>(size));
    }
    return attributes;
}

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

inline Message Set(const std::string& name, uint32_t key_type)
{
    return Nft(NFT_MSG_NEWSET, {{NFTA_SET_TABLE, "t"},
                                {NFTA_SET_NAME, name},
                                {NFTA_SET_KEY_TYPE, BytesOf(htonl(key_type))}});
}

inline AttributeList CounterAttributes()
{
    return {{NFTA_COUNTER_BYTES, BytesOf(uint64_t{1})},
            {NFTA_COUNTER_PACKETS, BytesOf(uint64_t{2})}};
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
