// The host's diagnostic archive writer.
//
// Scripts hold it as an SLB3 object of the class "SLB.wx.ZipOutputStream". The
// host owns every writer; a pointer taken from a script is valid for the call that
// took it. One writer must be used by one thread at a time.
#pragma once

#include <memory>

#include <wx/stream.h>
#include <wx/string.h>

#include "SLB3/slb.h"
#include "VxaCore/Export.h"

namespace VxaCore {

class VXA_CORE_API CZipOutputStream {
public:
    class Archive;  // the file behind it: the host's business

    explicit CZipOutputStream(std::unique_ptr<Archive> archive);
    ~CZipOutputStream();
    CZipOutputStream(const CZipOutputStream&) = delete;
    CZipOutputStream& operator=(const CZipOutputStream&) = delete;

    // Adds one entry with everything that `in` yields up to its end. `text` marks the
    // entry as text in the archive's directory; the bytes are stored as they are.
    // `comment` is the entry's comment. False when the archive is closed or could not
    // be written; it then stays closed to further entries. The host's next close reports it.
    bool AddFromStream(wxInputStream& in, bool text, const wxString& name, const wxString& comment);

    Archive& archive() { return *m_archive; }

private:
    std::unique_ptr<Archive> m_archive;
};

}  // namespace VxaCore

SLB3_DECLARATION(VxaCore::CZipOutputStream, "SLB.wx.ZipOutputStream", policy::NoDelete)
extern template struct VXA_CORE_API
    SLB3::policy::NoDelete::Implementation<VxaCore::CZipOutputStream>;
