#include "engines/linux/ScanCounters.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <algorithm>
#include <cerrno>

namespace vxi {

namespace {

constexpr size_t request_size = 512;  // two names and a number

constexpr uint16_t nft_reply(uint16_t type)
{
    return NFNL_SUBSYS_NFTABLES << 8 | type;
}

int count_elements(Netlink& netlink, const std::string& table, const char* set, uint64_t& elements)
{
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

}  // namespace

bool ScanCounterValues::complete() const
{
    return std::all_of(values.begin(), values.end(), [](const Value& v) { return v.present; });
}

int take_counter(const nlmsghdr& message, ScanCounterValues& values)
{
    if (message.nlmsg_type != nft_reply(NFT_MSG_NEWOBJ)) {
        return 0;
    }
    const Attributes object(message, sizeof(nfgenmsg));
    const auto name = text_of(object.find(NFTA_OBJ_NAME));
    const auto known = std::find(scan_counter_names.begin(), scan_counter_names.end(), name);
    if (known == scan_counter_names.end()) {
        return 0;
    }
    const nlattr* data = object.find(NFTA_OBJ_DATA);
    if (!data) {
        return -EPROTO;
    }
    const auto packets = be64_of(Attributes(*data).find(NFTA_COUNTER_PACKETS));
    const auto bytes = be64_of(Attributes(*data).find(NFTA_COUNTER_BYTES));
    if (!packets || !bytes) {
        return -EPROTO;
    }
    values.values[known - scan_counter_names.begin()] = {*packets, *bytes, true};
    return 0;
}

uint64_t elements_in(const nlmsghdr& message)
{
    if (message.nlmsg_type != nft_reply(NFT_MSG_NEWSETELEM)) {
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
        values = {};
        return netlink.request(
            *request, [&](const nlmsghdr& message) { return take_counter(message, values); });
    });
    if (status < 0) {
        return status;
    }
    // A dump of a table that is gone is an empty one.
    return values.complete() ? 0 : -ENOENT;
}

int count_half_open(Netlink& netlink, const std::string& table, uint64_t& half_open)
{
    uint64_t v4 = 0;
    uint64_t v6 = 0;
    int status = count_elements(netlink, table, half_open_set_v4, v4);
    if (status == 0) {
        status = count_elements(netlink, table, half_open_set_v6, v6);
    }
    half_open = v4 + v6;
    return status;
}

uint64_t half_open_closed(const ScanCounterValues& before, uint64_t half_open,
                          const ScanCounterValues& after, uint64_t previous)
{
    const uint64_t opened = before[ScanCounter::New].packets;
    const uint64_t elsewhere = after[ScanCounter::Established].packets + half_open;
    return opened > elsewhere ? std::max(previous, opened - elsewhere) : previous;
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
