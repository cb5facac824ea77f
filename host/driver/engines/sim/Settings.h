// Settings of the simulated machine; README.md lists them.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vxi::sim {

enum class Scenario { kIdle, kBusy, kOverloaded, kRecovering, kClosing, kRestarting };

struct Phase {
    Scenario scenario;
    std::uint64_t ticks;
};

inline constexpr std::uint64_t kDefaultPhaseTicks = 30;

struct Settings {
    std::uint64_t seed = 1;
    std::vector<Phase> timeline{{Scenario::kBusy, kDefaultPhaseTicks}};
    std::uint64_t port = 0;  // 0: the monitored port has the traffic
    std::uint64_t cpus = 4;
    std::uint64_t memory_mb = 8192;
    std::uint64_t interval_s = 1;  // simulated seconds per tick
    std::uint64_t restart_ticks = 10;
    std::uint64_t uncounted = 0;  // connections per tick that the counters have no room for
    std::uint64_t flows = 200;
    std::uint64_t blacklist = 20;
    std::uint64_t rules = 20;
};

// Reads "name=value,…"; what is not named has its default. Throws a ParseError.
Settings ParseSettings(std::string_view text);

}  // namespace vxi::sim
