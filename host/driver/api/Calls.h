// The public calls that dispatch performs on an engine, by name.
#pragma once

#include <string_view>

namespace vxi {

enum class Call : unsigned {
    kOpen,
    kDriverAvailable,
    kGetStats,
    kGetConntrack,
    kGetBlacklist,
    kGetConnStates,
    kGetVarv,
    kGetVar,
    kSetVar,
    kGetProfileStats,
    kSetScanMonitoring,
    kGetScanMetrics,
    kCapabilities,
};

inline constexpr const char* kCallNames[] = {
    "vxi_open",
    "vxi_driver_available",
    "vxi_get_stats",
    "vxi_get_conntrack",
    "vxi_get_blacklist",
    "vxi_get_conn_states",
    "vxi_get_varv",
    "vxi_get_var",
    "vxi_set_var",
    "vxi_get_profile_stats",
    "vxi_set_scan_monitoring",
    "vxi_get_scan_metrics",
    "vxi_capabilities",
};

inline constexpr unsigned kCallCount = sizeof kCallNames / sizeof *kCallNames;
static_assert(kCallCount == static_cast<unsigned>(Call::kCapabilities) + 1, "one name a call");

constexpr const char* NameOf(Call call)
{
    return kCallNames[static_cast<unsigned>(call)];
}

// False when no call has that name.
inline bool FindCall(std::string_view name, Call& call)
{
    for (unsigned i = 0; i < kCallCount; ++i) {
        if (name == kCallNames[i]) {
            call = static_cast<Call>(i);
            return true;
        }
    }
    return false;
}

}  // namespace vxi
