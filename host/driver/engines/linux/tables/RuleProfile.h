// Rule profiling: what every rule has counted since the switch (variable 62) became 1.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

#include "engines/linux/Outcome.h"
#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// The kernel numbers the rules of each table by itself.
struct RuleKey {
    std::uint8_t family;
    std::string table;
    std::uint64_t handle;

    bool operator<(const RuleKey& other) const
    {
        return std::tie(family, table, handle) < std::tie(other.family, other.table, other.handle);
    }
};

struct RuleCount {
    std::string chain;
    std::uint64_t packets;
    std::uint64_t bytes;
};

using RuleCounts = std::map<RuleKey, RuleCount>;

// Adds the rule in one message of a dump of rules, if it has a counter of its own; of
// several the first.
void TakeRule(const nlmsghdr& message, RuleCounts& counts);

// All rules that count, of every family; 0 or a negated errno.
int read_rule_counts(Netlink& netlink, RuleCounts& counts);

// What the rules counted from `before` to `now`. A rule that is new has counted all it shows;
// so has one whose counter was set back.
RuleCounts CountedSince(const RuleCounts& before, const RuleCounts& now);

// {"profile": {"milliseconds": N, "rules": [{"family": .., "table": .., "chain": ..,
// "handle": N, "packets": N, "bytes": N}, ..]}}, every rule that counts.
std::string ProfileJson(const RuleCounts& counted, std::uint64_t milliseconds);

// Puts one more object at the end of the array in a listing of libnftables; false when the
// listing does not end like one.
bool append_object(std::string& listing, const std::string& object);

// The switch, and what was counted when it was set. One for the process; safe from any
// thread.
class RuleProfiler {
public:
    // `inherited` is the parent's after a fork: never used, because a thread of the parent
    // may have been changing it.
    explicit RuleProfiler(const RuleProfiler* inherited) : m_inherited(inherited) {}

    // 1 remembers the counts of this moment; any other value ends the profile.
    Outcome Set(std::uint32_t value);
    std::uint32_t Value() const;

    // The listing, with the profile in it while the switch is 1 and rules of the same
    // network namespace are asked for.
    Outcome Report(std::string& json) const;

private:
    Outcome Profile(std::string& object) const;

    const RuleProfiler* const m_inherited;
    mutable std::mutex m_mutex;  // guards everything below
    std::uint32_t m_value = 0;
    RuleCounts m_before;
    std::uint64_t m_namespace = 0;
    std::chrono::steady_clock::time_point m_since;
};

// The child of a fork gets one of its own, switched off.
RuleProfiler& ProcessRuleProfiler();

}  // namespace vxi
