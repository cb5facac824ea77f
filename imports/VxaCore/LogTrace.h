// The host's trace log.
//
// A message belongs to a category; categories are off until the host switches them on. Ask
// first and format only then:
//
//     if (VxaCore::LogTraceIsEnabled(category))
//         VxaCore::LogTrace(category, file, line, function, message);
//
// Both functions may be called from any thread at any time, also before main and during exit.
// Neither throws.
#pragma once

#include <wx/string.h>

#include "VxaCore/Export.h"

namespace VxaCore {

// Whether the category is on. Costs a few nanoseconds while all categories are off.
VXA_CORE_API bool LogTraceIsEnabled(const wxString& category);

// Writes one record if the category is on; it is in the log when the call returns. `file` is
// the path of the source file without its extension ("plugins/filter/fc"); log filters select
// on it.
VXA_CORE_API void LogTrace(const wxString& category, const char* file, int line,
                           const char* function, const wxString& message);

}  // namespace VxaCore
