// Dumps of counters, rules and set elements (linux/netfilter/nf_tables.h).
#include "engines/linux/scan/ScanCounters.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "api/Error.h"
#include "engines/linux/netlink/NfTables.h"

namespace vxi {

namespace {

constexpr std::size_t kRequestSize = 512;  // two names and a number

// NFTA_SET_COUNT of Linux 6.16, which the headers of Debian 12 do not have.
constexpr std::uint16_t kSetCountAttribute = 20;

// The kernel dumps a set in pieces and walks it from the start for each: 60000 elements take a
// tenth of a second. Above this number its own count is used. That includes elements that left
// within the last second, so connections among them are counted as closed a second later.
constexpr std::uint32_t kListedMax = 16384;

// Numbers of elements of the two sets by the kernel's own count; nullopt where it has none.
struct SetCounts {
    std::optional<std::uint32_t> ipv4;
    std::optional<std::uint32_t> ipv6;
};

// Throws when the table changed during each of six dumps.
void DumpConsistently(FunctionRef<Consistency()> dump)
{
    if (RetryInterrupted(dump) == Consistency::kInterrupted) {
        throw Error(-EINTR, "the rules changed during each of six readings");
    }
}

SetCounts ReadSetCounts(Netlink& netlink, const std::string& table)
{
    SetCounts counts;
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETSET, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_SET_TABLE, table.c_str());
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            const Attributes set(message, sizeof(nfgenmsg));
            const bool is_ipv4 = DecodeString(set.Find(NFTA_SET_NAME)) == kHalfOpenIpv4;
            (is_ipv4 ? counts.ipv4 : counts.ipv6) = DecodeBe32(set.Find(kSetCountAttribute));
        });
    });
    return counts;
}

std::uint64_t DumpElements(Netlink& netlink, const std::string& table, const char* set)
{
    std::uint64_t elements = 0;
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETSETELEM, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set);
        elements = 0;
        return netlink.Request(
            *request, [&](const nlmsghdr& message) { elements += CountElements(message); });
    });
    return elements;
}

// `count` is the kernel's own.
std::uint64_t CountElementsOf(Netlink& netlink, const std::string& table, const char* set,
                              std::optional<std::uint32_t> count)
{
    const bool suffices = count && (*count == 0 || *count > kListedMax);
    return suffices ? *count : DumpElements(netlink, table, set);
}

void ReadChain(Netlink& netlink, const std::string& table, const char* chain,
               ScanCounters& counters)
{
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETRULE, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_RULE_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_RULE_CHAIN, chain);
        return netlink.Request(
            *request, [&](const nlmsghdr& message) { DecodeTrafficCounter(message, counters); });
    });
}

// A dump of a table that is gone is empty: throws unless the counters from `first` up to `end` are
// present.
void RequirePresent(const ScanCounters& counters, ScanCounter first, ScanCounter end)
{
    const auto begin = counters.values.begin();
    if (!std::all_of(begin + static_cast<std::ptrdiff_t>(first),
                     begin + static_cast<std::ptrdiff_t>(end),
                     [](const ScanCounters::Value& value) { return value.present; })) {
        throw Error(-ENOENT);
    }
}

}  // namespace

ScanCounters ReadNamedCounters(Netlink& netlink, const std::string& table)
{
    ScanCounters counters;
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETOBJ, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_OBJ_TABLE, table.c_str());
        mnl_attr_put_u32(request, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
        return netlink.Request(
            *request, [&](const nlmsghdr& message) { DecodeNamedCounter(message, counters); });
    });
    RequirePresent(counters, ScanCounter::kNew, ScanCounter::kForward);
    return counters;
}

void ReadTrafficCounters(Netlink& netlink, const std::string& table, ScanCounters& counters)
{
    for (const char* chain : {kCountToPortChain, kCountFromPortChain}) {
        ReadChain(netlink, table, chain, counters);
    }
    RequirePresent(counters, ScanCounter::kForward, ScanCounter::kCount);
}

std::uint64_t CountHalfOpen(Netlink& netlink, const std::string& table)
{
    const SetCounts counts = ReadSetCounts(netlink, table);
    return CountElementsOf(netlink, table, kHalfOpenIpv4, counts.ipv4) +
           CountElementsOf(netlink, table, kHalfOpenIpv6, counts.ipv6);
}

void DecodeNamedCounter(const nlmsghdr& message, ScanCounters& counters)
{
    if (!IsNft(message, NFT_MSG_NEWOBJ)) {
        return;
    }
    const Attributes object(message, sizeof(nfgenmsg));
    const auto name = DecodeString(object.Find(NFTA_OBJ_NAME));
    const auto known = std::find(kScanCounterNames.begin(), kScanCounterNames.end(), name);
    if (known == kScanCounterNames.end()) {
        return;
    }
    const auto counts = DecodeCounter(object.Find(NFTA_OBJ_DATA));
    if (!counts) {
        throw Error(-EPROTO);
    }
    counters.values[known - kScanCounterNames.begin()] = {counts->packets, counts->bytes, true};
}

void DecodeTrafficCounter(const nlmsghdr& message, ScanCounters& counters)
{
    if (!IsNft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto counts = DecodeRuleCounter(rule);
    const auto chain = DecodeString(rule.Find(NFTA_RULE_CHAIN));
    if (counts && chain == kCountToPortChain) {
        counters[ScanCounter::kForward] = {counts->packets, counts->bytes, true};
    } else if (counts && chain == kCountFromPortChain) {
        counters[ScanCounter::kBackward] = {counts->packets, counts->bytes, true};
    }
}

std::uint64_t CountElements(const nlmsghdr& message)
{
    if (!IsNft(message, NFT_MSG_NEWSETELEM)) {
        return 0;
    }
    const nlattr* list = Attributes(message, sizeof(nfgenmsg)).Find(NFTA_SET_ELEM_LIST_ELEMENTS);
    if (!list) {
        return 0;  // an empty set
    }
    std::uint64_t elements = 0;
    for (const nlattr& attribute : Attributes(*list)) {
        elements += mnl_attr_get_type(&attribute) == NFTA_LIST_ELEM;
    }
    return elements;
}

}  // namespace vxi
