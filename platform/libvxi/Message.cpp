// Error texts, trace messages and bounded formatting.
#include "Message.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "Engine.h"

namespace vxi {

namespace {

// Longest text formatted at once; a handle keeps less, so nothing is lost here first.
constexpr std::size_t text_size = 512;

// Plain characters, so that a thread that ends has nothing to destroy.
thread_local char open_error[256];

}  // namespace

std::string describe_status(int status)
{
    if (status == VXI_E_UNKNOWN_VARIABLE) {
        return "unknown variable";
    }
    const char* words = status < 0 && status > -4096 ? strerrordesc_np(-status) : nullptr;
    return words ? words : "status " + std::to_string(status);
}

void append_ascii(std::string& out, std::string_view text, bool blank)
{
    static const char digits[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte > ' ' && byte < 0x7f && byte != '\\') || (byte == ' ' && blank)) {
            out += c;
        } else {
            out += {'\\', 'x', digits[byte >> 4], digits[byte & 15]};
        }
    }
}

void copy_text(char* buffer, std::size_t size, std::string_view text)
{
    const std::size_t length = std::min(size - 1, text.size());
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}

void set_open_error(std::string_view text)
{
    std::string ascii;
    append_ascii(ascii, text, true);
    copy_text(open_error, sizeof open_error, ascii);
}

int fail(vxi_handle_ops_s* handle, int status, const char* format, ...)
{
    char cause[text_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(cause, sizeof cause, format, arguments);
    va_end(arguments);

    std::string text = std::string("engine ") + handle->operations->engine + ": " +
                       (handle->operation ? handle->operation : "") + ": ";
    append_ascii(text, cause, true);
    copy_text(handle->error, sizeof handle->error, text);
    handle->explained = true;
    return status;
}

void trace(vxi_handle_ops_s* handle, int level, const char* source, const char* function, int line,
           const char* format, ...)
{
    if (!handle || level > handle->trace_level || !handle->trace_handler) {
        return;
    }
    char message[text_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(message, sizeof message, format, arguments);
    va_end(arguments);
    handle->trace_handler(level, source, function, line, message);
}

}  // namespace vxi

const char* vxi_open_error(void)
{
    return vxi::open_error;
}

int vsnprintf_safe(char* buffer, size_t size, const char* format, va_list arguments)
{
    if (!buffer || size == 0) {
        return 0;
    }
    const int length = format ? std::vsnprintf(buffer, size, format, arguments) : -1;
    if (length < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<int>(std::min<std::size_t>(static_cast<std::size_t>(length), size - 1));
}
