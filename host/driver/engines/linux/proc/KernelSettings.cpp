#include "engines/linux/proc/KernelSettings.h"

#include <algorithm>

namespace vxi {

std::string setting_path(const char* name)
{
    std::string path = name;
    std::replace(path.begin(), path.end(), '.', '/');
    return "/proc/sys/" + path;
}

uint32_t setting_value(std::optional<int64_t> value)
{
    if (!value) {
        return VXA_FILTER_VARIABLE_ABSENT;
    }
    if (*value >= setting_value_max || *value == -1) {
        return setting_value_max;
    }
    return static_cast<uint32_t>(*value);
}

}  // namespace vxi
