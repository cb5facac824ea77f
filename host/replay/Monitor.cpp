// What the module and the filter script do with a policy, cycle by cycle.
#include "Monitor.h"

#include <utility>

namespace replay {

namespace {

constexpr std::uint32_t RateMetrics()
{
    std::uint32_t rates = 0;
    for (const auto& metric : kMetrics) rates |= (metric.is_rate ? 1u : 0u) << metric.metric;
    return rates;
}

constexpr std::uint32_t kRates = RateMetrics();

int Count(std::uint32_t metrics)
{
    return __builtin_popcount(metrics);
}

}  // namespace

std::uint32_t MetricsOver(const Policy& policy, const Row& row)
{
    std::uint32_t over = 0;
    const std::uint32_t judged = policy.judged & row.known;
    for (const auto& metric : kMetrics) {
        const fc::Metric m = metric.metric;
        if ((judged >> m & 1) != 0 &&
            fc::IsBeyond(row.values[m], policy.thresholds[m], metric.direction, 1.0))
            over |= 1u << m;
    }
    return over;
}

void Monitor::Restart()
{
    *this = Monitor(m_policy);
}

int Monitor::Cycle(const Row& row)
{
    m_held = false;
    if (!m_policy.monitors) return fc::kActionDisabled;
    const bool rates_are_doubtful = std::exchange(m_missedCounters, MissesCounters(row));
    if (!row.IsMeasured()) return row.action;
    m_over = MetricsOver(m_policy, row);
    const auto decision =
        fc::DecideFailOpen(m_state, row.time_us, m_policy.minimum_minutes, Count(m_over));
    m_state.activated_us = decision.activated_us;
    ChangeState(decision.action, rates_are_doubtful);
    return decision.action;
}

// Whether the driver's counters were not read in this cycle. The first time that they are, there is
// no rate either.
bool Monitor::MissesCounters(const Row& row)
{
    const bool has_rates = (row.known & kRates) != 0;
    m_hasHadRates = m_hasHadRates || has_rates;
    return !row.IsMeasured() || row.count_failed || (m_hasHadRates && !has_rates);
}

// The filter script's part. After a cycle that did not read the driver's counters, the rates are
// calculated from the growth of several intervals, and fail-open is not entered because of them
// alone.
void Monitor::ChangeState(int action, bool rates_are_doubtful)
{
    if (m_state.activated) {
        m_state.activated = action == fc::kActionFailOpen;
    } else if (action == fc::kActionFailOpen) {
        m_held = rates_are_doubtful && (m_over & ~kRates) == 0;
        m_state.activated = !m_held;
    }
}

}  // namespace replay
