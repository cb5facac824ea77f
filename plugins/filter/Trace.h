// Traces of the module: ask the category first, format only then.
//
// The source file given to the host is a fixed text per area, whatever file the code
// sits in, and some lines and function names are fixed too: log filters of the agent
// select on them.
#pragma once

#include <wx/string.h>

#include "VxaCore/LogTrace.h"

namespace fc {

struct TracePoint {
    const char* file;
    int line;
    const char* function;
};

template <typename... Args>
void Trace(const wxString& category, const TracePoint& at, const char* format, const Args&... args)
{
    if (VxaCore::LogTraceIsEnabled(category))
        VxaCore::LogTrace(category, at.file, at.line, at.function,
                          wxString::Format(format, args...));
}

}  // namespace fc
