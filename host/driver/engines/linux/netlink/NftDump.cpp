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

Outcome Unreachable(int status)
{
    switch (status) {
        case -EPERM:
            return Failure(status, "nf_tables needs CAP_NET_ADMIN");
        case -EPROTONOSUPPORT:
        case -EAFNOSUPPORT:
            return Failure(status, "this kernel has no netfilter netlink (nfnetlink)");
        case -EINVAL:  // nfnetlink knows no such subsystem
        case -EOPNOTSUPP:
            return Failure(status, "this kernel has no nf_tables");
        default:
            return Failure(status, "nf_tables does not answer: %s", DescribeStatus(status).c_str());
    }
}

}  // namespace

Outcome OpenNfTables(Netlink& netlink)
{
    int status = netlink.Open(NETLINK_NETFILTER);
    if (status == 0) {
        // The cheapest question there is; the privilege is asked for before it is looked at.
        alignas(nlmsghdr) char buffer[64];
        nlmsghdr* request = NftRequest(buffer, NFT_MSG_GETGEN, NLM_F_ACK);
        status = netlink.Request(*request, [](const nlmsghdr&) { return 0; });
    }
    return status == 0 ? Outcome{} : Unreachable(status);
}

nlmsghdr* NftDump(void* buffer, std::uint16_t type, std::uint8_t family)
{
    nlmsghdr* header = NftRequest(buffer, type, NLM_F_DUMP);
    static_cast<nfgenmsg*>(mnl_nlmsg_get_payload(header))->nfgen_family = family;
    return header;
}

bool IsNft(const nlmsghdr& message, std::uint16_t type)
{
    return message.nlmsg_type == (NFNL_SUBSYS_NFTABLES << 8 | type) &&
           message.nlmsg_len >= mnl_nlmsg_size(sizeof(nfgenmsg));
}

std::uint8_t NftFamily(const nlmsghdr& message)
{
    return static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message))->nfgen_family;
}

std::optional<NftCounts> CountsOf(const nlattr* counter)
{
    if (!counter) {
        return std::nullopt;
    }
    const Attributes attributes(*counter);
    const auto packets = Be64Of(attributes.Find(NFTA_COUNTER_PACKETS));
    const auto bytes = Be64Of(attributes.Find(NFTA_COUNTER_BYTES));
    return packets && bytes ? std::optional(NftCounts{*packets, *bytes}) : std::nullopt;
}

std::optional<NftCounts> DecodeCounters(const Attributes& rule)
{
    const nlattr* expressions = rule.Find(NFTA_RULE_EXPRESSIONS);
    if (!expressions) {
        return std::nullopt;
    }
    for (const nlattr& expression : Attributes(*expressions)) {
        const Attributes attributes(expression);
        if (TextOf(attributes.Find(NFTA_EXPR_NAME)) == "counter") {
            return CountsOf(attributes.Find(NFTA_EXPR_DATA));
        }
    }
    return std::nullopt;
}

std::string NftFamilyName(std::uint8_t family)
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

int CountNft(Netlink& netlink, std::uint16_t get_type, std::uint64_t& count)
{
    return RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = NftDump(buffer, get_type, NFPROTO_UNSPEC);
        count = 0;
        return netlink.Request(*request, [&](const nlmsghdr&) {
            ++count;
            return 0;
        });
    });
}

}  // namespace vxi
