// Replays a record: what the recorded run did, and what each of several policies would have done.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Monitor.h"
#include "Policy.h"
#include "RecordReader.h"

namespace replay {

// A time in fail-open.
struct Stretch {
    std::uint64_t entered_us;  // since the epoch
    std::uint64_t left_us;     // or when it ended with its run
    std::uint64_t lasted_us;   // without gaps
    enum class End { kNone, kLeft, kRestart } end;
    std::uint32_t over;  // why it was entered: bits 1 << fc::Metric
    std::array<double, fc::kMetricCount> values, thresholds;
};

// What one policy did. The sums leave out gaps in the record.
struct Outcome {
    // Later stretches are counted, but not kept.
    static constexpr std::size_t kMostStretches = 1000;

    std::uint64_t entries = 0;
    std::uint64_t held = 0;  // entries that waited: their rates span several intervals
    std::uint64_t enforced_us = 0;
    std::uint64_t fail_open_us = 0;
    std::uint64_t longest_us = 0;
    std::uint64_t first_entries = 0;                       // in the first part of the record
    std::array<std::uint64_t, fc::kMetricCount> causes{};  // entries by metric
    std::vector<Stretch> stretches;
};

// Follows one policy's state through a record.
class Tracker {
public:
    // Adds the time between two rows to the state after the first.
    void AddTime(std::uint64_t us);
    // Sets the state after this row's cycle; `over`: the metrics beyond their thresholds.
    void SetState(const Row& row, bool activated, const Policy& policy, std::uint32_t over);
    void Restart(std::uint64_t last_us);
    void CountHeld() { ++m_outcome.held; }
    void EndFirstPart() { m_outcome.first_entries = m_outcome.entries; }

    const Outcome& GetOutcome() const { return m_outcome; }

private:
    void Enter(const Row& row, const Policy& policy, std::uint32_t over);
    void Leave(std::uint64_t time_us, Stretch::End end);
    Stretch* CurrentStretch();

    Outcome m_outcome;
    std::uint64_t m_lastedUs = 0;  // the current stretch
    bool m_activated = false;
};

struct RecordSummary {
    std::uint64_t cycles = 0;
    std::uint64_t measured = 0;
    std::uint64_t disabled = 0;
    std::uint64_t failed = 0;  // not sampled
    std::uint64_t starts = 0;  // of runs
    std::uint64_t gaps = 0;    // within a run: more than three intervals, or the clock was set back
    std::uint64_t counted_us = 0;  // without gaps and restarts
    std::uint64_t first_us = 0, last_us = 0;
    // Measured cycles without the value. That a run's first cycle has no rates and no interval does
    // not count.
    std::array<std::uint64_t, fc::kMetricCount> missing{};
    double interval_s = 0;          // of the last run
    double sampled_s = 0;           // the intervals of the cycles that monitored, added up
    int port = 0;                   // the last one monitored
    std::string heading, settings;  // of the last run, as in the file
};

// Follows the rows of a record: its runs, and the time from one row to the next.
class RecordFollower {
public:
    explicit RecordFollower(const std::string& path) : m_reader(path) {}

    RecordReader::Event Next();
    const Row& CurrentRow() const { return m_reader.CurrentRow(); }
    // Between the previous row and this one; 0 in a gap.
    std::uint64_t ElapsedUs() const { return m_elapsedUs; }
    double Progress() const { return m_reader.Progress(); }
    const RecordSummary& Summary() const { return m_summary; }
    Policy RecordedPolicy() const;

private:
    void CountRow();
    void CountMissing(const Row& row, bool is_first);
    std::uint64_t Elapsed(std::uint64_t now_us);

    RecordReader m_reader;
    RecordSummary m_summary;
    std::uint64_t m_elapsedUs = 0;
    bool m_hasPrevious = false;  // row of this run
};

class Replay {
public:
    // The first part of the record has `first_cycles` cycles; 0: all of them. Throws FileError if
    // the file cannot be opened.
    Replay(const std::string& path, const std::vector<Policy>& policies,
           std::uint64_t first_cycles = 0);

    // Reads on, at most as many events (RecordReader::Event). Returns false at the end of the
    // record. Throws as RecordReader::Next does.
    bool Read(std::size_t events);

    double Progress() const { return m_record.Progress(); }
    const RecordSummary& Summary() const { return m_record.Summary(); }
    const Outcome& Recorded() const { return m_recorded.GetOutcome(); }
    const std::vector<Monitor>& Monitors() const { return m_monitors; }  // one for each policy
    const std::vector<Tracker>& Trackers() const { return m_trackers; }

private:
    void ReplayRow();
    void Restart();

    RecordFollower m_record;
    std::uint64_t m_firstCycles;
    Policy m_recordedPolicy{};
    Tracker m_recorded;
    std::vector<Monitor> m_monitors;
    std::vector<Tracker> m_trackers;
};

}  // namespace replay
