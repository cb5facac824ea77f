// Bounded formatting, and the printf that the interface offers for it.
#include "api/BoundedText.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "vxi/vxi.h"

namespace vxi {

EscapedByte::EscapedByte(char byte, bool keep_space) : text{byte}, length(1)
{
    static const char kDigits[] = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(byte);
    if ((code > ' ' && code < 0x7f && code != '\\') || (code == ' ' && keep_space)) {
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

}  // namespace vxi

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
