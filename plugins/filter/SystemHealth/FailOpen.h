// Fail-open decision: pure functions without clock, I/O or Lua.
#pragma once

#include <cstdint>

namespace fc {

// Result of a cycle for the script.
enum Action {
    kActionNormal = 0,    // not in fail-open
    kActionFailOpen = 1,  // in fail-open
    kActionDisabled = 2,  // nothing to monitor
    kActionNoLoad = 5,    // run-queue length or processor count not collected
    kActionBadCall = 6,   // wrong arguments
    kActionNoMemory = 7   // memory values not collected
};

struct FailOpenState {
    bool activated;              // as passed by the script
    std::uint64_t activated_us;  // last transition into fail-open
};

struct FailOpenDecision {
    int action;
    bool end_activated;  // end state in the status line
    std::uint64_t activated_us;
};

// Returns whether the state is within its minimum time in fail-open, in which thresholds are not
// evaluated. Time differences are unsigned: a clock set back ends fail-open.
bool MustStayInFailOpen(const FailOpenState& state, std::uint64_t now_us,
                        std::uint64_t minimum_minutes);

FailOpenDecision DecideFailOpen(const FailOpenState& state, std::uint64_t now_us,
                                std::uint64_t minimum_minutes, int metrics_over);

}  // namespace fc
