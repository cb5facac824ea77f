// Escapes strings and replaces what is not UTF-8 (RFC 3629).
#include "engines/linux/tables/JsonString.h"

#include <cstdio>

namespace vxi {

namespace {

bool IsContinuation(std::string_view bytes, std::size_t i)
{
    return i < bytes.size() && (static_cast<unsigned char>(bytes[i]) & 0xc0) == 0x80;
}

// Length of the UTF-8 sequence at the front of `bytes`, 0 when there is none.
std::size_t SequenceLength(std::string_view bytes)
{
    const auto first = static_cast<unsigned char>(bytes[0]);
    const std::size_t length = first < 0x80 ? 1 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if ((first >= 0x80 && first < 0xc2) || first > 0xf4) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if (!IsContinuation(bytes, i)) {
            return 0;
        }
    }
    const auto second = static_cast<unsigned char>(length > 1 ? bytes[1] : 0);
    const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
    const bool beyond = (first == 0xed && second > 0x9f) || (first == 0xf4 && second > 0x8f);
    return overlong || beyond ? 0 : length;
}

void AppendEscaped(std::string& out, char c)
{
    char escape[8];
    snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
    out += escape;
}

}  // namespace

void AppendJsonString(std::string& out, std::string_view bytes)
{
    out += '"';
    while (!bytes.empty()) {
        const std::size_t length = SequenceLength(bytes);
        const char c = bytes[0];
        if (length == 0) {
            out += "\\ufffd";
        } else if (c == '"' || c == '\\') {
            out += {'\\', c};
        } else if (static_cast<unsigned char>(c) < 0x20) {
            AppendEscaped(out, c);
        } else {
            out.append(bytes.substr(0, length));
        }
        bytes.remove_prefix(length == 0 ? 1 : length);
    }
    out += '"';
}

}  // namespace vxi
