// Conversions to and from UTF-8.
#include "text/Utf8.h"

#include "vxa_core/text.h"

namespace VxaCore {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

void AppendCodePoint(std::string& out, char32_t c)
{
    if (c == 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
        out += kReplacement;
    } else if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        }
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

}  // namespace

// The bounds of the second byte exclude overlong forms and surrogates.
std::size_t SequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return lead == 0 ? 0 : 1;
    const std::size_t length = lead < 0xC2   ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || text.size() < length) return 0;
    const unsigned char low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if ((byte(i) & 0xC0) != 0x80) return 0;
    return length;
}

std::string ToUtf8(const wxString& text)
{
    std::string out;
    out.reserve(text.length());
    const wchar_t* wide = text.wc_str();
    for (std::size_t i = 0; i < text.length(); ++i)
        AppendCodePoint(out, static_cast<char32_t>(wide[i]));
    return out;
}

std::string ReplaceInvalidUtf8(const char* bytes)
{
    std::string out;
    std::string_view rest = bytes ? bytes : "";
    while (!rest.empty()) {
        const std::size_t length = SequenceLength(rest);
        if (length == 0)
            out += kReplacement;
        else
            out += rest.substr(0, length);
        rest.remove_prefix(length == 0 ? 1 : length);
    }
    return out;
}

wxString FromUtf8(const std::string& bytes)
{
    return wxString::FromUTF8(ReplaceInvalidUtf8(bytes.c_str()).c_str());
}

bool Host::IsPlainUtf8(std::string_view bytes)
{
    while (!bytes.empty()) {
        const std::size_t length = SequenceLength(bytes);
        if (length == 0) return false;
        bytes.remove_prefix(length);
    }
    return true;
}

}  // namespace VxaCore
