// The flows that one count request found, kept until they are fetched.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "records/FlowDetails.h"
#include "vxi/records.h"

namespace vxi {

// The flows of one protocol: all are counted, as many as a section can hold are kept.
struct FlowList {
    std::vector<vxa_conntrack_entry_s> entries;
    FlowDetails details;  // only for entries that have some
    std::uint32_t total = 0;
    bool fetched = true;

    // The index of `detail` is set here.
    void Add(const vxa_conntrack_entry_s& entry, const std::optional<FlowDetail>& detail = {});
    void Append(const FlowList& other);
};

struct FlowSnapshot {
    FlowList udp;
    FlowList tcp;
    std::uint64_t other_protocols = 0;
    std::uint64_t unreadable = 0;  // entries without addresses, protocol or ports

    // The list of an IP protocol; null for any but UDP and TCP.
    FlowList* Find(std::uint8_t protocol);

    // Truncates both lists to what fits in one table and makes them ready to be fetched. Returns
    // how many flows they have.
    std::uint16_t Offer();
};

// Serves a fill request from its list, which is freed then. False when there is nothing to fetch.
bool FetchFlows(FlowSnapshot& snapshot, vxa_dump_conntrack_s& section);

}  // namespace vxi
