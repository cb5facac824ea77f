// Single bytes written as hexadecimal digits.
#pragma once

#include <string>

namespace VxaCore {

// An ASCII control character.
inline bool IsControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

// Appends the prefix and the byte's two hexadecimal digits.
inline void AppendHexEscape(std::string& out, const char* prefix, char c)
{
    constexpr char kDigits[] = "0123456789abcdef";
    const auto byte = static_cast<unsigned char>(c);
    ((out += prefix) += kDigits[byte >> 4]) += kDigits[byte & 0xF];
}

}  // namespace VxaCore
