// Reading and writing JSON (RFC 8259).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "vxa_core/json.h"

namespace VxaCore {

using Host::JsonItem;

struct ParsedJson {
    JsonItem item;     // null if the text is not a JSON value
    std::size_t stop;  // offset where the parser stopped
};

// Parses one value, with only white space after it. `text` must be followed by a NUL.
ParsedJson ParseJson(std::string_view text);

// Both count from 1; columns are characters.
struct JsonPosition {
    std::ptrdiff_t line;
    std::ptrdiff_t column;
};
JsonPosition PositionAt(std::string_view text, std::size_t offset);

// Appends a string with its quotes. `utf8` must be UTF-8.
void AppendJsonString(std::string& out, std::string_view utf8);

double SecondsSinceEpoch();

// Appends seconds since the epoch, to the microsecond, as a number.
void AppendJsonTime(std::string& out, double time_s);

}  // namespace VxaCore
