// The public calls that dispatch performs on an engine, by name.
#pragma once

#include <string_view>

namespace vxi {

enum class Call : unsigned {
    open,
    driver_available,
    get_stats,
    get_conntrack,
    get_blacklist,
    get_conn_states,
    get_varv,
    get_var,
    set_var,
    get_profile_stats,
    set_scan_monitoring,
    get_scan_metrics,
    capabilities,
};

inline constexpr const char* call_names[] = {
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

inline constexpr unsigned call_count = sizeof call_names / sizeof *call_names;
static_assert(call_count == static_cast<unsigned>(Call::capabilities) + 1, "one name a call");

constexpr const char* name_of(Call call)
{
    return call_names[static_cast<unsigned>(call)];
}

// False when no call has that name.
inline bool find_call(std::string_view name, Call& call)
{
    for (unsigned i = 0; i < call_count; ++i) {
        if (name == call_names[i]) {
            call = static_cast<Call>(i);
            return true;
        }
    }
    return false;
}

}  // namespace vxi
