// The simulated machine's load over time and the traffic counters that result.
#pragma once

#include <array>
#include <cstdint>

#include "engines/sim/Settings.h"
#include "vxi/engine.h"

namespace vxi::sim {

// Load per CPU at one tick.
struct Load {
    double run_queue;
    double new_per_s;         // connections opened
    double refused_fraction;  // of those
    double bytes_per_s;
    double free_memory_fraction;
};

// By VXI_SCAN_*.
using Counters = std::array<std::uint64_t, VXI_SCAN_COUNTERS>;

// The position of a tick on the timeline.
struct Moment {
    Phase phase;
    std::uint64_t tick;  // since the phase began
};

Moment MomentAt(const Settings& settings, std::uint64_t tick);

// Whether the service's port is closed at that tick: every new connection is refused.
bool PortClosed(const Moment& moment);

// Whether the driver lost its counters just before that tick.
bool CountersRestart(const Settings& settings, const Moment& moment);

// Adds one tick's traffic.
void AddTraffic(const Settings& settings, std::uint64_t tick, Counters& counters);

vxi_sim_machine_s MachineAt(const Settings& settings, std::uint64_t tick);

}  // namespace vxi::sim
