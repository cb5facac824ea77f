#include "engines/linux/scan/ScanCounters.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>
#include <optional>

#include "engines/linux/netlink/NftDump.h"

namespace vxi {

namespace {

constexpr size_t request_size = 512;  // two names and a number

// Newer than the headers: NFTA_SET_COUNT, Linux 6.16.
constexpr uint16_t set_count_attribute = 20;

// The kernel lists a set in pieces and walks it from the start for each: 60000 elements take a
// tenth of a second. Beyond this many its own number must do. That has those, too, that left within
// the last second, so the closed ones among them are counted a second later.
constexpr uint32_t listed_max = 16384;

// Elements of the two sets by the kernel's own number; empty where it gives none.
struct SetCounts {
    std::optional<uint32_t> v4;
    std::optional<uint32_t> v6;
};

int read_set_counts(Netlink& netlink, const std::string& table, SetCounts& counts)
{
    return retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[request_size];
        nlmsghdr* request = nft_request(buffer, NFT_MSG_GETSET, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_SET_TABLE, table.c_str());
        return netlink.request(*request, [&](const nlmsghdr& message) {
            const Attributes set(message, sizeof(nfgenmsg));
            const bool is_v4 = text_of(set.find(NFTA_SET_NAME)) == half_open_set_v4;
            (is_v4 ? counts.v4 : counts.v6) = be32_of(set.find(set_count_attribute));
            return 0;
        });
    });
}

int count_elements(Netlink& netlink, const std::string& table, const char* set,
                   std::optional<uint32_t> known, uint64_t& elements)
{
    if (known && (*known == 0 || *known > listed_max)) {
        elements = *known;
        return 0;
    }
    return retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[request_size];
        nlmsghdr* request = nft_request(buffer, NFT_MSG_GETSETELEM, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_SET_ELEM_LIST_SET, set);
        elements = 0;
        return netlink.request(*request, [&](const nlmsghdr& message) {
            elements += elements_in(message);
            return 0;
        });
    });
}

int read_chain(Netlink& netlink, const std::string& table, const char* chain,
               ScanCounterValues& values)
{
    return retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[request_size];
        nlmsghdr* request = nft_request(buffer, NFT_MSG_GETRULE, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_RULE_TABLE, table.c_str());
        mnl_attr_put_strz(request, NFTA_RULE_CHAIN, chain);
        return netlink.request(*request, [&](const nlmsghdr& message) {
            take_chain(message, values);
            return 0;
        });
    });
}

bool any_fell(const ScanCounterValues& earlier, const ScanCounterValues& later)
{
    return !std::equal(
        earlier.values.begin(), earlier.values.end(), later.values.begin(),
        [](const auto& was, const auto& is) { return !is.present || was.packets <= is.packets; });
}

int64_t closed_since_start(const ScanCounterValues& before, uint64_t half_open,
                           const ScanCounterValues& after)
{
    return static_cast<int64_t>(before[ScanCounter::New].packets -
                                after[ScanCounter::Established].packets - half_open);
}

}  // namespace

bool ScanCounterValues::complete(ScanCounter first, ScanCounter end) const
{
    return std::all_of(values.begin() + static_cast<ptrdiff_t>(first),
                       values.begin() + static_cast<ptrdiff_t>(end),
                       [](const Value& value) { return value.present; });
}

int take_counter(const nlmsghdr& message, ScanCounterValues& values)
{
    if (!is_nft(message, NFT_MSG_NEWOBJ)) {
        return 0;
    }
    const Attributes object(message, sizeof(nfgenmsg));
    const auto name = text_of(object.find(NFTA_OBJ_NAME));
    const auto known = std::find(scan_counter_names.begin(), scan_counter_names.end(), name);
    if (known == scan_counter_names.end()) {
        return 0;
    }
    const auto counts = counts_of(object.find(NFTA_OBJ_DATA));
    if (!counts) {
        return -EPROTO;
    }
    values.values[known - scan_counter_names.begin()] = {counts->packets, counts->bytes, true};
    return 0;
}

