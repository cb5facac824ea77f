// Entries of the diagnostic archive.

#include "ArchiveEntry.h"

#include <wx/mstream.h>

namespace Filter {

extern const wxString s_EmptyString;
const wxString s_EmptyString;  // entries have no comment

namespace Diagnostics {
namespace {

bool AddEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, bool text,
              std::string_view bytes)
{
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return zip.AddFromStream(in, text, wxString(name), s_EmptyString);
}

}  // namespace

bool AddTextEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, std::string_view text)
{
    return AddEntry(zip, name, true, text);
}

bool AddBinaryEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, std::string_view bytes)
{
    return AddEntry(zip, name, false, bytes);
}

}  // namespace Diagnostics
}  // namespace Filter
