// Driver trace bridge: the driver library's messages in the host's trace log.

#include "TraceBridge.h"

#include <exception>

#include "LuaArgs.h"
#include "LuaBoundary.h"
#include "Trace.h"
#include "VxaCore/LogTrace.h"
#include "vxi/vxi.h"

namespace {

// Trace levels of the driver library: everything, nothing.
constexpr int kTraceOn = 3;
constexpr int kTraceOff = 0;

// Made for each call: the driver library may trace while the process exits, after static objects
// are gone.
wxString VxiCategory()
{
    return wxString(L"VXI");
}

}  // namespace

int tb_trace_handler(int level, const char* source, const char* function, int line, char* message)
{
    try {
        fc::Trace(VxiCategory(), {"plugins/filter/fc", 109, "tb_trace_handler"},
                  "%s/%d  | %s | %s:%d\n", source, level, message, function, line);
    } catch (const std::exception&) {
        // Out of memory even for the category. The caller is C code; the message is dropped.
    }
    return 0;
}

int setup_tbtrace(lua_State* L)
{
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
