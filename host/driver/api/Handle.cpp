// Trace messages of handles.
#include "api/Handle.h"

#include <cstdarg>

namespace vxi {

void Trace(vxi_handle_ops_s* handle, int level, const char* source, const char* function, int line,
           const char* format, ...)
{
    if (!handle || level > handle->trace_level || !handle->trace_handler) {
        return;
    }
    char message[512];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(message, sizeof message, format, arguments);
    va_end(arguments);
    handle->trace_handler(level, source, function, line, message);
}

}  // namespace vxi
