// What a picture of a record shows.
#include "Chart.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace replay {

namespace {

constexpr std::int64_t kFirstWidthUs = 1000;
constexpr std::int64_t kIntervalsInGap = 3;
constexpr std::size_t kMostPolicies = 1000;
constexpr std::size_t kMostPeriods = 2 * Bins::kCount;
// Beyond any real value: the interval after the clock was set back.
constexpr double kMostShown = 1e12;

bool IsSame(const Policy& one, const Policy& other)
{
    return one.thresholds == other.thresholds && one.judged == other.judged &&
           one.monitors == other.monitors;
}

}  // namespace

// ---- bins ------------------------------------------------------------------------------

void BinnedValues::Add(std::int64_t time_us, double value, bool after_gap)
{
    Append({time_us, time_us, value, value, value, 1, after_gap});
}

// Also where the clock was set back: `later` can begin earlier.
void BinnedValues::Append(const BinnedValues& later)
{
    if (later.count == 0) return;
    if (count == 0) {
        *this = later;
        return;
    }
    first_us = std::min(first_us, later.first_us);
    last_us = std::max(last_us, later.last_us);
    min = std::min(min, later.min);
    max = std::max(max, later.max);
    sum += later.sum;
    count += later.count;
}

Bins::Values& Bins::At(std::int64_t time_us)
{
    if (m_widthUs == 0) {
        m_originUs = time_us;
        m_widthUs = kFirstWidthUs;
    }
    constexpr auto kBins = static_cast<std::int64_t>(kCount);
    while (time_us < m_originUs) GrowBackward();
    while (time_us - m_originUs >= m_widthUs * kBins) GrowForward();
    return m_bins[static_cast<std::size_t>((time_us - m_originUs) / m_widthUs)];
}

// Joins pairs of bins in the first half.
void Bins::GrowForward()
{
    for (std::size_t i = 0; i < kCount; ++i) {
        Values from = std::exchange(m_bins[i], {});
        for (std::size_t metric = 0; metric < from.size(); ++metric)
            m_bins[i / 2][metric].Append(from[metric]);
    }
    m_widthUs *= 2;
}

// Joins pairs of bins in the second half.
void Bins::GrowBackward()
{
    m_originUs -= m_widthUs * static_cast<std::int64_t>(kCount);
    for (std::size_t i = kCount; i-- > 0;) {
        Values from = std::exchange(m_bins[i], {});
        for (std::size_t metric = 0; metric < from.size(); ++metric) {
            std::swap(from[metric], m_bins[(kCount + i) / 2][metric]);
            m_bins[(kCount + i) / 2][metric].Append(from[metric]);
        }
    }
    m_widthUs *= 2;
}

// ---- reading ---------------------------------------------------------------------------

Chart::Chart(const std::string& path, const Options& options)
    : m_reader(path), m_wanted{options.since_us, options.until_us}
{
    if (options.policy) m_monitor.emplace(*options.policy);
    m_newPolicy = options.policy;
}

bool Chart::Read(std::size_t rows)
{
    const std::uint64_t enough = m_reader.Line() + rows;
    while (m_reader.Line() < enough)
        if (!ReadEvent()) return false;
    return true;
}

bool Chart::ReadEvent()
{
    switch (m_reader.Next()) {
        case RecordReader::Event::kRestart:
            EndRun();
            break;
        case RecordReader::Event::kHeading:
            m_heading = m_reader.Text();
            m_intervalUs = std::llround(m_reader.IntervalS() * 1e6);
            m_longestIntervalUs = std::max(m_longestIntervalUs, m_intervalUs);
            break;
        case RecordReader::Event::kPolicy:
            if (!m_monitor) ReadPolicy();
            break;
        case RecordReader::Event::kRow:
            AddRow(m_reader.CurrentRow());
            break;
        case RecordReader::Event::kEnd:
            EndRun();
            return false;
    }
    return true;
}

void Chart::ReadPolicy()
{
    try {
        m_newPolicy = ParsePolicy(m_reader.Text());
    } catch (const std::runtime_error& error) {
        m_reader.Fail(error.what());
    }
}

void Chart::EndRun()
{
    if (m_previous && m_previous->activated)
        Shade(m_previous->time_us, m_previous->time_us + m_intervalUs);
    m_previous.reset();
    m_missing = ~0u;
    if (m_monitor) m_monitor->Restart();
}

bool Chart::IsGap(std::int64_t from_us, std::int64_t to_us) const
{
    return to_us < from_us || to_us - from_us > kIntervalsInGap * m_intervalUs;
}

