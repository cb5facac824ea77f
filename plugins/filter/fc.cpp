// Module entry: one-time set-up, the function table and the entry point of the diagnostics.

#include <new>

#include <wx/dynlib.h>
#include <wx/thread.h>
#include <lua.hpp>

#include "ConnMetrics/ConnMetrics.h"
#include "Diagnostics/Bundle.h"
#include "Export.h"
#include "LibraryVersions.h"
#include "LuaArgs.h"
#include "LuaBoundary.h"
#include "SLB3/slb.h"
#include "SystemHealth/Cycle.h"
#include "SystemHealth/Queries.h"
#include "Trace.h"
#include "TraceBridge.h"
#include "vxi/vxi.h"

extern "C" {
FC_PUBLIC int luaopen_fc(lua_State* L);
}

FC_PUBLIC int EnableNativeFirewall();
FC_PUBLIC int DisableNativeFirewall();
FC_PUBLIC int AddDriverDiagnostics(lua_State* L);

namespace {

constexpr const char* kTraceFile = "plugins/filter/fc";
const wxString s_Trace(L"filter");

// Loads the module's own file once more. The library object is never deleted, so the module stays
// mapped when the Lua state that loaded it is closed: the driver library keeps its trace handler,
// and the health state outlives a reload of the scripts.
bool TakeSelfReference()
{
    (new wxDynamicLibrary)->Load("fc", wxDL_NOW);
    return true;
}

const bool s_selfReferenceTaken = TakeSelfReference();

wxCriticalSection initFcCS;

void InstallProfilerHooksOnce()
{
    static bool init = false;
    wxCriticalSectionLocker lock(initFcCS);
    if (!init) {
        vxi_set_profiler(profiler_blockfilter, profiler_running);
        init = true;
    }
}

// Throws one exception while there is memory. Where the C++ runtime was loaded together with the
// module, a thread's first exception allocates the runtime's thread-local data, and the loader ends
// the process if that fails (oom() in glibc's elf/dl-tls.c).
void SetUpExceptions()
{
    try {
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
    }
}

}  // namespace

// The two firewall functions are placeholders: scripts may call them, and they do nothing.
int EnableNativeFirewall()
{
    return 0;
}

int DisableNativeFirewall()
{
    return 0;
}

// The first trace message precedes the argument checks, so that rejected calls are logged as well.
int AddDriverDiagnostics(lua_State* L)
{
    constexpr const char* kFunction = "AddDriverDiagnostics";
    fc::Guarded(L, [] { fc::Trace(s_Trace, {kTraceFile, 80, kFunction}, "%s", kFunction); });
    VxaCore::CDom* dom = fc::CheckDom(L, 1);
    vxi_handle_ops_s* handle = fc::CheckOpenDriverHandle(L, 2);
    VxaCore::CZipOutputStream* zip = fc::CheckZipOutputStream(L, 3);
    bool added = false;
    fc::Guarded(L, [&] {
        added = Filter::Diagnostics::AddDriverContent(dom, handle, *zip);
        fc::Trace(s_Trace, {kTraceFile, 102, kFunction}, "AddDriverContent returned %d",
                  added ? 1 : 0);
    });
    lua_pushboolean(L, added);
    return 1;
}

int luaopen_fc(lua_State* L)
{
    fc::CheckLibraryVersions(L);
    SetUpExceptions();
    fc::Guarded(L, InstallProfilerHooksOnce);
    SLB3::Namespace(L, "SLB.filter")
        .set("EnableNativeFirewall", EnableNativeFirewall)
        .set("DisableNativeFirewall", DisableNativeFirewall)
        .set("AddDriverDiagnostics", AddDriverDiagnostics)
        .set("setup_tbtrace", setup_tbtrace)
        .set("AddToConnMetrics", AddToConnMetrics)
        .set("UpdateConnMetrics", UpdateConnMetrics)
        .set("GetConnMetrics", GetConnMetrics)
        .set("CheckSystemHealthMetrics", CheckSystemHealthMetrics)
        .set("GetSysHealthMetrics", GetSysHealthMetrics)
        .set("GetSysHealthEnabled", GetSysHealthEnabled)
        .set("GetScanMetricPort", GetScanMetricPort);
    lua_pushboolean(L, 1);
    return 1;
}
