// Formatting and decoding that raise std::bad_alloc when memory runs out.
//
// wxString's own conversions and its Format take their buffers from malloc without checking
// and end the process then. Everything the module composes goes through these instead.
#pragma once

#include <cstdarg>
#include <string>
#include <string_view>

#include <wx/string.h>

namespace fc {

// As vsprintf.
std::string FormatV(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

// Decodes UTF-8; bytes that are not UTF-8 are taken as Latin-1, one by one: a message about
// a broken string must still show it.
wxString Decode(std::string_view bytes);

// UTF-8 of the text.
std::string Encode(const wxString& text);

}  // namespace fc
