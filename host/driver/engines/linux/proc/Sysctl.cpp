// The files of /proc/sys (sysctl(8)).
#include "engines/linux/proc/Sysctl.h"

#include <algorithm>
#include <string>

#include "engines/linux/proc/ProcFile.h"

namespace vxi {

std::optional<std::int64_t> ReadSysctl(const char* name)
{
    std::string path = name;
    std::replace(path.begin(), path.end(), '.', '/');
    return ReadProcNumber("/proc/sys/" + path);
}

std::uint32_t EncodeVariable(std::optional<std::int64_t> value)
{
    if (!value) {
        return VXA_FILTER_VARIABLE_ABSENT;
    }
    if (*value >= kVariableMax || *value == -1) {
        return kVariableMax;
    }
    return static_cast<std::uint32_t>(*value);
}

}  // namespace vxi
