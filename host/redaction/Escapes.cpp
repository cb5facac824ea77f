// Writes and reads \xNN.
#include "redaction/Escapes.h"

#include <algorithm>
#include <charconv>

namespace vxa::redaction {

int HexValue(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

void AppendEscaped(std::string& out, std::string_view bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > ' ' && byte < 0x7f && c != '\\')
            out += c;
        else
            ((out += "\\x") += kDigits[byte >> 4]) += kDigits[byte & 15];
    }
}

std::string Unescape(std::string_view text)
{
    std::string bytes;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool is_escape = text.substr(at, 2) == "\\x" && at + 3 < text.size() &&
                               HexValue(text[at + 2]) >= 0 && HexValue(text[at + 3]) >= 0;
        bytes += is_escape ? static_cast<char>(HexValue(text[at + 2]) << 4 | HexValue(text[at + 3]))
                           : text[at];
        at += is_escape ? 3 : 0;
    }
    return bytes;
}

void AppendNumber(std::string& out, std::uint64_t number, int base, std::size_t digits)
{
    char text[20];
    const char* const end = std::to_chars(text, text + sizeof text, number, base).ptr;
    const auto length = static_cast<std::size_t>(end - text);
    out.append(digits - std::min(digits, length), '0').append(text, length);
}

}  // namespace vxa::redaction
