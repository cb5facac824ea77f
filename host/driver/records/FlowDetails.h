// Details of a flow that the connections dump shows but the record has no room for.
#pragma once

#include <cstdint>
#include <vector>

#include "vxi/records.h"

namespace vxi {

struct FlowDetail {
    std::uint32_t index;    // of the entry in its section
    std::uint16_t zone;     // conntrack zone; 0 is the default
    const char* zone_name;  // "zone"; "zone-orig" or "zone-reply" for the zone of one direction
    bool translated;        // the members below are set: both ends after address translation
    std::uint8_t source[16];
    std::uint8_t destination[16];
    std::uint8_t source_port[2];
    std::uint8_t destination_port[2];
};

using FlowDetails = std::vector<FlowDetail>;  // sorted by index

// Called by an engine that has filled a section. The details are kept per thread and belong to the
// section at this address; the next fill of the same protocol replaces them.
void SetFlowDetails(const vxa_dump_conntrack_s& section, FlowDetails details);

// The details of a section that this thread filled; empty for any other.
const FlowDetails& FindFlowDetails(const vxa_dump_conntrack_s& section);

}  // namespace vxi
