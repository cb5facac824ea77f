// Rule-profiling statistics: the driver's payload byte for byte.

#include <algorithm>

#include "TextEntry.h"

namespace Filter::Diagnostics {
namespace {

struct Profile {
    std::uint32_t size;
    unsigned char payload[1];
};

constexpr unsigned int kProfilingSwitch = VXA_FILTER_VARIABLE_RULE_PROFILING;

// Null when the driver has no statistics, or when they cannot be had.
Block<Profile> ReadProfile(VxaCore::CDom* dom, vxi_handle_ops_s* handle)
{
    std::uint32_t size = 0;
    if (vxi_get_profile_stats(handle, &size) != 0 || size == 0) return nullptr;
    Block<Profile> block(static_cast<Profile*>(std::malloc(sizeof size + std::size_t{size})));
    if (!block) {
        TraceLine(182, "AddDriverRuleStats", "malloc() failed");
        return nullptr;
    }
    block->size = size;
    const int rc = vxi_get_profile_stats(handle, block.get());
    if (!ShowErrors(dom, handle, L"vxi_get_profile_stats()", rc)) return nullptr;
    if (block->size > size)
        TraceLine(190, "AddDriverRuleStats", "driver reported %u bytes, room for %u", block->size,
                  size);
    block->size = std::min(block->size, size);
    return block;
}

// A profiling run ends with its report.
void StopProfiling(vxi_handle_ops_s* handle)
{
    vxa_filter_variable_s variable{};
    if (vxi_get_var(handle, kProfilingSwitch, &variable) == 0 && variable.value == 1)
        vxi_set_var(handle, kProfilingSwitch, 0);
}

}  // namespace

bool AddDriverRuleStats(VxaCore::CDom* dom, vxi_handle_ops_s* handle,
                        VxaCore::CZipOutputStream& zip)
{
    TraceLine(164, "AddDriverRuleStats", "AddDriverRuleStats()");
    const Block<Profile> profile = ReadProfile(dom, handle);
    std::string_view payload("");
    if (profile) {
        payload = {reinterpret_cast<const char*>(profile->payload), profile->size};
        StopProfiling(handle);
    }
    // Not text: the entry's bytes are the driver's own format.
    return AddEntry(zip, L"vxa.tpf", false, payload);
}

}  // namespace Filter::Diagnostics
