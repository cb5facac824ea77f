// What the text dumps cannot read from a record: who filled it, from which source, and
// what its slots are called.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vxi/records.h"

namespace vxi {

enum class Table : unsigned { kStatistics, kConntrack, kBlacklist, kConnStates };
inline constexpr unsigned kTableCount = 4;

// What has slots with names: the areas of a statistics record, the sets of a blacklist by their
// index, and the sets that were left out of it, each with the reason.
enum class Area : unsigned {
    kStatistics1,
    kStatistics2,
    kStatistics3,
    kBlacklistSets,
    kBlacklistSkipped
};

struct SlotNames {
    std::vector<std::string> names;  // by slot; empty for a slot without a name
    unsigned dropped = 0;            // items that found no slot
};

// An engine sets the names of an area before it first fills it, and again when they
// change. `engine` lives for the process. Any thread; a dump that is running keeps the
// names it started with.
void SetSlotNames(const char* engine, Area area, SlotNames names);

// Null where none were set.
std::shared_ptr<const SlotNames> SlotNamesOf(const char* engine, Area area);

// An engine tells, while it serves a table, where the table came from and what is missing
// in it ("/proc/net/snmp", "ctnetlink, incomplete: interrupted 5 times"). Kept by thread:
// a record is rendered on the thread that fetched it.
void NoteSource(Table table, const char* format, ...) __attribute__((format(printf, 2, 3)));

// What a row of the connection table shows and its entry has no room for.
struct FlowDetail {
    std::uint32_t index;    // of the entry in its section
    std::uint16_t zone;     // of connection tracking; 0: the default
    const char* zone_name;  // "zone", or "zone-orig" or "zone-reply" for that of one direction
    bool translated;        // what follows is set: the entry's two ends after translation
    std::uint8_t source[16];
    std::uint8_t destination[16];
    std::uint8_t source_port[2];
    std::uint8_t destination_port[2];
};

using FlowDetails = std::vector<FlowDetail>;  // by index

// An engine hands them over when it has filled a section. Kept by thread like the source, and for
// this section in this place; a later fill of the same protocol replaces them.
void NoteFlowDetails(const vxa_dump_conntrack_s& section, FlowDetails details);

// Those of a section that this thread filled; empty for any other.
const FlowDetails& FlowDetailsOf(const vxa_dump_conntrack_s& section);

struct Source {
    const char* engine = nullptr;  // null before this thread's first fetch of the table
    char text[160] = "";
};

// Dispatch: this thread is about to fetch the table through the engine.
void begin_fetch(Table table, const char* engine);

const Source& LastSource(Table table);

}  // namespace vxi