void Chart::AddRow(const Row& row)
{
    if (m_monitor) m_monitor->Cycle(row);
    const bool activated = m_monitor ? m_monitor->IsActivated() : row.activated;
    const auto time_us = static_cast<std::int64_t>(row.time_us);
    if (time_us < m_wanted.from_us || time_us > m_wanted.to_us) return;
    if (m_rows++ == 0) m_shown = {time_us, time_us};
    m_shown = {std::min(m_shown.from_us, time_us), std::max(m_shown.to_us, time_us)};
    AddPolicy(time_us);
    const bool is_gap = m_previous && IsGap(m_previous->time_us, time_us);
    if (is_gap) m_missing = ~0u;
    const bool was_activated = m_previous && m_previous->activated;
    if (m_previous && !is_gap) AddTime(time_us - m_previous->time_us);
    if (was_activated)
        Shade(m_previous->time_us, is_gap ? m_previous->time_us + m_intervalUs : time_us);
    if (activated && !was_activated) ++m_entries;
    AddValues(row, time_us);
    m_previous = {time_us, activated};
}

void Chart::AddPolicy(std::int64_t time_us)
{
    const auto policy = std::exchange(m_newPolicy, std::nullopt);
    if (!policy || (!m_policies.empty() && IsSame(m_policies.back().policy, *policy))) return;
    if (m_policies.size() == kMostPolicies) m_policies.pop_back();
    m_policies.push_back({time_us, *policy});
}

void Chart::AddValues(const Row& row, std::int64_t time_us)
{
    auto& bin = m_bins.At(time_us);
    for (std::size_t metric = 0; metric < bin.size(); ++metric) {
        const std::uint32_t bit = 1u << metric;
        const double value = row.values[metric];
        if (!row.Knows(metric) || !(std::abs(value) <= kMostShown)) {
            m_missing |= bit;
            continue;
        }
        bin[metric].Add(time_us, value, (m_missing & bit) != 0);
        m_missing &= ~bit;
    }
}

// Time between the previous row and the next one.
void Chart::AddTime(std::int64_t us)
{
    m_countedUs += static_cast<std::uint64_t>(us);
    if (m_previous->activated) m_failOpenUs += static_cast<std::uint64_t>(us);
}

// Joins periods that are closer to each other than a bin is wide. In the order of time, that leaves
// hardly more than there are bins; a clock that was set back breaks the order.
void Chart::Shade(std::int64_t from_us, std::int64_t to_us)
{
    AddPeriod({from_us, to_us});
    if (m_failOpen.size() <= kMostPeriods) return;
    std::vector<Period> all = std::exchange(m_failOpen, {});
    std::sort(all.begin(), all.end(),
              [](const Period& a, const Period& b) { return a.from_us < b.from_us; });
    for (const Period& period : all) AddPeriod(period);
}

void Chart::AddPeriod(const Period& period)
{
    const bool is_close = !m_failOpen.empty() && period.from_us >= m_failOpen.back().from_us &&
                          period.from_us <= m_failOpen.back().to_us + m_bins.WidthUs();
    if (is_close)
        m_failOpen.back().to_us = std::max(m_failOpen.back().to_us, period.to_us);
    else
        m_failOpen.push_back(period);
}

// ---- lines -----------------------------------------------------------------------------

// Where a bin is as wide as a gap, a shorter one cannot be seen, and only long ones break the line.
bool Chart::IsBroken(const BinnedValues& before, const BinnedValues& after) const
{
    const std::int64_t longest_us = kIntervalsInGap * m_longestIntervalUs;
    if (after.is_after_gap && m_bins.WidthUs() < longest_us) return true;
    return after.first_us - before.last_us > std::max(longest_us, m_bins.WidthUs());
}

// A point alone becomes a short line, since gnuplot draws no line for it.
std::string Chart::RunLines(const std::vector<BinnedValues>& run) const
{
    constexpr double kPointsInPeriod = 1000;
    const double shown_s = static_cast<double>(m_shown.to_us - m_shown.from_us) / 1e6;
    const double half_s = std::max(shown_s, 1e-3) / kPointsInPeriod / 2;
    std::string lines;
    const auto add = [&](const BinnedValues& values, double shift_s) {
        const std::int64_t middle_us = (values.first_us + values.last_us) / 2;
        const double second = static_cast<double>(middle_us - m_shown.from_us) / 1e6 + shift_s;
        char line[160];
        const int length = std::snprintf(line, sizeof line, "%.3f %.9g %.9g %.9g\n", second,
                                         values.min, values.sum / values.count, values.max);
        lines.append(line, static_cast<std::size_t>(length));
    };
    if (run.size() == 1) add(run.front(), -half_s);
    for (const auto& values : run) add(values, run.size() == 1 ? half_s : 0);
    return lines;
}

MetricLines Chart::Lines(fc::Metric metric) const
{
    MetricLines result;
    std::vector<BinnedValues> run;
    for (std::size_t i = 0; i < Bins::kCount; ++i) {
        const BinnedValues& values = m_bins[i][metric];
        if (values.count == 0) continue;
        if (!run.empty() && IsBroken(run.back(), values)) {
            result.lines += RunLines(run) + '\n';
            run.clear();
        }
        run.push_back(values);
        result.least = std::min(result.least, values.min);
        result.greatest = std::max(result.greatest, values.max);
    }
    if (!run.empty()) result.lines += RunLines(run);
    return result;
}

}  // namespace replay
