// The simulated machine's tables at one tick. All are computed from one view, so they agree.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "engines/sim/Machine.h"
#include "engines/sim/World.h"
#include "records/ScanTarget.h"

namespace vxi::sim {

inline constexpr const char* kEngineName = "sim";

struct View {
    std::shared_ptr<const World> world;
    std::uint64_t tick = 0;
    Counters counters{};
    std::uint64_t uncounted = 0;         // connections that are in no counter
    std::uint64_t uncounted_unread = 0;  // of these, since the counters were last read
    ScanTarget target;
    std::uint32_t rule_profiling = 0;  // variable 62
    std::uint64_t profiled_since = 0;  // tick at which it became 1
};

void PublishStatisticsNames();
void FillStatistics(const View& view, vxa_stats_v2_s& stats);
void FillConnStates(const View& view, vxa_get_conn_states_s& states);
std::uint32_t VariableValue(const View& view, int trace_level, std::uint32_t number);

// The rules with their counters as JSON, in the form of "nft -j list ruleset".
std::string RuleProfile(const View& view);

}  // namespace vxi::sim
