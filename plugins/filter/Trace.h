// Trace messages of the module and its messages in the host's general log.
//
// Log filters match the file name, some of the lines and the function names of trace messages, so
// these are fixed: one file name per area, whatever source file the code is in.
//
// A message that cannot be composed for lack of memory is replaced by one that says so. Logging
// never changes what a function does.
#pragma once

#include <cstdarg>

#include <wx/string.h>

namespace fc {

struct TracePoint {
    const char* file;  // path in the source tree, without extension
    int line;
    const char* function;
};

// Composes and writes the message only if the category is enabled. String arguments may hold any
// bytes; see Decode.
void Trace(const wxString& category, const TracePoint& at, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void TraceV(const wxString& category, const TracePoint& at, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

// Writes to the general log at error level.
void LogError(const TracePoint& at, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes to the general log at informational level while verbose logging is on.
void LogVerbose(const TracePoint& at, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace fc
