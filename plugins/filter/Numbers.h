// Conversion of Lua numbers to integers.
#pragma once

#include <cstdint>

namespace fc {

// Truncates toward zero. NaN and values out of range, which C++ leaves undefined, yield INT64_MIN
// as the x86-64 instruction CVTTSD2SI does.
inline std::int64_t TruncateToInt64(double value)
{
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    return value >= -kLimit && value < kLimit ? static_cast<std::int64_t>(value) : INT64_MIN;
}

}  // namespace fc
