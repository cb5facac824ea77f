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
constexpr std::size_t kTextSize = 512;

// Plain characters, so that a thread that ends has nothing to destroy.
thread_local char open_error[kTextSize];

std::atomic<vxi_message_handler> message_handler{nullptr};

}  // namespace

EscapedByte::EscapedByte(char byte, bool blank) : text{byte}, length(1)
{
    static const char kDigits[] = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(byte);
    if ((code > ' ' && code < 0x7f && code != '\\') || (code == ' ' && blank)) {
        return;
    }
    text[0] = '\\';
    text[1] = 'x';
    text[2] = kDigits[code >> 4];
    text[3] = kDigits[code & 15];
    length = 4;
}

BoundedText& BoundedText::Plain(std::string_view text)
{
    const auto length = std::min(text.size(), static_cast<std::size_t>(m_last - m_at));
    std::memcpy(m_at, text.data(), length);
    m_at += length;
    *m_at = '\0';
    return *this;
}

BoundedText& BoundedText::Escaped(std::string_view text)
{
    for (const char byte : text) {
        const EscapedByte escaped(byte, true);
        if (m_last - m_at < static_cast<std::ptrdiff_t>(escaped.length)) {
            break;
        }
        Plain(escaped);
    }
    return *this;
}

StatusWords::StatusWords(int status) : m_words(m_number)
{
    const char* const known = status < 0 && status > -4096 ? strerrordesc_np(-status) : nullptr;
    if (status == VXI_E_UNKNOWN_VARIABLE) {
        m_words = "unknown variable";
    } else if (known) {
        m_words = known;
    } else {
        std::snprintf(m_number, sizeof m_number, "status %d", status);
    }
}

void SetOpenError(std::string_view engine, std::string_view cause)
{
    BoundedText text(open_error);
    if (!engine.empty()) {
        text.Plain("engine ").Plain(engine).Plain(": ").Plain(NameOf(Call::kOpen)).Plain(": ");
    }
    text.Escaped(cause);
}

void Report(const std::string& message)
{
    const vxi_message_handler handler = message_handler;
    if (handler) {
        char text[kTextSize];
        BoundedText(text).Escaped(message);
        handler(text);
    }
}

int Fail(vxi_handle_ops_s* handle, int status, const char* format, ...)
{
    char cause[kTextSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(cause, sizeof cause, format, arguments);
    va_end(arguments);

    BoundedText text(handle->error);
    text.Plain("engine ").Plain(handle->operations->engine).Plain(": ");
    text.Plain(handle->operation).Plain(": ").Escaped(cause);
    handle->explained = true;
    return status;
}

void Trace(vxi_handle_ops_s* handle, int level, const char* source, const char* function, int line,
           const char* format, ...)
{
    if (!handle || level > handle->trace_level || !handle->trace_handler) {
        return;
    }
    char message[kTextSize];
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

int vsnprintf_safe(char* buffer, std::size_t size, const char* format, va_list arguments)
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
