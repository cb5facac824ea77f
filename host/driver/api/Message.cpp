// Error texts, trace messages and bounded formatting.
#include "api/Message.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "api/Calls.h"
#include "api/Engine.h"

namespace vxi {

namespace {

// Longest text formatted at once; a handle keeps less, so nothing is lost here first.
constexpr std::size_t text_size = 512;

// Plain characters, so that a thread that ends has nothing to destroy.
thread_local char open_error[text_size];

std::atomic<vxi_message_handler> message_handler{nullptr};

}  // namespace

EscapedByte::EscapedByte(char byte, bool blank) : text{byte}, length(1)
{
    static const char digits[] = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(byte);
    if ((code > ' ' && code < 0x7f && code != '\\') || (code == ' ' && blank)) {
        return;
    }
    text[0] = '\\';
    text[1] = 'x';
    text[2] = digits[code >> 4];
    text[3] = digits[code & 15];
    length = 4;
}

BoundedText& BoundedText::plain(std::string_view text)
{
    const auto length = std::min(text.size(), static_cast<std::size_t>(last_ - at_));
    std::memcpy(at_, text.data(), length);
    at_ += length;
    *at_ = '\0';
    return *this;
}

BoundedText& BoundedText::escaped(std::string_view text)
{
    for (const char byte : text) {
        const EscapedByte escaped(byte, true);
        if (last_ - at_ < static_cast<std::ptrdiff_t>(escaped.length)) {
            break;
        }
        plain(escaped);
    }
    return *this;
}

StatusWords::StatusWords(int status) : words_(number_)
{
    const char* const known = status < 0 && status > -4096 ? strerrordesc_np(-status) : nullptr;
    if (status == VXI_E_UNKNOWN_VARIABLE) {
        words_ = "unknown variable";
    } else if (known) {
        words_ = known;
    } else {
        std::snprintf(number_, sizeof number_, "status %d", status);
    }
}

void set_open_error(std::string_view engine, std::string_view cause)
{
    BoundedText text(open_error);
    if (!engine.empty()) {
        text.plain("engine ").plain(engine).plain(": ").plain(name_of(Call::open)).plain(": ");
    }
    text.escaped(cause);
}

void report(const std::string& message)
{
    const vxi_message_handler handler = message_handler;
    if (handler) {
        char text[text_size];
        BoundedText(text).escaped(message);
        handler(text);
    }
}

int fail(vxi_handle_ops_s* handle, int status, const char* format, ...)
{
    char cause[text_size];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(cause, sizeof cause, format, arguments);
    va_end(arguments);

    BoundedText text(handle->error);
    text.plain("engine ").plain(handle->operations->engine).plain(": ");
    text.plain(handle->operation).plain(": ").escaped(cause);
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

void vxi_set_message_handler(vxi_message_handler handler)
{
    vxi::message_handler = handler;
}

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
