// Traces of the module: ask the category first, format only then.
//
// The source file given to the host is a fixed text per area, whatever file the code
// sits in, and some lines and function names are fixed too: log filters of the agent
// select on them.
#pragma once

#include <type_traits>

#include <wx/strconv.h>
#include <wx/string.h>

#include "VxaCore/LogTrace.h"

namespace fc {

struct TracePoint {
    const char* file;
    int line;
    const char* function;
};

// A text from outside for a log line. Bytes that the locale cannot decode are read as
// UTF-8 or else one by one: a message about a broken text must still show it.
inline wxString Decode(const char* text)
{
    return text != nullptr ? wxString(text, wxConvWhateverWorks) : wxString("(null)");
}

template <typename T>
decltype(auto) Printable(const T& value)
{
    if constexpr (std::is_convertible_v<std::decay_t<const T&>, const char*> && !std::is_class_v<T>)
        return Decode(value);
    else
        return (value);
}

template <typename... Args>
void Trace(const wxString& category, const TracePoint& at, const char* format, const Args&... args)
{
    if (VxaCore::LogTraceIsEnabled(category))
        VxaCore::LogTrace(category, at.file, at.line, at.function,
                          wxString::Format(format, Printable(args)...));
}

}  // namespace fc
