// Fail-open decision.

#include "FailOpen.h"

namespace fc {

bool MustStayInFailOpen(const FailOpenState& state, std::uint64_t now_us,
                        std::uint64_t minimum_minutes)
{
    constexpr std::uint64_t kUsPerMinute = 60000000;
    return state.activated && now_us - state.activated_us < minimum_minutes * kUsPerMinute;
}

FailOpenDecision DecideFailOpen(const FailOpenState& state, std::uint64_t now_us,
                                std::uint64_t minimum_minutes, int metrics_over)
{
    if (MustStayInFailOpen(state, now_us, minimum_minutes))
        return {kActionFailOpen, true, state.activated_us};
    // The minimum time is over: fail-open ends whatever the metrics are, and may begin again in the
    // next cycle. The status line still shows this cycle in fail-open: the script leaves it after
    // it has received the action.
    if (state.activated) return {kActionNormal, true, state.activated_us};
    if (metrics_over > 0) return {kActionFailOpen, true, now_us};
    return {kActionNormal, false, state.activated_us};
}

}  // namespace fc
