// Names for what records refer to by number: statistics slots and blacklist sets.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace vxi {

enum class NameList : unsigned {
    kStatistics1,  // the areas of a statistics record, by slot
    kStatistics2,
    kStatistics3,
    kBlacklistSets,    // by set_index
    kBlacklistSkipped  // sets that were left out, each with the reason
};

struct NumberedNames {
    std::vector<std::string> names;  // empty for a number without a name
    unsigned dropped = 0;            // statistics items for which no slot was left
};

// An engine publishes a list before it first fills the records that refer to it, and again when it
// changes. `engine` lives for the process. Any thread; a dump that is running keeps the names it
// started with.
void PublishNames(const char* engine, NameList list, NumberedNames names);

// Null if none were published.
std::shared_ptr<const NumberedNames> PublishedNames(const char* engine, NameList list);

}  // namespace vxi
