// Texts on their way into files: valid UTF-8 and valid JSON, whatever came in.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

namespace VxaCore {

// UTF-8 of a text. Surrogates, code points above 0x10FFFF and NUL become U+FFFD: readers
// of the files take texts as C strings.
std::string ToUtf8(const wxString& text);

// The same for bytes that ought to be UTF-8 (RFC 3629); null is the empty text.
std::string CleanUtf8(const char* bytes);

// Whether the bytes are UTF-8 without NUL: what a C string can carry unchanged.
bool IsPlainUtf8(std::string_view bytes);

// Appends the text as a JSON string with its quotes (RFC 8259). `utf8` must be UTF-8.
void AppendJsonString(std::string& out, std::string_view utf8);

// Appends the text for a terminal: control characters as \xNN, inner line feeds as they
// are with an indented continuation, trailing line feeds dropped.
void AppendReadable(std::string& out, std::string_view utf8);

// Seconds since the epoch, to the microsecond, as a JSON number.
void AppendTime(std::string& out, double time_s);

// Now, in seconds since the epoch.
double WallClock();

}  // namespace VxaCore
