#include "document/Json.h"

#include <algorithm>

namespace VxaCore {

JsonItem ParseJson(std::string_view text, std::size_t& stop)
{
    // The parser takes zero bytes for white space or for the end.
    const std::size_t zero = std::min(text.find('\0'), text.size());
    const char* end = text.data();
    JsonItem item(cJSON_ParseWithLengthOpts(text.data(), zero + 1, &end, true));
    stop = std::min(static_cast<std::size_t>(end - text.data()), zero);
    if (item && zero < text.size()) item.reset();
    return item;
}

JsonPlace PlaceOf(std::string_view text, std::size_t position)
{
    const std::string_view before = text.substr(0, position);
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto starts_character = [](char c) { return (c & 0xC0) != 0x80; };
    return {1 + std::count(before.begin(), before.end(), '\n'),
            1 + std::count_if(line.begin(), line.end(), starts_character)};
}

}  // namespace VxaCore
