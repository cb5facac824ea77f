// Rule profiling: what every rule has counted since the switch (variable 62) became 1.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/Outcome.h"

namespace vxi {

// The kernel numbers the rules of each table by itself.
struct RuleKey {
    uint8_t family;
    std::string table;
    uint64_t handle;

    bool operator<(const RuleKey& other) const
    {
        return std::tie(family, table, handle) < std::tie(other.family, other.table, other.handle);
    }
};

struct RuleCount {
    std::string chain;
    uint64_t packets;
    uint64_t bytes;
};

using RuleCounts = std::map<RuleKey, RuleCount>;

// Adds the rule in one message of a dump of rules, if it has a counter of its own; of
// several the first.
void take_rule(const nlmsghdr& message, RuleCounts& counts);

// All rules that count, of every family; 0 or a negated errno.
int read_rule_counts(Netlink& netlink, RuleCounts& counts);

// What the rules counted from `before` to `now`. A rule that is new has counted all it shows;
// so has one whose counter was set back.
RuleCounts counted_since(const RuleCounts& before, const RuleCounts& now);

// {"profile": {"milliseconds": N, "rules": [{"family": .., "table": .., "chain": ..,
// "handle": N, "packets": N, "bytes": N}, ..]}}, every rule that counts.
std::string profile_json(const RuleCounts& counted, uint64_t milliseconds);

// Puts one more object at the end of the array in a listing of libnftables; false when the
// listing does not end like one.
bool append_object(std::string& listing, const std::string& object);

// The switch, and what was counted when it was set. One for the process; safe from any
// thread.
class RuleProfiler {
public:
    // `inherited` is the parent's after a fork: never used, because a thread of the parent
    // may have been changing it.
    explicit RuleProfiler(const RuleProfiler* inherited) : inherited_(inherited) {}

    // 1 remembers the counts of this moment; any other value ends the profile.
    Outcome set(uint32_t value);
    uint32_t value() const;

    // The listing, with the profile in it while the switch is 1 and rules of the same
    // network namespace are asked for.
    Outcome report(std::string& json) const;

private:
    Outcome profile(std::string& object) const;

    const RuleProfiler* const inherited_;
    mutable std::mutex mutex_;  // guards everything below
    uint32_t value_ = 0;
    RuleCounts before_;
    uint64_t namespace_ = 0;
    std::chrono::steady_clock::time_point since_;
};

// The child of a fork gets one of its own, switched off.
RuleProfiler& process_rule_profiler();

}  // namespace vxi
