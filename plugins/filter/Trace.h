// Traces of the module, and its lines in the host's general log.
//
// A trace asks its category first and is composed only then. The source file given to the
// host is a fixed string per area, whatever file the code is in, and some lines and function
// names are fixed too: log filters of the agent select on them.
//
// A line that cannot be composed for want of memory is replaced by one that says so: what a
// function logs must not decide what it does.
#pragma once

#include <cstdarg>

#include <wx/string.h>

namespace fc {

struct TracePoint {
    const char* file;
    int line;
    const char* function;
};

// Strings among the arguments may hold any bytes; see Decode.
void Trace(const wxString& category, const TracePoint& at, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void TraceV(const wxString& category, const TracePoint& at, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// A fault that needs attention, at error level.
void LogError(const TracePoint& at, const char* format, ...) __attribute__((format(printf, 2, 3)));

// At informational level, and only while verbose logging is on.
void LogVerbose(const TracePoint& at, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace fc
