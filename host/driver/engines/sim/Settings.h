// The settings of the simulated machine, see README.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
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
    std::uint64_t port = 0;  // 0: whichever port is monitored has the traffic
    std::uint64_t cpus = 4;
    std::uint64_t memory_mb = 8192;
    std::uint64_t interval_s = 1;  // simulated seconds a tick
    std::uint64_t restart_ticks = 10;
    std::uint64_t flows = 200;
    std::uint64_t blacklist = 20;
    std::uint64_t rules = 20;
};

struct SettingsError {
    std::size_t position = 0;
    std::string expected;
};

// "key=value,…"; false with the offending character's offset for a text that cannot be
// read. Settings that are not named keep what they are.
bool read_settings(std::string_view text, Settings& settings, SettingsError& error);

}  // namespace vxi::sim
