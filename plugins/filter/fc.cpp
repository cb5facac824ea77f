// Module entry, function table and the bridge for the driver library's messages.

#include <new>

#include <wx/dynlib.h>
#include <wx/thread.h>
#include <lua.hpp>

#include "ConnMetrics/ConnMetrics.h"
#include "Diagnostics/Bundle.h"
#include "Export.h"
#include "LuaArgs.h"
#include "LuaBoundary.h"
#include "SLB3/slb.h"
#include "SystemHealth/SystemHealth.h"
#include "Trace.h"
#include "VxaCore/LogTrace.h"
#include "vxi/vxi.h"

extern "C" {
FC_PUBLIC int luaopen_fc(lua_State* L);
}

FC_PUBLIC int EnableNativeFirewall();
FC_PUBLIC int DisableNativeFirewall();
FC_PUBLIC int AddDriverDiagnostics(lua_State* L);
FC_PUBLIC int setup_tbtrace(lua_State* L);
FC_PUBLIC int tb_trace_handler(int number, const char* text, const char* place, int place_number,
                               char* message);

namespace {

constexpr const char* kSource = "plugins/filter/fc";
const wxString s_Trace(L"filter");

// The driver library's levels: everything, nothing.
constexpr int kTraceOn = 3;
constexpr int kTraceOff = 0;

// Loads the module's own file once more. The library object is never freed, so the
// module stays mapped when the Lua state that loaded it closes: the driver library
// keeps its trace handler, and the health state must outlive a reload of the scripts.
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
// module, a thread's first exception takes memory from the loader, which ends the process when it
// has none.
void SetUpExceptions()
{
    try {
        throw std::bad_alloc();
    } catch (const std::bad_alloc&) {
    }
}

wxString VxiCategory()
{
    return wxString(L"VXI");
}

}  // namespace

// The two firewall functions stay in the table for scripts of hosts with a native
// firewall; on this platform there is none to switch.
int EnableNativeFirewall()
{
    return 0;
}

int DisableNativeFirewall()
{
    return 0;
}

// Traced also when an argument is then rejected: the log shows that scripts tried.
int AddDriverDiagnostics(lua_State* L)
{
    constexpr const char* kSelf = "AddDriverDiagnostics";
    fc::Guarded(L, [kSelf] { fc::Trace(s_Trace, {kSource, 80, kSelf}, "%s", kSelf); });
    VxaCore::CDom* dom = fc::CheckDom(L, 1);
    vxi_handle_ops_s* handle = fc::CheckOpenDriverHandle(L, 2);
    VxaCore::CZipOutputStream* zip = fc::CheckZipOutputStream(L, 3);
    bool added = false;
    fc::Guarded(L, [&] {
        added = Filter::Diagnostics::AddDriverContent(dom, handle, *zip);
        fc::Trace(s_Trace, {kSource, 102, kSelf}, "AddDriverContent returned %d", added ? 1 : 0);
    });
    lua_pushboolean(L, added);
    return 1;
}

// Called by the driver library on its own threads; nothing may leave it.
int tb_trace_handler(int number, const char* text, const char* place, int place_number,
                     char* message)
{
    try {
        fc::Trace(VxiCategory(), {kSource, 109, "tb_trace_handler"}, "%s/%d  | %s | %s:%d\n", text,
                  number, message, place, place_number);
    } catch (const std::exception&) {
        // Not even the category could be made: the library's call goes on without the line.
    }
    return 0;
}

int setup_tbtrace(lua_State* L)
{
    // A closed handle is passed on as null: the library decides what that means.
    vxi_handle_ops_s* handle = fc::CheckDriverHandle(L, 1);
    fc::Guarded(L, [handle] {
        if (VxaCore::LogTraceIsEnabled(VxiCategory())) {
            vxi_set_trace_level(handle, kTraceOn);
            vxi_set_trace_handler(handle, tb_trace_handler);
        } else {
            vxi_set_trace_level(handle, kTraceOff);
        }
    });
    return 0;
}

int luaopen_fc(lua_State* L)
{
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
