// The driver's rule-profiling statistics as an archive entry, byte for byte.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "ArchiveEntry.h"
#include "DriverErrors.h"
#include "DumpTrace.h"
#include "Dumps.h"
#include "MallocPtr.h"

namespace Filter::Diagnostics {
namespace {

constexpr const char* kFunction = "AddDriverRuleStats";

struct Profile {
    std::uint32_t size;
    unsigned char payload[1];
};

// Returns null if the driver has no statistics, or if they could not be read.
MallocPtr<Profile> ReadProfile(VxaCore::CDom* dom, vxi_handle_ops_s* handle)
{
    std::uint32_t size = 0;
    if (vxi_get_profile_stats(handle, &size) != 0 || size == 0) return nullptr;
    MallocPtr<Profile> profile(static_cast<Profile*>(std::malloc(sizeof size + std::size_t{size})));
    if (!profile) {
        TraceAt(182, kFunction, "malloc() failed");
        return nullptr;
    }
    profile->size = size;
    const int rc = vxi_get_profile_stats(handle, profile.get());
    if (!ShowErrors(dom, handle, L"vxi_get_profile_stats()", rc)) return nullptr;
    if (profile->size > size)
        TraceAt(190, kFunction, "driver reported %u bytes, room for %u", profile->size, size);
    profile->size = std::min(profile->size, size);
    return profile;
}

// Ends profiling: a run lasts until its profile has been read.
void StopProfiling(vxi_handle_ops_s* handle)
{
    constexpr unsigned int kSwitch = VXA_FILTER_VARIABLE_RULE_PROFILING;
    vxa_filter_variable_s variable{};
    if (vxi_get_var(handle, kSwitch, &variable) == 0 && variable.value == 1)
        vxi_set_var(handle, kSwitch, 0);
}

}  // namespace

bool AddDriverRuleStats(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceAt(164, kFunction, "AddDriverRuleStats()");
    const MallocPtr<Profile> profile = ReadProfile(dom, handle);
    std::string_view payload("");
    if (profile) {
        payload = {reinterpret_cast<const char*>(profile->payload), profile->size};
        StopProfiling(handle);
    }
    return AddBinaryEntry(zip, kRuleStatsEntry, payload);
}

}  // namespace Filter::Diagnostics
