// What a picture of a record shows, reduced to about as many points as the picture has columns of
// pixels. Memory does not grow with the record.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "Monitor.h"
#include "Policy.h"
#include "RecordReader.h"

namespace replay {

// The values of one metric in a bin, a short period.
struct BinnedValues {
    std::int64_t first_us = 0, last_us = 0;  // since the epoch
    double min = 0, max = 0, sum = 0;
    std::uint32_t count = 0;
    bool is_after_gap = false;  // the value before these is missing

    void Add(std::int64_t time_us, double value, bool after_gap);
    void Append(const BinnedValues& later);
};

// Values by time in a fixed number of bins, which become wider as the period grows.
class Bins {
public:
    static constexpr std::size_t kCount = 2048;

    using Values = std::array<BinnedValues, fc::kMetricCount>;

    Bins() : m_bins(kCount) {}
    Values& At(std::int64_t time_us);
    const Values& operator[](std::size_t i) const { return m_bins[i]; }
    std::int64_t WidthUs() const { return m_widthUs; }

private:
    void GrowForward();
    void GrowBackward();

    std::vector<Values> m_bins;
    std::int64_t m_originUs = 0;
    std::int64_t m_widthUs = 0;  // 0: there are no values
};

struct Period {
    std::int64_t from_us, to_us;
};

// The settings in force from a time on.
struct PolicyChange {
    std::int64_t from_us;
    Policy policy;
};

// The values of a metric as lines for gnuplot, "seconds min mean max", with an empty line where
// values are missing. The seconds count from the beginning of the period shown.
struct MetricLines {
    std::string lines;  // empty if there is no value
    double least = std::numeric_limits<double>::infinity();
    double greatest = -std::numeric_limits<double>::infinity();
};

class Chart {
public:
    struct Options {
        std::optional<Policy> policy;  // shows when it would have been in fail-open
        std::int64_t since_us = 0, until_us = std::numeric_limits<std::int64_t>::max();
    };

    // Throws FileError if the file cannot be opened.
    Chart(const std::string& path, const Options& options);

    // Reads on, at most `rows` rows. Returns false at the end of the record. Throws as
    // RecordReader::Next does.
    bool Read(std::size_t rows);
    double Progress() const { return m_reader.Progress(); }

    std::uint64_t Rows() const { return m_rows; }
    const Period& Shown() const { return m_shown; }  // meaningless without rows
    const std::string& Heading() const { return m_heading; }
    std::uint64_t Entries() const { return m_entries; }
    // Times in gaps and between runs are in neither.
    std::uint64_t FailOpenUs() const { return m_failOpenUs; }
    std::uint64_t CountedUs() const { return m_countedUs; }
    const std::vector<Period>& FailOpen() const { return m_failOpen; }  // close ones are joined
    const std::vector<PolicyChange>& Policies() const { return m_policies; }

    MetricLines Lines(fc::Metric metric) const;

private:
    // The row before, until a run starts.
    struct Previous {
        std::int64_t time_us;
        bool activated;
    };

    bool ReadEvent();
    void ReadPolicy();
    void AddPolicy(std::int64_t time_us);
    void AddRow(const Row& row);
    void AddValues(const Row& row, std::int64_t time_us);
    void AddTime(std::int64_t us);
    void Shade(std::int64_t from_us, std::int64_t to_us);
    void AddPeriod(const Period& period);
    void EndRun();
    bool IsGap(std::int64_t from_us, std::int64_t to_us) const;
    bool IsBroken(const BinnedValues& before, const BinnedValues& after) const;
    std::string RunLines(const std::vector<BinnedValues>& run) const;

    RecordReader m_reader;
    std::optional<Monitor> m_monitor;
    const Period m_wanted;
    Period m_shown{};
    std::uint64_t m_rows = 0;
    std::string m_heading;
    std::int64_t m_intervalUs = 0, m_longestIntervalUs = 0;
    std::optional<Policy> m_newPolicy;  // in force from the next row on
    std::vector<PolicyChange> m_policies;
    std::optional<Previous> m_previous;
    std::uint32_t m_missing = ~0u;  // bits 1 << fc::Metric: without a value in the row before
    Bins m_bins;
    std::uint64_t m_entries = 0, m_failOpenUs = 0, m_countedUs = 0;
    std::vector<Period> m_failOpen;
};

}  // namespace replay
