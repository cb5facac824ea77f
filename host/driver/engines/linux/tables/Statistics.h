// The statistics record: which of the kernel's counters is in which slot.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engines/linux/proc/ProcTables.h"
#include "records/PublishedNames.h"

namespace vxi {

// Gives the items of one area their slots. Every part of an area begins at a fixed slot, so that a
// counter keeps its place while another part grows.
class AreaWriter {
public:
    AreaWriter(std::uint64_t* slots, unsigned count);

    // Puts items from slot `first` on; those that do not fit before `end` wait for Finish.
    void Put(unsigned first, unsigned end, ProcItems found);
    // The same, but items that do not fit are dropped.
    void PutOrDrop(unsigned first, unsigned end, ProcItems found);
    void PutOne(unsigned slot, const char* name, std::uint64_t value);
    void Drop(std::uint64_t items) { m_names.dropped += static_cast<unsigned>(items); }

    // Puts the waiting items into slots that are still free and drops the rest.
    NumberedNames Finish();

private:
    std::uint64_t* m_slots;
    unsigned m_count;
    NumberedNames m_names;
    std::vector<ProcItem> m_waiting;
};

struct StatisticsNames {
    NumberedNames areas[3];
    std::string source;   // where the values come from and what is missing, for users
    unsigned tables = 0;  // files that could be read
};

// Fills the areas from the tables in the directory `net` and the settings in `netfilter` (both end
// in "/"), from nf_tables and from this process's scan monitoring.
struct StatisticsDirectories {
    std::string net = "/proc/thread-self/net/";
    std::string netfilter = "/proc/sys/net/netfilter/";
};
StatisticsNames FillStatistics(const StatisticsDirectories& directories, std::uint64_t* area1,
                               std::uint64_t* area2, std::uint64_t* area3);

}  // namespace vxi
