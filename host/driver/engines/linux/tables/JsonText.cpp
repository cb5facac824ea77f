#include "engines/linux/tables/JsonText.h"

#include <cstdio>

namespace vxi {

namespace {

bool Continues(std::string_view text, std::size_t i)
{
    return i < text.size() && (static_cast<unsigned char>(text[i]) & 0xc0) == 0x80;
}

// Length of the UTF-8 sequence (RFC 3629) at the text's start: 0 when there is none.
std::size_t SequenceLength(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text[0]);
    const std::size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xc2) || first > 0xf4) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!Continues(text, i)) {
            return 0;
        }
    }
    const auto second = static_cast<unsigned char>(length > 1 ? text[1] : 0);
    const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool beyond = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    return overlong || beyond ? 0 : length;
}

void append_escaped(std::string& out, char c)
{
    char escape[8];
    snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
    out += escape;
}

}  // namespace

void append_json_text(std::string& out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        const std::size_t length = SequenceLength(text);
        const char c = text[0];
        if (length == 0) {
            out += "\\ufffd";
        } else if (c == '"' || c == '\\') {
            out += {'\\', c};
        } else if (static_cast<unsigned char>(c) < 0x20) {
            append_escaped(out, c);
        } else {
            out.append(text.substr(0, length));
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

}  // namespace vxi
