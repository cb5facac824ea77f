// Showing bytes that may come from anywhere.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// The bytes in a form that is safe on a terminal: control characters, bytes that are not
// UTF-8, and characters that change the direction of writing or are invisible become
// \xNN. With `multiline`, line feeds and TABs stay. An incomplete character at the end is
// not UTF-8 either, so pieces must end between characters.
VXA_CORE_API std::string Printable(std::string_view bytes, bool multiline);

// A line for every 16 bytes: offset, hexadecimal numbers, and the bytes as ASCII with
// dots for the others. `offset` is that of the first byte. Lines end in line feeds.
VXA_CORE_API std::string HexDump(std::string_view bytes, std::uint64_t offset);

}  // namespace VxaCore::Host
