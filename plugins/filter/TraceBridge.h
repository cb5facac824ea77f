// Driver trace bridge: the driver library's messages in the host's trace log.
#pragma once

#include <lua.hpp>

#include "Export.h"

// Lua function setup_tbtrace(handle): has the driver library trace this handle while the trace
// category "VXI" is enabled. Accepts a closed handle and passes it on as null.
FC_PUBLIC int setup_tbtrace(lua_State* L);

// Trace handler for vxi_set_trace_handler. Writes one trace message of the category "VXI". May be
// called on any thread, never throws, returns 0.
FC_PUBLIC int tb_trace_handler(int level, const char* source, const char* function, int line,
                               char* message);
