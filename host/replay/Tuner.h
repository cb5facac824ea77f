// Finds thresholds for the metrics of a record: quantiles of all values, and for each metric the
// tightest threshold that its first half supports.
//
// The values stay in memory, 48 bytes for each cycle, and for the first half also what the search
// needs of the cycles.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Replay.h"
#include "SystemHealth/Config.h"

namespace replay {

// Values of a metric, or NaN. A deque, because a vector would need three times the memory while it
// grows.
using Values = std::deque<double>;

// What the search needs of a row.
struct Cycle {
    std::uint64_t time_us;
    int action;
    bool is_restart;  // the first of a run
    bool count_failed;
};

// Searches the tightest threshold of one metric with which fail-open is entered at most a number
// of times, if nothing else is judged. It is one of the values.
//
// A bisection finds it: a looser threshold is crossed at fewer points, and to cover fewer points
// with stretches of fail-open never takes more of them.
class ThresholdSearch {
public:
    ThresholdSearch(const std::deque<Cycle>& cycles, const Values& values, fc::Metric metric,
                    std::uint64_t minimum_minutes, std::uint64_t most_entries);

    // Tries one threshold. Returns false when the search is over.
    bool Step();

    // Without one there are no values.
    std::optional<double> Tightest() const;
    // The threshold that no value is beyond.
    std::optional<double> Loosest() const;

private:
    bool StaysWithin(double threshold) const;

    const std::deque<Cycle>& m_cycles;
    const Values& m_values;
    MetricNames m_metric;
    Policy m_policy{};
    std::uint64_t m_mostEntries;
    std::vector<double> m_candidates;  // from the tightest to the loosest, which is always kept
    std::size_t m_low = 0, m_high = 0;
};

class Tuner {
public:
    struct MetricResult {
        std::uint64_t count = 0, first_half_count = 0;  // of values
        double sampled_s = 0;                           // the sum of the intervals of their cycles
        // From the good to the bad end: 50, 99, 99.9 and 100 % of the values are not worse.
        std::array<double, 4> quantiles{};
        std::optional<double> tightest;  // that the first half supports
        std::optional<double> loosest;   // the worst value of the first half
    };

    // Without `minimum_minutes`, fail-open lasts as long as the last policy of the first half says.
    // Throws FileError if the file cannot be opened.
    Tuner(const std::string& path, double entries_per_week,
          std::optional<std::uint64_t> minimum_minutes = std::nullopt);

    // Works for some milliseconds, seldom longer than a tenth of a second. Returns false when all
    // is done. Throws as RecordReader::Next does.
    bool Step();

    double Progress() const;
    const RecordSummary& Summary() const { return m_record.Summary(); }
    const RecordSummary& FirstHalf() const { return m_firstHalf; }
    std::uint64_t EntriesAllowed() const { return m_mostEntries; }     // in the first half
    std::uint64_t MinimumMinutes() const { return m_minimumMinutes; }  // of fail-open
    const MetricResult& Result(std::size_t metric) const { return m_results[metric]; }

private:
    enum class Stage { kFirstHalf, kSearch, kSecondHalf, kQuantiles, kDone };

    bool ReadRows(double until);
    void TakePolicy();
    void KeepRow();
    void EndFirstHalf();
    void Search();
    void FindQuantiles();

    RecordFollower m_record;
    RecordSummary m_firstHalf;
    double m_entriesPerWeek;
    bool m_knowsMinutes;  // whatever the policies of the record say
    std::uint64_t m_minimumMinutes;
    std::uint64_t m_mostEntries = 0;
    Stage m_stage = Stage::kFirstHalf;
    bool m_isRestart = false, m_hasEnded = false;
    std::deque<Cycle> m_cycles;
    std::array<Values, fc::kMetricCount> m_values;
    std::size_t m_metric = 0;  // that the current stage works on
    std::unique_ptr<ThresholdSearch> m_search;
    std::array<MetricResult, fc::kMetricCount> m_results;
};

}  // namespace replay
