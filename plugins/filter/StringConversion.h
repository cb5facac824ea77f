// Conversion between wxString and UTF-8 that throws std::bad_alloc when memory runs out.
//
// wxString's own conversions do not check what malloc returns and crash then.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

namespace fc {

// Decodes UTF-8. Each byte that is not part of valid UTF-8 is decoded as Latin-1, so that a
// message about a broken string still shows the string.
wxString Decode(std::string_view bytes);

// Encodes as UTF-8.
std::string Encode(const wxString& string);

}  // namespace fc
