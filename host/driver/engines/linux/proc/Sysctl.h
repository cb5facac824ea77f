// The kernel's settings (sysctl) as filter variables.
#pragma once

#include <cstdint>
#include <optional>

#include "vxi/records.h"

namespace vxi {

// First number of a setting ("net.ipv4.tcp_sack"); nullopt where this kernel or network namespace
// does not have it, or it is not a number.
std::optional<std::int64_t> ReadSysctl(const char* name);

// A value in the 32 bits of a filter variable, negative ones in two's complement; "absent" for
// none. -1 and what does not fit read as the largest value below it, so that no value reads as
// absent.
constexpr std::uint32_t kVariableMax = VXA_FILTER_VARIABLE_ABSENT - 1;
std::uint32_t EncodeVariable(std::optional<std::int64_t> value);

}  // namespace vxi
