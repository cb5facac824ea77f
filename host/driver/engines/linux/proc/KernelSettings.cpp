#include "engines/linux/proc/KernelSettings.h"

#include <algorithm>

namespace vxi {

std::string SettingPath(const char* name)
{
    std::string path = name;
    std::replace(path.begin(), path.end(), '.', '/');
    return "/proc/sys/" + path;
}

std::uint32_t SettingValue(std::optional<std::int64_t> value)
{
    if (!value) {
        return VXA_FILTER_VARIABLE_ABSENT;
    }
    if (*value >= kSettingValueMax || *value == -1) {
        return kSettingValueMax;
    }
    return static_cast<std::uint32_t>(*value);
}

}  // namespace vxi
