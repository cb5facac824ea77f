// UTF-8 decoder and encoder.

#include "StringConversion.h"

#include <cstddef>

namespace fc {
namespace {

bool IsScalarValue(char32_t code_point)
{
    return code_point < 0xd800 || (code_point > 0xdfff && code_point < 0x110000);
}

// Decodes the code point at the start of non-empty bytes. Returns its length in bytes, or 0 if
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

wxString Decode(std::string_view bytes)
{
    std::wstring wide;
    wide.reserve(bytes.size());
    while (!bytes.empty()) {
        const auto byte = static_cast<unsigned char>(bytes[0]);
        char32_t code_point = byte;
        const std::size_t length = byte < 0x80 ? 1 : DecodeUtf8(bytes, &code_point);
        wide += static_cast<wchar_t>(length != 0 ? code_point : byte);
        bytes.remove_prefix(length != 0 ? length : 1);
    }
    return wxString(wide);
}

std::string Encode(const wxString& string)
{
    std::string bytes;
    bytes.reserve(string.length());
    const wchar_t* const wide = string.wx_str();
    for (std::size_t i = 0; i < string.length(); ++i)
        AppendUtf8(&bytes, static_cast<char32_t>(wide[i]));
    return bytes;
}

}  // namespace fc
