// Limits of connection metric feedback.
#pragma once

#include <cstddef>
#include <ctime>

namespace fc {

// Maximum number of keys in each of the two stores.
inline constexpr std::size_t kMaxKeys = 10000;

// Minimum number of seconds between two publications.
inline constexpr std::time_t kMinPublicationIntervalS = 61;

}  // namespace fc
