// The driver's part of a diagnostic package: all dumps in their fixed order.

#include "TextEntry.h"

namespace Filter::Diagnostics {

bool AddDriverContent(VxaCore::CDom* dom, vxi_handle_ops_s* handle, VxaCore::CZipOutputStream& zip)
{
    constexpr const char* self = "AddDriverContent";
    static constexpr struct {
        bool (*add)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);
        const char* failure;
        int line;
    } dumps[] = {
        {AddDriverStatistics, "AddDriverStatistics diagnostics failed", 77},
        {AddDriverVariables, "AddDriverVariables diagnostics failed", 80},
        {AddDriverConnTrack, "AddDriverConnTrack diagnostics failed", 83},
        {AddDriverBlacklist, "AddDriverBlacklist diagnostics failed", 86},
        {AddDriverRuleStats, "AddDriverRuleStats diagnostics failed", 89},
    };
    TraceLine(74, self, "AddDriverContent()");
    for (const auto& dump : dumps)
        if (!dump.add(dom, handle, zip)) TraceLine(dump.line, self, "%s", dump.failure);
    return true;
}

}  // namespace Filter::Diagnostics
