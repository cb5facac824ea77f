// Event formats whose number of arguments is known: conversions beyond it are text.
#pragma once

#include <cstddef>

#include <wx/string.h>

namespace VxaCore {

// The text of a format that was given no arguments: every conversion as it stands,
// "%%" as "%".
wxString WithoutArguments(const wxString& format);

// The format with every conversion that `arguments` do not reach escaped to stand as
// it is. Numbered conversions ("%2$s") beyond the arguments are escaped likewise.
wxString KeepConversions(const wxString& format, std::size_t arguments);

}  // namespace VxaCore
