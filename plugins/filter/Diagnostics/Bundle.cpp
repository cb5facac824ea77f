// The driver's part of a diagnostic package: the dumps in their fixed order.

#include "Bundle.h"

#include "DumpTrace.h"
#include "Dumps.h"

namespace Filter::Diagnostics {

bool AddDriverContent(VxaCore::CDom* dom, vxi_handle_ops_s* handle, VxaCore::CZipOutputStream& zip)
{
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
    TraceAt(74, "AddDriverContent", "AddDriverContent()");
    for (const auto& dump : kDumps)
        if (!dump.add(dom, handle, zip)) TraceAt(dump.line, "AddDriverContent", "%s", dump.failure);
    return true;
}

}  // namespace Filter::Diagnostics
