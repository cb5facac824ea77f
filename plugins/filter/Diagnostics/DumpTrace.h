// Traces of the driver diagnostics.
#pragma once

#include <wx/string.h>

namespace Filter {

extern const wxString s_Trace;  // the category, "diagnostics"

namespace Diagnostics {

// Traces a message as coming from plugins/filter/Diagnostics. Line and function name are fixed
// wherever the code is: log filters select on them.
void TraceAt(int line, const char* function, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

}  // namespace Diagnostics
}  // namespace Filter
