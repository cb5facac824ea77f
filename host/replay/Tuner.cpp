// Finds thresholds for the metrics of a record.
#include "Tuner.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>

namespace replay {

namespace {

constexpr int kEventsPerStep = 10000;
constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

bool IsLower(const MetricNames& metric)
{
    return metric.direction == fc::kBadBelow;
}

}  // namespace

// ---- the search ------------------------------------------------------------------------

ThresholdSearch::ThresholdSearch(const std::deque<Cycle>& cycles, const Values& values,
                                 fc::Metric metric, std::uint64_t minimum_minutes,
                                 std::uint64_t most_entries)
    : m_cycles(cycles), m_values(values), m_metric(kMetrics[metric]), m_mostEntries(most_entries)
{
    m_policy.judged = 1u << metric;
    m_policy.minimum_minutes = minimum_minutes;
    m_policy.monitors = true;
    std::copy_if(values.begin(), values.end(), std::back_inserter(m_candidates),
                 [](double value) { return !std::isnan(value); });
    std::sort(m_candidates.begin(), m_candidates.end());
    if (IsLower(m_metric)) std::reverse(m_candidates.begin(), m_candidates.end());
    m_high = m_candidates.empty() ? 0 : m_candidates.size() - 1;
}

bool ThresholdSearch::Step()
{
    if (m_low == m_high) return false;
    const std::size_t middle = m_low + (m_high - m_low) / 2;
    if (StaysWithin(m_candidates[middle]))
        m_high = middle;
    else
        m_low = middle + 1;
    return true;
}

std::optional<double> ThresholdSearch::Tightest() const
{
    return m_candidates.empty() ? std::nullopt : std::optional(m_candidates[m_low]);
}

std::optional<double> ThresholdSearch::Loosest() const
{
    return m_candidates.empty() ? std::nullopt : std::optional(m_candidates.back());
}

// Whether fail-open is entered no more often than allowed.
bool ThresholdSearch::StaysWithin(double threshold) const
{
    Policy policy = m_policy;
    policy.thresholds[m_metric.metric] = threshold;
    Monitor monitor(policy);
    Row row{};
    std::uint64_t entries = 0;
    auto value = m_values.begin();
    for (const Cycle& cycle : m_cycles) {
        if (cycle.is_restart) monitor.Restart();
        row.time_us = cycle.time_us;
        row.action = cycle.action;
        row.count_failed = cycle.count_failed;
        row.values[m_metric.metric] = *value;
        row.known = std::isnan(*value++) ? 0 : policy.judged;
        const bool was_activated = monitor.IsActivated();
        monitor.Cycle(row);
        entries += !was_activated && monitor.IsActivated() ? 1 : 0;
        if (entries > m_mostEntries) return false;
    }
    return true;
}

// ---- the record ------------------------------------------------------------------------

Tuner::Tuner(const std::string& path, double entries_per_week,
             std::optional<std::uint64_t> minimum_minutes)
    : m_record(path),
      m_entriesPerWeek(entries_per_week),
      m_knowsMinutes(minimum_minutes.has_value()),
      m_minimumMinutes(minimum_minutes.value_or(fc::kDefaultMinDurationMinutes))
{
}

double Tuner::Progress() const
{
    const double metrics = static_cast<double>(m_metric) / fc::kMetricCount;
    const double searched = m_stage > Stage::kSearch ? 1 : m_stage == Stage::kSearch ? metrics : 0;
    const double sorted = m_stage == Stage::kQuantiles ? metrics : 0;
    return m_record.Progress() * 0.5 + searched * 0.3 + sorted * 0.2;
}

bool Tuner::Step()
{
    switch (m_stage) {
        case Stage::kFirstHalf:
            if (!ReadRows(0.5)) EndFirstHalf();
            break;
        case Stage::kSearch:
            Search();
            break;
        case Stage::kSecondHalf:
            if (!ReadRows(std::numeric_limits<double>::infinity())) m_stage = Stage::kQuantiles;
            break;
        case Stage::kQuantiles:
            FindQuantiles();
            break;
        case Stage::kDone:
            break;
    }
    return m_stage != Stage::kDone;
}

// Reads on. Returns false at this share of the file, or its end.
bool Tuner::ReadRows(double until)
{
    for (int events = 0; events < kEventsPerStep; ++events) {
        if (m_hasEnded || m_record.Progress() >= until) return false;
        switch (m_record.Next()) {
            case RecordReader::Event::kRestart:
                m_isRestart = true;
                break;
            case RecordReader::Event::kPolicy:
                TakePolicy();
                break;
            case RecordReader::Event::kRow:
                KeepRow();
                break;
            case RecordReader::Event::kEnd:
                m_hasEnded = true;
                break;
            default:
                break;
        }
    }
    return true;
}

void Tuner::TakePolicy()
{
    const std::uint64_t minutes = m_record.RecordedPolicy().minimum_minutes;
    if (m_stage == Stage::kFirstHalf && !m_knowsMinutes) m_minimumMinutes = minutes;
}

void Tuner::KeepRow()
{
    const Row& row = m_record.CurrentRow();
    for (std::size_t metric = 0; metric < fc::kMetricCount; ++metric) {
        const bool is_usable = row.Knows(metric) && std::isfinite(row.values[metric]);
        m_values[metric].push_back(is_usable ? row.values[metric] : kUnknown);
        if (!is_usable) continue;
        MetricResult& result = m_results[metric];
        result.sampled_s += m_record.Summary().interval_s;
        ++result.count;
        if (m_stage == Stage::kFirstHalf) ++result.first_half_count;
    }
    if (m_stage != Stage::kFirstHalf) return;
    m_cycles.push_back({row.time_us, row.action, m_isRestart, row.count_failed});
    m_isRestart = false;
}

void Tuner::EndFirstHalf()
{
    constexpr double kUsPerWeek = 7 * 86400e6;
    m_firstHalf = m_record.Summary();
    const double weeks = static_cast<double>(m_firstHalf.counted_us) / kUsPerWeek;
    m_mostEntries = static_cast<std::uint64_t>(m_entriesPerWeek * weeks);
    m_stage = Stage::kSearch;
}

// Takes one step of the search for the current metric, or begins the next one.
void Tuner::Search()
{
    if (!m_search)
        m_search = std::make_unique<ThresholdSearch>(m_cycles, m_values[m_metric],
                                                     kMetrics[m_metric].metric, m_minimumMinutes,
                                                     m_mostEntries);
    if (m_search->Step()) return;
    m_results[m_metric].tightest = m_search->Tightest();
    m_results[m_metric].loosest = m_search->Loosest();
    m_search.reset();
    if (++m_metric < fc::kMetricCount) return;
    m_metric = 0;
    std::deque<Cycle>().swap(m_cycles);
    m_stage = Stage::kSecondHalf;
}

// ---- quantiles -------------------------------------------------------------------------

namespace {

// Nearest ranks. Reorders the values.
template <typename Compare>
std::array<double, 4> Quantiles(Values& values, Compare compare)
{
    constexpr double kShares[] = {0.5, 0.99, 0.999, 1};
    std::array<double, 4> found{};
    auto begin = values.begin();
    for (std::size_t i = 0; i < found.size(); ++i) {
        const double rank = std::ceil(kShares[i] * static_cast<double>(values.size()));
        const auto nth = values.begin() + static_cast<std::ptrdiff_t>(std::max(rank, 1.0)) - 1;
        std::nth_element(begin, nth, values.end(), compare);
        found[i] = *nth;
        begin = nth;
    }
    return found;
}

}  // namespace

// Finds the quantiles of the current metric and frees its values.
void Tuner::FindQuantiles()
{
    Values& values = m_values[m_metric];
    MetricResult& result = m_results[m_metric];
    values.erase(
        std::remove_if(values.begin(), values.end(), [](double v) { return std::isnan(v); }),
        values.end());
    if (!values.empty())
        result.quantiles = IsLower(kMetrics[m_metric]) ? Quantiles(values, std::greater<>())
                                                       : Quantiles(values, std::less<>());
    Values().swap(values);
    if (++m_metric == fc::kMetricCount) m_stage = Stage::kDone;
}

}  // namespace replay
