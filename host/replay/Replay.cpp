// Replays a record.
#include "Replay.h"

#include <algorithm>
#include <stdexcept>

namespace replay {

// ---- one policy ------------------------------------------------------------------------

// Returns null if the current stretch is not kept.
Stretch* Tracker::CurrentStretch()
{
    return m_outcome.entries <= Outcome::kMostStretches ? &m_outcome.stretches.back() : nullptr;
}

void Tracker::AddTime(std::uint64_t us)
{
    if (!m_activated) {
        m_outcome.enforced_us += us;
        return;
    }
    m_outcome.fail_open_us += us;
    m_lastedUs += us;
    m_outcome.longest_us = std::max(m_outcome.longest_us, m_lastedUs);
    if (Stretch* const stretch = CurrentStretch()) stretch->lasted_us = m_lastedUs;
}

void Tracker::SetState(const Row& row, bool activated, const Policy& policy, std::uint32_t over)
{
    if (activated && !m_activated) Enter(row, policy, over);
    if (!activated && m_activated) Leave(row.time_us, Stretch::End::kLeft);
}

void Tracker::Restart(std::uint64_t last_us)
{
    if (m_activated) Leave(last_us, Stretch::End::kRestart);
}

void Tracker::Enter(const Row& row, const Policy& policy, std::uint32_t over)
{
    m_activated = true;
    m_lastedUs = 0;
    ++m_outcome.entries;
    for (std::size_t metric = 0; metric < fc::kMetricCount; ++metric)
        m_outcome.causes[metric] += over >> metric & 1;
    if (m_outcome.entries <= Outcome::kMostStretches)
        m_outcome.stretches.push_back(
            {row.time_us, 0, 0, Stretch::End::kNone, over, row.values, policy.thresholds});
}

void Tracker::Leave(std::uint64_t time_us, Stretch::End end)
{
    m_activated = false;
    Stretch* const stretch = CurrentStretch();
    if (!stretch) return;
    stretch->left_us = time_us;
    stretch->end = end;
}

// ---- the record ------------------------------------------------------------------------

RecordReader::Event RecordFollower::Next()
{
    const auto event = m_reader.Next();
    switch (event) {
        case RecordReader::Event::kRestart:
            ++m_summary.starts;
            m_hasPrevious = false;
            break;
        case RecordReader::Event::kHeading:
            m_summary.heading = m_reader.Text();
            m_summary.interval_s = m_reader.IntervalS();
            break;
        case RecordReader::Event::kPolicy:
            m_summary.settings = m_reader.Text();
            break;
        case RecordReader::Event::kRow:
            CountRow();
            break;
        default:
            break;
    }
    return event;
}

Policy RecordFollower::RecordedPolicy() const
{
    try {
        return ParsePolicy(m_summary.settings);
    } catch (const std::runtime_error& error) {
        m_reader.Fail(error.what());
    }
}

void RecordFollower::CountRow()
{
    const Row& row = CurrentRow();
    if (row.IsMeasured()) CountMissing(row, !m_hasPrevious);
    m_elapsedUs = m_hasPrevious ? Elapsed(row.time_us) : 0;
    m_hasPrevious = true;
    m_summary.counted_us += m_elapsedUs;
    if (m_summary.cycles++ == 0) m_summary.first_us = row.time_us;
    m_summary.last_us = row.time_us;
    if (row.port != 0) m_summary.port = row.port;
    if (row.action == fc::kActionDisabled)
        ++m_summary.disabled;
    else
        m_summary.sampled_s += m_summary.interval_s;
    if (row.action > fc::kActionDisabled) ++m_summary.failed;
}

void RecordFollower::CountMissing(const Row& row, bool is_first)
{
    ++m_summary.measured;
    for (const auto& [metric, column, setting, direction, is_rate] : kMetrics) {
        const bool needs_previous = is_rate || metric == fc::kMetricInterval;
        if (!row.Knows(metric) && !(is_first && needs_previous)) ++m_summary.missing[metric];
    }
}

// A clock that was set back leaves a gap, too: how much time has passed is not known.
std::uint64_t RecordFollower::Elapsed(std::uint64_t now_us)
{
    constexpr double kMostIntervals = 3;
    const std::uint64_t elapsed_us = now_us - m_summary.last_us;
    if (static_cast<double>(elapsed_us) <= kMostIntervals * m_summary.interval_s * 1e6)
        return elapsed_us;
    ++m_summary.gaps;
    return 0;
}

// ---- all policies ----------------------------------------------------------------------

Replay::Replay(const std::string& path, const std::vector<Policy>& policies,
               std::uint64_t first_cycles)
    : m_record(path), m_firstCycles(first_cycles)
{
    for (const Policy& policy : policies) m_monitors.emplace_back(policy);
    m_trackers.resize(policies.size());
}

bool Replay::Read(std::size_t events)
{
    for (; events > 0; --events) {
        switch (m_record.Next()) {
            case RecordReader::Event::kRestart:
                Restart();
                break;
            case RecordReader::Event::kPolicy:
                m_recordedPolicy = m_record.RecordedPolicy();
                break;
            case RecordReader::Event::kRow:
                ReplayRow();
                break;
            case RecordReader::Event::kEnd:
                return false;
            default:
                break;
        }
    }
    return true;
}

void Replay::Restart()
{
    m_recorded.Restart(m_record.Summary().last_us);
    for (Monitor& monitor : m_monitors) monitor.Restart();
    for (Tracker& tracker : m_trackers) tracker.Restart(m_record.Summary().last_us);
}

void Replay::ReplayRow()
{
    const Row& row = m_record.CurrentRow();
    const std::uint64_t elapsed_us = m_record.ElapsedUs();
    m_recorded.AddTime(elapsed_us);
    m_recorded.SetState(row, row.activated, m_recordedPolicy, MetricsOver(m_recordedPolicy, row));
    for (std::size_t i = 0; i < m_monitors.size(); ++i) {
        Monitor& monitor = m_monitors[i];
        Tracker& tracker = m_trackers[i];
        tracker.AddTime(elapsed_us);
        monitor.Cycle(row);
        tracker.SetState(row, monitor.IsActivated(), monitor.GetPolicy(), monitor.Over());
        if (monitor.WasHeld()) tracker.CountHeld();
        if (m_firstCycles == 0 || m_record.Summary().cycles <= m_firstCycles)
            tracker.EndFirstPart();
    }
}

}  // namespace replay
