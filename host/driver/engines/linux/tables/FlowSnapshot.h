// The flows that one count request found, from then on until they are fetched.
#pragma once

#include <cstdint>
#include <vector>

#include "api/Source.h"
#include "vxi/records.h"

namespace vxi {

// The flows of one protocol: all are counted, those that a section has room for are kept.
struct FlowList {
    std::vector<vxa_conntrack_entry_s> entries;
    FlowDetails details;  // of those entries that have some
    std::uint32_t total = 0;
    bool fetched = true;

    // `detail` may be null; its index is set here.
    void Add(const vxa_conntrack_entry_s& entry, const FlowDetail* detail = nullptr);
    void append(const FlowList& other);
};

struct FlowSnapshot {
    FlowList udp;
    FlowList tcp;
    std::uint64_t other_protocols = 0;
    std::uint64_t unreadable = 0;  // without what makes up a flow

    // Null for another protocol number than UDP's and TCP's.
    FlowList* Of(std::uint8_t protocol);

    // Cuts both lists to what one table can hold and offers them for fetching; returns how
    // many flows that are.
    std::uint16_t Offer();
};

// Serves a fill request from its list and frees that. False when there is nothing on offer.
bool FetchFlows(FlowSnapshot& snapshot, vxa_dump_conntrack_s& section);

}  // namespace vxi
