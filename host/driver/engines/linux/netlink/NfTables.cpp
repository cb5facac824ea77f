// nf_tables requests (linux/netfilter/nf_tables.h) and the parts of messages that several readers
// use.
#include "engines/linux/netlink/NfTables.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <cerrno>

#include "api/Error.h"

namespace vxi {

const char* const kNftNeedsPrivilege = "nf_tables needs CAP_NET_ADMIN";
const char* const kNoNfTables = "this kernel has no nf_tables";
const char* const kNoNetfilterNetlink = "this kernel has no netfilter netlink (nfnetlink)";

namespace {

constexpr std::uint16_t NftType(std::uint16_t type)
{
    return NFNL_SUBSYS_NFTABLES << 8 | type;
}

[[noreturn]] void ThrowUnreachable(const Error& cause)
{
    switch (cause.Status()) {
        case -EPERM:
            throw Error(cause.Status(), kNftNeedsPrivilege);
        case -EPROTONOSUPPORT:
        case -EAFNOSUPPORT:
            throw Error(cause.Status(), kNoNetfilterNetlink);
        case -EINVAL:
        case -EOPNOTSUPP:
            throw Error(cause.Status(), kNoNfTables);
        default:
            ThrowError(cause.Status(), "nf_tables does not answer: %s", cause.what());
    }
}

}  // namespace

void OpenNfTables(Netlink& netlink)
try {
    netlink.Open(NETLINK_NETFILTER);
    // The cheapest request; the kernel checks the privilege before it looks at the request.
    alignas(nlmsghdr) char buffer[64];
    netlink.Request(*PutNftRequest(buffer, NFT_MSG_GETGEN, NLM_F_ACK), [](const nlmsghdr&) {});
} catch (const Error& error) {
    ThrowUnreachable(error);
}

nlmsghdr* PutNetfilterHeader(void* buffer, std::uint16_t type, std::uint16_t flags,
                             std::uint8_t family, std::uint16_t resource)
{
    nlmsghdr* header = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST | flags;
    auto* netfilter = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(nfgenmsg)));
    netfilter->nfgen_family = family;
    netfilter->version = NFNETLINK_V0;
    netfilter->res_id = htons(resource);
    return header;
}

nlmsghdr* PutNftRequest(void* buffer, std::uint16_t type, std::uint16_t flags)
{
    return PutNetfilterHeader(buffer, NftType(type), flags, NFPROTO_INET, 0);
}

nlmsghdr* PutNftDump(void* buffer, std::uint16_t type, std::uint8_t family)
{
    return PutNetfilterHeader(buffer, NftType(type), NLM_F_DUMP, family, 0);
}

bool IsNft(const nlmsghdr& message, std::uint16_t type)
{
    return message.nlmsg_type == NftType(type) &&
           message.nlmsg_len >= mnl_nlmsg_size(sizeof(nfgenmsg));
}

std::uint8_t NftFamily(const nlmsghdr& message)
{
    return static_cast<const nfgenmsg*>(mnl_nlmsg_get_payload(&message))->nfgen_family;
}

std::optional<Counts> DecodeCounter(const nlattr* counter)
{
    return DecodeCounts(counter, NFTA_COUNTER_PACKETS, NFTA_COUNTER_BYTES);
}

std::optional<Counts> DecodeRuleCounter(const Attributes& rule)
{
    const nlattr* expressions = rule.Find(NFTA_RULE_EXPRESSIONS);
    if (!expressions) {
        return std::nullopt;
    }
    for (const nlattr& expression : Attributes(*expressions)) {
        const Attributes attributes(expression);
        if (DecodeString(attributes.Find(NFTA_EXPR_NAME)) == "counter") {
            return DecodeCounter(attributes.Find(NFTA_EXPR_DATA));
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

std::uint64_t CountNftObjects(Netlink& netlink, std::uint16_t get_type)
{
    std::uint64_t count = 0;
    RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        count = 0;
        return netlink.Request(*PutNftDump(buffer, get_type, NFPROTO_UNSPEC),
                               [&](const nlmsghdr&) { ++count; });
    });
    return count;
}

}  // namespace vxi
