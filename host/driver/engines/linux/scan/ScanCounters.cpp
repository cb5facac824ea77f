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

// Newer than the headers: NFTA_SET_COUNT, Linux 6.16.
constexpr std::uint16_t kSetCountAttribute = 20;

// The kernel lists a set in pieces and walks it from the start for each: 60000 elements take a
// tenth of a second. Beyond this many its own number must do. That has those, too, that left within
// the last second, so the closed ones among them are counted a second later.
constexpr std::uint32_t kListedMax = 16384;

// Elements of the two sets by the kernel's own number; empty where it gives none.
struct SetCounts {
    std::optional<std::uint32_t> v4;
    std::optional<std::uint32_t> v6;
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
            const bool is_v4 = DecodeString(set.Find(NFTA_SET_NAME)) == kHalfOpenSetV4;
            (is_v4 ? counts.v4 : counts.v6) = DecodeBe32(set.Find(kSetCountAttribute));
        });
    });
    return counts;
}

std::uint64_t CountElements(Netlink& netlink, const std::string& table, const char* set,
                            std::optional<std::uint32_t> known)
{
    if (known && (*known == 0 || *known > kListedMax)) {
        return *known;
    }
    std::uint64_t elements = 0;
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETSETELEM, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set);
        elements = 0;
        return netlink.Request(*request,
                               [&](const nlmsghdr& message) { elements += ElementsIn(message); });
    });
    return elements;
}

void ReadChain(Netlink& netlink, const std::string& table, const char* chain,
               ScanCounterValues& values)
{
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETRULE, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_RULE_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_RULE_CHAIN, chain);
        return netlink.Request(*request,
                               [&](const nlmsghdr& message) { TakeChain(message, values); });
    });
}

bool AnyFell(const ScanCounterValues& earlier, const ScanCounterValues& later)
{
    return !std::equal(
        earlier.values.begin(), earlier.values.end(), later.values.begin(),
        [](const auto& was, const auto& is) { return !is.present || was.packets <= is.packets; });
}

// A dump of a table that is gone is an empty one.
void RequireComplete(const ScanCounterValues& values, ScanCounter first, ScanCounter end)
{
    if (!values.Complete(first, end)) {
        throw Error(-ENOENT, "No such file or directory");
    }
}

std::int64_t ClosedSinceStart(const ScanCounterValues& before, std::uint64_t half_open,
                              const ScanCounterValues& after)
{
    return static_cast<std::int64_t>(before[ScanCounter::kNew].packets -
                                     after[ScanCounter::kEstablished].packets - half_open);
}

}  // namespace

bool ScanCounterValues::Complete(ScanCounter first, ScanCounter end) const
{
    return std::all_of(values.begin() + static_cast<std::ptrdiff_t>(first),
                       values.begin() + static_cast<std::ptrdiff_t>(end),
                       [](const Value& value) { return value.present; });
}

void TakeCounter(const nlmsghdr& message, ScanCounterValues& values)
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
        throw Error(-EPROTO, "Protocol error");
    }
    values.values[known - kScanCounterNames.begin()] = {counts->packets, counts->bytes, true};
}

void TakeChain(const nlmsghdr& message, ScanCounterValues& values)
{
    if (!IsNft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto counts = DecodeRuleCounter(rule);
    const auto chain = DecodeString(rule.Find(NFTA_RULE_CHAIN));
    if (counts && (chain == kScanForwardChain || chain == kScanBackwardChain)) {
        const auto counter =
            chain == kScanForwardChain ? ScanCounter::kForward : ScanCounter::kBackward;
        values.values[static_cast<std::size_t>(counter)] = {counts->packets, counts->bytes, true};
    }
}

std::uint64_t ElementsIn(const nlmsghdr& message)
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

void ReadScanCounters(Netlink& netlink, const std::string& table, ScanCounterValues& values)
{
    DumpConsistently([&] {
        alignas(nlmsghdr) char buffer[kRequestSize];
        nlmsghdr* request = PutNftRequest(buffer, NFT_MSG_GETOBJ, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_OBJ_TABLE, table.c_str());
        mnl_attr_put_u32(request, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
        return netlink.Request(*request,
                               [&](const nlmsghdr& message) { TakeCounter(message, values); });
    });
    RequireComplete(values, ScanCounter::kNew, ScanCounter::kForward);
}

void ReadScanTraffic(Netlink& netlink, const std::string& table, ScanCounterValues& values)
{
    for (const char* chain : {kScanForwardChain, kScanBackwardChain}) {
        ReadChain(netlink, table, chain, values);
    }
    RequireComplete(values, ScanCounter::kForward, ScanCounter::kCount);
}

std::uint64_t CountHalfOpen(Netlink& netlink, const std::string& table)
{
    const SetCounts known = ReadSetCounts(netlink, table);
    return CountElements(netlink, table, kHalfOpenSetV4, known.v4) +
           CountElements(netlink, table, kHalfOpenSetV6, known.v6);
}

std::uint64_t HalfOpenClosed::Update(const ScanCounterValues& before, std::uint64_t half_open,
                                     const ScanCounterValues& after)
{
    const bool restarted = AnyFell(m_last, before) || AnyFell(before, after);
    m_last = after;
    if (restarted) {
        m_offset = ClosedSinceStart(after, half_open, after);
        m_closed = 0;
        return m_closed;
    }
    const std::int64_t closed = ClosedSinceStart(before, half_open, after) - m_offset;
    m_closed = std::max(m_closed, static_cast<std::uint64_t>(std::max<std::int64_t>(closed, 0)));
    return m_closed;
}

void ScanFigures(const ScanCounterValues& values, std::uint64_t half_open_closed,
                 std::uint64_t (&figures)[VXI_SCAN_COUNTERS])
{
    const auto packets = [&](ScanCounter counter) { return values[counter].packets; };
    figures[VXI_SCAN_NEW] = packets(ScanCounter::kNew);
    figures[VXI_SCAN_CLOSED] = packets(ScanCounter::kFinished) + packets(ScanCounter::kRefused) +
                               packets(ScanCounter::kReset);
    figures[VXI_SCAN_ESTABLISHED] = packets(ScanCounter::kEstablished);
    figures[VXI_SCAN_HALF_OPEN_CLOSED] = half_open_closed;
    figures[VXI_SCAN_RESET] = packets(ScanCounter::kReset);
    figures[VXI_SCAN_SYN_RETRANSMITTED] = packets(ScanCounter::kRetransmitted);
    figures[VXI_SCAN_BYTES_FORWARD] = values[ScanCounter::kForward].bytes;
    figures[VXI_SCAN_BYTES_BACKWARD] = values[ScanCounter::kBackward].bytes;
    figures[VXI_SCAN_PACKETS_FORWARD] = packets(ScanCounter::kForward);
    figures[VXI_SCAN_PACKETS_BACKWARD] = packets(ScanCounter::kBackward);
}

}  // namespace vxi
