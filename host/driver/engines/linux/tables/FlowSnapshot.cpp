#include "engines/linux/tables/FlowSnapshot.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "api/FlowRoom.h"

namespace vxi {

void FlowList::add(const vxa_conntrack_entry_s& entry, const FlowDetail* detail)
{
    if (entries.size() < most_flows) {
        if (detail) {
            details.push_back(*detail);
            details.back().index = static_cast<uint32_t>(entries.size());
        }
        entries.push_back(entry);
    }
    ++total;
}

void FlowList::append(const FlowList& other)
{
    const size_t taken = std::min(other.entries.size(), most_flows - entries.size());
    entries.insert(entries.end(), other.entries.begin(),
                   other.entries.begin() + static_cast<ptrdiff_t>(taken));
    total += other.total;
}

FlowList* FlowSnapshot::of(uint8_t protocol)
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

uint16_t FlowSnapshot::offer()
{
    const FlowRoom room = share_flow_room(udp.total, tcp.total);
    udp.entries.resize(room.udp);
    tcp.entries.resize(room.tcp);
    udp.fetched = false;
    tcp.fetched = false;
    return static_cast<uint16_t>(room.udp + room.tcp);
}

bool fetch_flows(FlowSnapshot& snapshot, vxa_dump_conntrack_s& section)
{
    FlowList* const list = snapshot.of(section.protocol);
    if (!list || list->fetched) {
        return false;
    }
    const size_t count = std::min<size_t>(section.entry_ct, list->entries.size());
    if (count > 0) {
        memcpy(&section + 1, list->entries.data(), count * sizeof(vxa_conntrack_entry_s));
    }
    section.entry_ct = static_cast<uint16_t>(count);
    section.total = list->total;
    note_flow_details(section, std::move(list->details));
    *list = {};
    return true;
}

}  // namespace vxi
