// The host's trace log.
//
// A message belongs to a category; categories are off until the host switches
// them on. Callers ask first and format only then:
//
//     if (VxaCore::LogTraceIsEnabled(category))
//         VxaCore::LogTrace(category, file, line, function, message);
//
// Both functions may be called from any thread at any time, also before main and
// while the process exits. Neither raises.
#pragma once

#include <wx/string.h>

#include "VxaCore/Export.h"

namespace VxaCore {

// Whether messages of this category are wanted now. Costs a few nanoseconds while
// no category at all is on.
VXA_CORE_API bool LogTraceIsEnabled(const wxString& category);

// Writes one record. `file` is the source's path in the source tree without its
// extension ("plugins/filter/fc"); log filters select on it. The record is in the
// log when the call returns. Nothing is written when the category is off.
VXA_CORE_API void LogTrace(const wxString& category, const char* file, int line,
                           const char* function, const wxString& message);

}  // namespace VxaCore
