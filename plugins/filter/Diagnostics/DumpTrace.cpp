// Traces of the driver diagnostics.

#include "DumpTrace.h"

#include <cstdarg>

#include "Trace.h"

namespace Filter {

const wxString s_Trace(L"diagnostics");

void Diagnostics::TraceAt(int line, const char* function, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fc::TraceV(s_Trace, {"plugins/filter/Diagnostics", line, function}, format, arguments);
    va_end(arguments);
}

}  // namespace Filter
