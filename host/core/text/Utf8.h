// Conversions to and from UTF-8 (RFC 3629) that accept any input.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <wx/string.h>

namespace VxaCore {

// Surrogates, code points above 0x10FFFF and NUL become U+FFFD: what is written to files is
// read as C strings.
std::string ToUtf8(const wxString& text);

// Each byte that is not part of UTF-8 becomes U+FFFD; null is the empty string.
std::string ReplaceInvalidUtf8(const char* bytes);
wxString FromUtf8(const std::string& bytes);

// Length of the well-formed sequence at the start of a non-empty string; 0 if there is none
// or it is a NUL.
std::size_t SequenceLength(std::string_view text);

}  // namespace VxaCore
