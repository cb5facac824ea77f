#include "engines/linux/netlink/NftDump.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <cerrno>

#include "api/Message.h"
#include "engines/linux/netlink/NftBatch.h"

namespace vxi {

namespace {

Outcome unreachable(int status)
{
    switch (status) {
        case -EPERM:
            return failure(status, "nf_tables needs CAP_NET_ADMIN");
        case -EPROTONOSUPPORT:
        case -EAFNOSUPPORT:
            return failure(status, "this kernel has no netfilter netlink (nfnetlink)");
        case -EINVAL:  // nfnetlink knows no such subsystem
        case -EOPNOTSUPP:
            return failure(status, "this kernel has no nf_tables");
        default:
            return failure(status, "nf_tables does not answer: %s",
                           describe_status(status).c_str());
    }
}

}  // namespace

Outcome open_nf_tables(Netlink& netlink)
{
    int status = netlink.open(NETLINK_NETFILTER);
    if (status == 0) {
        // The cheapest question there is; the privilege is asked for before it is looked at.
        alignas(nlmsghdr) char buffer[64];
        nlmsghdr* request = nft_request(buffer, NFT_MSG_GETGEN, NLM_F_ACK);
        status = netlink.request(*request, [](const nlmsghdr&) { return 0; });
    }
    return status == 0 ? Outcome{} : unreachable(status);
}

nlmsghdr* nft_dump(void* buffer, uint16_t type, uint8_t family)
{
    nlmsghdr* header = nft_request(buffer, type, NLM_F_DUMP);
    static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(header))->nfgen_family = family;
    return header;
}

bool is_nft(const nlmsghdr& message, uint16_t type)
{
    return message.nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | type) &&
           message.nlmsg_len >= mnl_nlmsg_size(sizeof(nfgenmsg));
}

uint8_t nft_family(const nlmsghdr& message)
{
    return static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message))->nfgen_family;
}

std::optional<NftCounts> counts_of(const nlattr* counter)
{
    if (!counter) {
        return std::nullopt;
    }
    const Attributes attributes(*counter);
    const auto packets = be64_of(attributes.find(NFTA_COUNTER_PACKETS));
    const auto bytes = be64_of(attributes.find(NFTA_COUNTER_BYTES));
    return packets && bytes ? std::optional(NftCounts{*packets, *bytes}) : std::nullopt;
}

std::optional<NftCounts> rule_counts(const Attributes& rule)
{
    const nlattr* expressions = rule.find(NFTA_RULE_EXPRESSIONS);
    if (!expressions) {
        return std::nullopt;
    }
    for (const nlattr& expression : Attributes(*expressions)) {
        const Attributes attributes(expression);
        if (text_of(attributes.find(NFTA_EXPR_NAME)) == "counter") {
            return counts_of(attributes.find(NFTA_EXPR_DATA));
        }
    }
    return std::nullopt;
}

std::string nft_family_name(uint8_t family)
{
    switch (family) {
        case NFPROTO_INET:
            return "inet";
        case NFPROTO_IPV4:
            return "ip";
        case NFPROTO_IPV6:
            return "ip6";
        case NFPROTO_ARP:
            return "arp";
        case NFPROTO_NETDEV:
            return "netdev";
        case NFPROTO_BRIDGE:
            return "bridge";
        default:
            return "family " + std::to_string(family);
    }
}

int count_nft(Netlink& netlink, uint16_t get_type, uint64_t& count)
{
    return retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[nft_dump_size];
        nlmsghdr* request = nft_dump(buffer, get_type, NFPROTO_UNSPEC);
        count = 0;
        return netlink.request(*request, [&](const nlmsghdr&) {
            ++count;
            return 0;
        });
    });
}

}  // namespace vxi
