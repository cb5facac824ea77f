// Collects flows and truncates them to what fits in a section.
#include "engines/linux/tables/FlowSnapshot.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "records/FlowShares.h"

namespace vxi {

void FlowList::Add(const vxa_conntrack_entry_s& entry, const std::optional<FlowDetail>& detail)
{
    if (entries.size() < kFlowsMax) {
        if (detail) {
            details.push_back(*detail);
            details.back().index = static_cast<std::uint32_t>(entries.size());
        }
        entries.push_back(entry);
    }
    ++total;
}

void FlowList::Append(const FlowList& other)
{
    const std::size_t taken = std::min(other.entries.size(), kFlowsMax - entries.size());
    entries.insert(entries.end(), other.entries.begin(),
                   other.entries.begin() + static_cast<std::ptrdiff_t>(taken));
    total += other.total;
}

FlowList* FlowSnapshot::Find(std::uint8_t protocol)
{
    switch (protocol) {
        case IPPROTO_UDP:
            return &udp;
        case IPPROTO_TCP:
            return &tcp;
        default:
            return nullptr;
    }
}

std::uint16_t FlowSnapshot::Offer()
{
    const FlowShares shares = ShareFlowTable(udp.total, tcp.total);
    udp.entries.resize(shares.udp);
    tcp.entries.resize(shares.tcp);
    udp.fetched = false;
    tcp.fetched = false;
    return static_cast<std::uint16_t>(shares.udp + shares.tcp);
}

bool FetchFlows(FlowSnapshot& snapshot, vxa_dump_conntrack_s& section)
{
    FlowList* const list = snapshot.Find(section.protocol);
    if (!list || list->fetched) {
        return false;
    }
    const std::size_t count = std::min<std::size_t>(section.entry_ct, list->entries.size());
    if (count > 0) {
        memcpy(&section + 1, list->entries.data(), count * sizeof(vxa_conntrack_entry_s));
    }
    section.entry_ct = static_cast<std::uint16_t>(count);
    section.total = list->total;
    SetFlowDetails(section, std::move(list->details));
    *list = {};
    return true;
}

}  // namespace vxi
