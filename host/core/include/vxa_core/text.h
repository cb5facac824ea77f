// Bytes from anywhere: whether they are text, and how to show them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Whether the bytes are UTF-8 without NUL, which C strings can carry unchanged.
VXA_CORE_API bool IsPlainUtf8(std::string_view bytes);

// Returns the bytes in a form that is safe on a terminal: control characters, bytes that are
// not UTF-8, and characters that are invisible or change the writing direction become \xNN.
// With `multiline`, line feeds and TABs stay. An incomplete character at the end is not UTF-8
// either, so split long input between characters.
VXA_CORE_API std::string Printable(std::string_view bytes, bool multiline);

// Returns a line for every 16 bytes: offset, hexadecimal values, and the bytes as ASCII with
// dots for the others. `offset` is that of the first byte. Each line ends in a line feed.
VXA_CORE_API std::string HexDump(std::string_view bytes, std::uint64_t offset);

}  // namespace VxaCore::Host
