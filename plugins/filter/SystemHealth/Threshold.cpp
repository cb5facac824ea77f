// Comparison of a metric's value with its threshold.

#include "Threshold.h"

namespace fc {

bool IsBeyond(double value, double threshold, std::int32_t direction, double factor)
{
    return direction == kBadAbove ? value > threshold * factor : value < threshold / factor;
}

}  // namespace fc
