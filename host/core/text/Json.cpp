// Reading and writing JSON.
#include "text/Json.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "text/HexEscape.h"

namespace VxaCore {

ParsedJson ParseJson(std::string_view text)
{
    // The parser takes NUL bytes for white space or for the end.
    const std::size_t nul = std::min(text.find('\0'), text.size());
    const char* end = text.data();
    JsonItem item(cJSON_ParseWithLengthOpts(text.data(), nul + 1, &end, true));
    if (nul < text.size()) item.reset();
    return {std::move(item), std::min(static_cast<std::size_t>(end - text.data()), nul)};
}

JsonPosition PositionAt(std::string_view text, std::size_t offset)
{
    const std::string_view before = text.substr(0, offset);
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto starts_character = [](char c) { return (c & 0xC0) != 0x80; };
    return {1 + std::count(before.begin(), before.end(), '\n'),
            1 + std::count_if(line.begin(), line.end(), starts_character)};
}

void AppendJsonString(std::string& out, std::string_view utf8)
{
    out += '"';
    for (const char c : utf8) {
        if (c == '"' || c == '\\')
            (out += '\\') += c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '\t')
            out += "\\t";
        else if (IsControl(c))
            AppendHexEscape(out, "\\u00", c);
        else
            out += c;
    }
    out += '"';
}

double SecondsSinceEpoch()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void AppendJsonTime(std::string& out, double time_s)
{
    char digits[40];
    const auto total_us = std::llround(time_s * 1e6);
    std::snprintf(digits, sizeof digits, "%lld.%06lld", total_us / 1000000, total_us % 1000000);
    out += digits;
}

}  // namespace VxaCore
