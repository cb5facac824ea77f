// The settings of a policy that decide about fail-open.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "Metrics.h"

namespace replay {

struct Policy {
    std::array<double, fc::kMetricCount> thresholds;
    std::uint32_t judged;  // bit 1 << fc::Metric: the metric has a threshold
    std::uint64_t minimum_minutes;
    bool monitors;  // the module judges with it; otherwise each cycle returns kActionDisabled
};

// Returns the number that a policy has for a setting, if it has one.
using Settings = std::function<std::optional<double>(const char* key)>;

// From settings that are within their bounds.
Policy MakePolicy(const Settings& settings);

// From a policy in JSON, as a record has it. Throws std::runtime_error if it is not JSON.
Policy ParsePolicy(std::string_view json);

}  // namespace replay
