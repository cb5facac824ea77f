// Bytes written as \xNN, as in the driver's dumps, and numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vxa::redaction {

// Appends the bytes with everything but printable ASCII, and the backslash, as \xNN.
void AppendEscaped(std::string& out, std::string_view bytes);

// Returns the bytes that AppendEscaped was given. Anything else with a backslash stays.
std::string Unescape(std::string_view text);

// The value of a hexadecimal digit; -1 for any other character.
int HexValue(char c);

// Appends a number in base 10 or 16, with zeros in front up to `digits`.
void AppendNumber(std::string& out, std::uint64_t number, int base, std::size_t digits = 1);

}  // namespace vxa::redaction
