// Comparison of a metric's value with its threshold: a pure function without clock, I/O or Lua.
#pragma once

#include <cstdint>

namespace fc {

// Directions of a metric.
constexpr std::int32_t kBadAbove = 0;
constexpr std::int32_t kBadBelow = 1;

// Returns whether the value is beyond the threshold times the factor (divided by it for lower
// bounds). A value equal to it is not.
bool IsBeyond(double value, double threshold, std::int32_t direction, double factor);

}  // namespace fc
