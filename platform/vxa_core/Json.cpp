#include "Json.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "vxa_core/json.h"

namespace VxaCore {

namespace {

// Shows what stands at the place where reading failed: one word or sign of it.
void Describe(std::string_view rest, Host::JsonProblem& problem)
{
    constexpr size_t kShown = 20;
    const auto is_control = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    };
    const auto first_control = std::find_if(rest.begin(), rest.end(), is_control);
    size_t length = std::min<size_t>(first_control - rest.begin(), kShown);
    while (length > 0 && length < rest.size() && (rest[length] & 0xC0) == 0x80)
        --length;  // no part of a character
    if (rest.empty())
        std::snprintf(problem.message, sizeof problem.message, "the text ends too early");
    else if (length == 0)
        std::snprintf(problem.message, sizeof problem.message, "unexpected byte 0x%02x",
                      static_cast<unsigned>(rest[0]) & 0xFF);
    else
        std::snprintf(problem.message, sizeof problem.message, "unexpected '%.*s'",
                      static_cast<int>(length), rest.data());
}

// What a text leaves open at its end.
struct Open {
    std::string brackets;  // innermost last
    bool quotes = false;
};

Open Scan(std::string_view text)
{
    Open open;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (open.quotes && c == '\\')
            ++i;
        else if (c == '"')
            open.quotes = !open.quotes;
        else if (!open.quotes && (c == '{' || c == '['))
            open.brackets += c;
        else if (!open.quotes && (c == '}' || c == ']') && !open.brackets.empty())
            open.brackets.pop_back();
    }
    return open;
}

constexpr char kBlanks[] = " \t\r\n";

// Whether a member's name must follow the text, and nothing else may.
bool ExpectsName(std::string_view text)
{
    const size_t last = text.find_last_not_of(kBlanks);
    const Open open = Scan(text);
    return last != text.npos && (text[last] == '{' || text[last] == ',') && !open.quotes &&
           !open.brackets.empty() && open.brackets.back() == '{';
}

bool IsEmptyObject(std::string_view before, char last)
{
    return last == '}' && before[before.find_last_not_of(kBlanks)] == '{';
}

// Where text in quotes was expected, or has no end, the parser stops one character
// behind the cause.
size_t Cause(std::string_view text, size_t stop)
{
    if (stop == 0 || std::strchr(kBlanks, text[stop - 1])) return stop;
    const std::string_view before = text.substr(0, stop - 1);
    if (text[stop - 1] == '"') return Scan(before).quotes ? stop : stop - 1;
    return ExpectsName(before) && !IsEmptyObject(before, text[stop - 1]) ? stop - 1 : stop;
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
    // The parser takes zero bytes for white space or for the end.
    const size_t zero = std::min(text.find('\0'), text.size());
    const char* end = text.data();
    JsonItem item(cJSON_ParseWithLengthOpts(text.data(), zero + 1, &end, true));
    stop = std::min(static_cast<size_t>(end - text.data()), zero);
    if (item && zero < text.size()) item.reset();
    return item;
}

namespace Host {

bool CheckJson(std::string_view text, JsonProblem& problem)
{
    size_t stop = 0;
    if (ParseJson(text, stop)) return true;
    const size_t cause = Cause(text, stop);
    Locate(text.substr(0, cause), problem);
    if (cause < stop && text[cause] == '"')
        std::snprintf(problem.message, sizeof problem.message, "the text in quotes does not end");
    else
        Describe(text.substr(cause), problem);
    return false;
}

}  // namespace Host

}  // namespace VxaCore
