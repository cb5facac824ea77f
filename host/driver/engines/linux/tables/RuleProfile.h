// Rule profile: what every rule has counted since the switch (variable 62) was set to 1.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>

#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// The kernel numbers the rules of each table separately.
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

// Adds the rule in one message of a dump of rules if it has a counter.
void AddRule(const nlmsghdr& message, RuleCounts& counts);

// What the rules counted from `before` to `now`. The counts of a new rule, and of one whose counter
// was reset in between, are taken as they are.
RuleCounts CountedSince(const RuleCounts& before, const RuleCounts& now);

// {"profile": {"milliseconds": N, "rules": [{"family": .., "table": .., "chain": ..,
// "handle": N, "packets": N, "bytes": N}, ..]}}
std::string ProfileJson(const RuleCounts& counted, std::uint64_t milliseconds);

// Adds one more object to the array in a listing of libnftables. Throws Error when the listing does
// not end like one.
void AppendObject(std::string& listing, const std::string& object);

// The switch, and what the rules had counted when it was set. One for the process; safe from any
// thread. Functions throw Error.
class RuleProfiler {
public:
    // `inherited` is the parent's profiler after a fork. It is kept for leak checkers, but not
    // used: a thread of the parent may have been changing it.
    explicit RuleProfiler(const RuleProfiler* inherited) : m_inherited(inherited) {}

    // 1 stores the current counts; any other value ends the profile.
    void Set(std::uint32_t value);
    std::uint32_t Value() const;

    // RulesetJson, and the profile as one more object in it while the switch is 1 and the thread
    // is in the network namespace in which it was set.
    std::string Report() const;

private:
    std::optional<std::string> Profile() const;

    [[maybe_unused]] const RuleProfiler* const m_inherited;
    mutable std::mutex m_mutex;  // guards everything below
    std::uint32_t m_value = 0;
    RuleCounts m_before;
    std::optional<std::uint64_t> m_namespace;
    std::chrono::steady_clock::time_point m_since;
};

// After a fork the child has its own, switched off.
RuleProfiler& ProcessRuleProfiler();

}  // namespace vxi