void take_chain(const nlmsghdr& message, ScanCounterValues& values)
{
    if (!is_nft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto counts = rule_counts(rule);
    const auto chain = text_of(rule.find(NFTA_RULE_CHAIN));
    if (counts && (chain == scan_forward_chain || chain == scan_backward_chain)) {
        const auto counter =
            chain == scan_forward_chain ? ScanCounter::Forward : ScanCounter::Backward;
        values.values[static_cast<size_t>(counter)] = {counts->packets, counts->bytes, true};
    }
}

uint64_t elements_in(const nlmsghdr& message)
{
    if (!is_nft(message, NFT_MSG_NEWSETELEM)) {
        return 0;
    }
    const nlattr* list = Attributes(message, sizeof(nfgenmsg)).find(NFTA_SET_ELEM_LIST_ELEMENTS);
    if (!list) {
        return 0;  // an empty set
    }
    uint64_t elements = 0;
    for (const nlattr& attribute : Attributes(*list)) {
        elements += mnl_attr_get_type(&attribute) == NFTA_LIST_ELEM;
    }
    return elements;
}

int read_scan_counters(Netlink& netlink, const std::string& table, ScanCounterValues& values)
{
    const int status = retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[request_size];
        nlmsghdr* request = nft_request(buffer, NFT_MSG_GETOBJ, NLM_F_DUMP);
        mnl_attr_put_strz(request, NFTA_OBJ_TABLE, table.c_str());
        mnl_attr_put_u32(request, NFTA_OBJ_TYPE, htonl(NFT_OBJECT_COUNTER));
        return netlink.request(
            *request, [&](const nlmsghdr& message) { return take_counter(message, values); });
    });
    // A dump of a table that is gone is an empty one.
    const bool complete = values.complete(ScanCounter::New, ScanCounter::Forward);
    return status == 0 && !complete ? -ENOENT : status;
}

int read_scan_traffic(Netlink& netlink, const std::string& table, ScanCounterValues& values)
{
    int status = 0;
    for (const char* chain : {scan_forward_chain, scan_backward_chain}) {
        if (status == 0) {
            status = read_chain(netlink, table, chain, values);
        }
    }
    const bool complete = values.complete(ScanCounter::Forward, ScanCounter::Count);
    return status == 0 && !complete ? -ENOENT : status;
}

int count_half_open(Netlink& netlink, const std::string& table, uint64_t& half_open)
{
    SetCounts known;
    uint64_t v4 = 0;
    uint64_t v6 = 0;
    int status = read_set_counts(netlink, table, known);
    if (status == 0) {
        status = count_elements(netlink, table, half_open_set_v4, known.v4, v4);
    }
    if (status == 0) {
        status = count_elements(netlink, table, half_open_set_v6, known.v6, v6);
    }
    half_open = v4 + v6;
    return status;
}

uint64_t HalfOpenClosed::update(const ScanCounterValues& before, uint64_t half_open,
                                const ScanCounterValues& after)
{
    const bool restarted = any_fell(last_, before) || any_fell(before, after);
    last_ = after;
    if (restarted) {
        offset_ = closed_since_start(after, half_open, after);
        closed_ = 0;
        return closed_;
    }
    const int64_t closed = closed_since_start(before, half_open, after) - offset_;
    closed_ = std::max(closed_, static_cast<uint64_t>(std::max<int64_t>(closed, 0)));
    return closed_;
}

void scan_figures(const ScanCounterValues& values, uint64_t half_open_closed,
                  uint64_t (&figures)[VXI_SCAN_COUNTERS])
{
    const auto packets = [&](ScanCounter counter) { return values[counter].packets; };
    figures[VXI_SCAN_NEW] = packets(ScanCounter::New);
    figures[VXI_SCAN_CLOSED] = packets(ScanCounter::Finished) + packets(ScanCounter::Refused) +
                               packets(ScanCounter::Reset);
    figures[VXI_SCAN_ESTABLISHED] = packets(ScanCounter::Established);
    figures[VXI_SCAN_HALF_OPEN_CLOSED] = half_open_closed;
    figures[VXI_SCAN_RESET] = packets(ScanCounter::Reset);
    figures[VXI_SCAN_SYN_RETRANSMITTED] = packets(ScanCounter::Retransmitted);
    figures[VXI_SCAN_BYTES_FORWARD] = values[ScanCounter::Forward].bytes;
    figures[VXI_SCAN_BYTES_BACKWARD] = values[ScanCounter::Backward].bytes;
    figures[VXI_SCAN_PACKETS_FORWARD] = packets(ScanCounter::Forward);
    figures[VXI_SCAN_PACKETS_BACKWARD] = packets(ScanCounter::Backward);
}

}  // namespace vxi
