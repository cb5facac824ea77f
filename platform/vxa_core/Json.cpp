#include "Json.h"

#include <algorithm>
#include <cstdio>

#include "vxa_core/json.h"

namespace VxaCore {

namespace {

// Shows what stands at the place where reading failed: one word or sign of it.
void Describe(std::string_view rest, Host::JsonProblem& problem)
{
    constexpr size_t kShown = 20;
    if (rest.empty()) {
        std::snprintf(problem.message, sizeof problem.message, "the text ends too early");
    } else if (rest[0] == '\0') {
        std::snprintf(problem.message, sizeof problem.message, "unexpected zero byte");
    } else {
        const size_t end = std::min(rest.find_first_of(std::string_view("\r\n\0", 3)), kShown);
        size_t length = std::min(end, rest.size());
        while (length > 0 && length < rest.size() && (rest[length] & 0xC0) == 0x80)
            --length;  // no part of a character
        std::snprintf(problem.message, sizeof problem.message, "unexpected '%.*s'",
                      static_cast<int>(length), rest.data());
    }
}

void Locate(std::string_view before, Host::JsonProblem& problem)
{
    const size_t line_start = before.rfind('\n') + 1;
    const std::string_view line = before.substr(line_start);
    const auto starts_character = [](char c) { return (c & 0xC0) != 0x80; };
    problem.line = 1 + static_cast<unsigned>(std::count(before.begin(), before.end(), '\n'));
    problem.column =
        1 + static_cast<unsigned>(std::count_if(line.begin(), line.end(), starts_character));
}

}  // namespace

JsonItem ParseJson(std::string_view text, size_t& stop)
{
    const char* end = text.data();
    JsonItem item(cJSON_ParseWithLengthOpts(text.data(), text.size() + 1, &end, true));
    stop = std::min(static_cast<size_t>(end - text.data()), text.size());
    // The parser takes a NUL inside the text for its end.
    if (item && stop < text.size()) item.reset();
    return item;
}

namespace Host {

bool CheckJson(std::string_view text, JsonProblem& problem)
{
    size_t stop = 0;
    if (ParseJson(text, stop)) return true;
    Locate(text.substr(0, stop), problem);
    Describe(text.substr(stop), problem);
    return false;
}

}  // namespace Host

}  // namespace VxaCore
