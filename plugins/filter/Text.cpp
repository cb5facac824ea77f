#include "Text.h"

#include <cstdint>
#include <cstdio>
#include <new>

namespace fc {
namespace {

bool IsScalarValue(char32_t code_point)
{
    return code_point < 0xd800 || (code_point > 0xdfff && code_point < 0x110000);
}

// Stores the code point at the start of non-empty bytes and returns how many it takes; 0 when
// they do not start with valid UTF-8 (RFC 3629).
std::size_t DecodeUtf8(std::string_view bytes, char32_t* code_point)
{
    static constexpr char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const std::size_t length = lead < 0xc2 ? 0 : lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
    if (lead > 0xf4 || length == 0 || length > bytes.size()) return 0;
    *code_point = lead & (0x7fu >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if ((byte & 0xc0) != 0x80) return 0;
        *code_point = *code_point << 6 | (byte & 0x3fu);
    }
    return *code_point >= kSmallest[length] && IsScalarValue(*code_point) ? length : 0;
}

void AppendUtf8(std::string* bytes, char32_t code_point)
{
    int tail = code_point < 0x80 ? 0 : code_point < 0x800 ? 1 : code_point < 0x10000 ? 2 : 3;
    static constexpr char32_t kLeads[] = {0, 0xc0, 0xe0, 0xf0};
    *bytes += static_cast<char>(kLeads[tail] | code_point >> 6 * tail);
    while (tail-- > 0) *bytes += static_cast<char>(0x80 | (code_point >> 6 * tail & 0x3f));
}

}  // namespace

std::string FormatV(const char* format, va_list arguments)
{
    char buffer[512];
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, measured);
    va_end(measured);
    // No memory, or a result longer than an int can count.
    if (length < 0) throw std::bad_alloc();
    const auto size = static_cast<std::size_t>(length);
    if (size < sizeof buffer) return {buffer, size};
    std::string bytes(size, '\0');
    std::vsnprintf(bytes.data(), size + 1, format, arguments);
    return bytes;
}

wxString Decode(std::string_view bytes)
{
    std::wstring text;
    text.reserve(bytes.size());
    while (!bytes.empty()) {
        const auto byte = static_cast<unsigned char>(bytes[0]);
        char32_t code_point = byte;
        const std::size_t length = byte < 0x80 ? 1 : DecodeUtf8(bytes, &code_point);
        text += static_cast<wchar_t>(length != 0 ? code_point : byte);
        bytes.remove_prefix(length != 0 ? length : 1);
    }
    return wxString(text);
}

std::string Encode(const wxString& text)
{
    std::string bytes;
    bytes.reserve(text.length());
    const wchar_t* const wide = text.wx_str();
    for (std::size_t i = 0; i < text.length(); ++i)
        AppendUtf8(&bytes, static_cast<char32_t>(wide[i]));
    return bytes;
}

}  // namespace fc
