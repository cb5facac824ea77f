// The host's diagnostic archive writer.
//
// Scripts hold it as an SLB3 object of the class "SLB.wx.ZipOutputStream". The host owns every
// writer; a pointer taken from a script is valid only during the call that took it. For one
// thread at a time.
#pragma once

#include <memory>

#include <wx/stream.h>
#include <wx/string.h>

#include "SLB3/slb.h"
#include "VxaCore/Export.h"

namespace VxaCore {

class VXA_CORE_API CZipOutputStream {
public:
    class Archive;  // the zip file; defined by the host

    explicit CZipOutputStream(std::unique_ptr<Archive> archive);
    ~CZipOutputStream();
    CZipOutputStream(const CZipOutputStream&) = delete;
    CZipOutputStream& operator=(const CZipOutputStream&) = delete;

    // Adds one entry with everything that `in` yields up to its end. `text` sets the entry's
    // text flag in the archive's directory; the bytes are stored unchanged. `comment` is the
    // entry's comment. Returns false if `in` fails or the archive is closed or cannot be
    // written; after a failed write it accepts no more entries. The host reports the first
    // failure when it closes the archive.
    bool AddFromStream(wxInputStream& in, bool text, const wxString& name, const wxString& comment);

    Archive& archive() { return *m_archive; }

private:
    std::unique_ptr<Archive> m_archive;
};

}  // namespace VxaCore

SLB3_DECLARATION(VxaCore::CZipOutputStream, "SLB.wx.ZipOutputStream", policy::NoDelete)
extern template struct VXA_CORE_API
    SLB3::policy::NoDelete::Implementation<VxaCore::CZipOutputStream>;
