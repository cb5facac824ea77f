#include "engines/linux/Outcome.h"

#include <cstdarg>
#include <cstdio>

namespace vxi {

Outcome Failure(int status, const char* format, ...)
{
    char text[192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return {status, text};
}

}  // namespace vxi
