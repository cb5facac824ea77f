// Formats the messages of errors.
#include "api/Error.h"

#include <cstdarg>
#include <cstdio>

namespace vxi {

void ThrowError(int status, const char* format, ...)
{
    char message[256];  // what vxi_get_error can return
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    throw Error(status, message);
}

}  // namespace vxi
