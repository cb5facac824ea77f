// What the module and the filter script do with a policy, cycle by cycle.
#pragma once

#include <cstdint>

#include "Policy.h"
#include "RecordReader.h"
#include "SystemHealth/FailOpen.h"

namespace replay {

// Returns the metrics beyond their thresholds: bits 1 << fc::Metric. A value that is not known is
// not judged.
std::uint32_t MetricsOver(const Policy& policy, const Row& row);

class Monitor {
public:
    explicit Monitor(const Policy& policy) : m_policy(policy) {}

    // The run was started again.
    void Restart();

    // Returns the action of a cycle that samples what the row has.
    int Cycle(const Row& row);

    const Policy& GetPolicy() const { return m_policy; }
    bool IsActivated() const { return m_state.activated; }  // after the last cycle

    // The metrics beyond their thresholds in the last measured cycle.
    std::uint32_t Over() const { return m_over; }
    // Whether the last cycle did not enter fail-open only because its rates span several intervals.
    bool WasHeld() const { return m_held; }

private:
    bool MissesCounters(const Row& row);
    void ChangeState(int action, bool rates_are_doubtful);

    Policy m_policy;
    fc::FailOpenState m_state{};
    std::uint32_t m_over = 0;
    bool m_hasHadRates = false;
    bool m_missedCounters = false;
    bool m_held = false;
};

}  // namespace replay
