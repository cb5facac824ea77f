// What the text dumps cannot read from a record: who filled it, from which source, and
// what its slots are called.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vxi {

enum class Table : unsigned { statistics, conntrack, blacklist, conn_states };
inline constexpr unsigned table_count = 4;

// What has slots with names: the areas of a statistics record, and the sets of a blacklist by
// their index.
enum class Area : unsigned { statistics1, statistics2, statistics3, blacklist_sets };

struct SlotNames {
    std::vector<std::string> names;  // by slot; empty for a slot without a name
    unsigned dropped = 0;            // items that found no slot
};

// An engine sets the names of an area before it first fills it, and again when they
// change. `engine` lives for the process. Any thread; a dump that is running keeps the
// names it started with.
void set_slot_names(const char* engine, Area area, SlotNames names);

// Null where none were set.
std::shared_ptr<const SlotNames> slot_names(const char* engine, Area area);

// An engine tells, while it serves a table, where the table came from and what is missing
// in it ("/proc/net/snmp", "ctnetlink, incomplete: interrupted 5 times"). Kept by thread:
// a record is rendered on the thread that fetched it.
void note_source(Table table, const char* format, ...) __attribute__((format(printf, 2, 3)));

struct Source {
    const char* engine = nullptr;  // null before this thread's first fetch of the table
    char text[160] = "";
};

// Dispatch: this thread is about to fetch the table through the engine.
void begin_fetch(Table table, const char* engine);

const Source& last_source(Table table);

}  // namespace vxi
