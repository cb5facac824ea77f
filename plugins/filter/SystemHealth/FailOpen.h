// The fail-open decision alone: no clock, no I/O, no Lua.
#pragma once

#include <cstdint>

namespace fc {

// What the script is told to do.
enum Action {
    kActionNormal = 0,    // out of fail-open
    kActionFailOpen = 1,  // in fail-open
    kActionDisabled = 2,  // nothing to monitor
    kActionNoLoad = 5,    // run queue or processor count not collected
    kActionBadCall = 6,   // wrong arguments
    kActionNoMemory = 7   // memory figures not collected
};

struct FailOpenState {
    bool activated;              // as the script holds it
    std::uint64_t activated_us;  // moment of the last transition into fail-open
};

struct FailOpenDecision {
    int action;
    bool end_activated;  // as the status line shows it
    std::uint64_t activated_us;
};

// Whether fail-open must still last, so that the thresholds need not be looked at.
// Differences are unsigned: a clock set back gives a huge one and ends fail-open.
bool MustStayInFailOpen(const FailOpenState& state, std::uint64_t now_us,
                        std::uint64_t minimum_minutes);

FailOpenDecision DecideFailOpen(const FailOpenState& state, std::uint64_t now_us,
                                std::uint64_t minimum_minutes, int metrics_over);

}  // namespace fc
