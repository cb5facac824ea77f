// The driver's part of a diagnostic package: all dumps in their fixed order.

#include "TextEntry.h"

namespace Filter::Diagnostics {

bool AddDriverContent(VxaCore::CDom* dom, vxi_handle_ops_s* handle, VxaCore::CZipOutputStream& zip)
{
    constexpr const char* kSelf = "AddDriverContent";
    static constexpr struct {
        bool (*add)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);
        const char* failure;
        int line;
    } kDumps[] = {
        {AddDriverStatistics, "AddDriverStatistics diagnostics failed", 77},
        {AddDriverVariables, "AddDriverVariables diagnostics failed", 80},
        {AddDriverConnTrack, "AddDriverConnTrack diagnostics failed", 83},
        {AddDriverBlacklist, "AddDriverBlacklist diagnostics failed", 86},
        {AddDriverRuleStats, "AddDriverRuleStats diagnostics failed", 89},
    };
    TraceLine(74, kSelf, "AddDriverContent()");
    for (const auto& dump : kDumps)
        if (!dump.add(dom, handle, zip)) TraceLine(dump.line, kSelf, "%s", dump.failure);
    return true;
}

}  // namespace Filter::Diagnostics
