// The kernel's settings as variables.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "vxi/records.h"

namespace vxi {

// "net.ipv4.tcp_sack": the file that holds it.
std::string SettingPath(const char* name);

// A setting in 32 bits, negative ones in two's complement; "absent" for none. -1 and what is
// larger read as the largest value but one, so that no setting reads as absent.
constexpr std::uint32_t kSettingValueMax = VXA_FILTER_VARIABLE_ABSENT - 1;
std::uint32_t SettingValue(std::optional<std::int64_t> value);

}  // namespace vxi
