// What the driver's text routines print, and running as somebody without privileges.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

#include "Driver.h"

namespace texts {

inline void Append(tb_dump_s* sink, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    *static_cast<std::string*>(sink->context) += text;
}

// Of one routine: texts::Of([&](tb_dump_s* sink) { tb_dump_stats(sink, stats); })
template <typename Dump>
std::string Of(Dump dump)
{
    std::string text;
    tb_dump_s sink = {Append, &text};
    dump(&sink);
    return text;
}

}  // namespace texts
