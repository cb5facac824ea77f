// Formats the messages of errors and describes statuses.
#include "api/Error.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vxi/vxi.h"

namespace vxi {

std::string DescribeStatus(int status)
{
    if (status == VXI_E_UNKNOWN_VARIABLE) {
        return "unknown variable";
    }
    const char* const known = status < 0 && status > -4096 ? strerrordesc_np(-status) : nullptr;
    return known ? known : "status " + std::to_string(status);
}

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
