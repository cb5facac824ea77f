// The host's configuration document, through which agent events are written.
//
// Scripts hold it as an SLB3 object of the class "SLB.Dom". The host owns every document; a
// pointer taken from a script is valid only during the call that took it.
#pragma once

#include <memory>
#include <string>

#include <wx/string.h>

#include "SLB3/slb.h"
#include "VxaCore/Export.h"

namespace VxaCore {

class VXA_CORE_API CDom {
public:
    class Store;  // where the document is kept; defined by the host

    explicit CDom(std::unique_ptr<Store> store);
    ~CDom();
    CDom(const CDom&) = delete;
    CDom& operator=(const CDom&) = delete;

    // Sets a boolean key. Safe from any thread. A value that cannot be stored is kept in memory
    // and reported in the error log.
    void Set(const std::string& key, bool value);

    // Writes an agent event; it is stored when the call returns. Safe from any thread.
    //
    // Without arguments, "%%" becomes "%" and everything else is written as it is: a composed
    // string is safe to pass whatever it contains. With arguments, the format is that of
    // wxString::Format and must match them ("%s" takes wide and narrow strings).
    void DoAgentEventWrite(int id, const wxString& format);
    template <typename First, typename... Rest>
    void DoAgentEventWrite(int id, const wxString& format, First first, Rest... rest)
    {
        WriteEvent(id, wxString::Format(format, first, rest...));
    }

    // The same for a format in UTF-8. If it is not valid UTF-8, it is decoded as Latin-1.
    void DoAgentEventWriteUtf8(int id, const char* format);
    template <typename First, typename... Rest>
    void DoAgentEventWriteUtf8(int id, const char* format, First first, Rest... rest)
    {
        DoAgentEventWrite(id, DecodeUtf8(format), first, rest...);
    }

    Store& store() { return *m_store; }

private:
    static wxString DecodeUtf8(const char* text);
    void WriteEvent(int id, const wxString& text);

    std::unique_ptr<Store> m_store;
};

}  // namespace VxaCore

SLB3_DECLARATION(VxaCore::CDom, "SLB.Dom", policy::NoDelete)
// The original SLB3 identifies a class by the address of a function in here: one instance for the
// whole process, exported by the library that owns the class.
extern template struct VXA_CORE_API SLB3::policy::NoDelete::Implementation<VxaCore::CDom>;
