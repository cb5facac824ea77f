// The host's configuration document, with the agent events written through it.
//
// Scripts hold it as an SLB3 object of the class "SLB.Dom". The host owns every
// document; a pointer taken from a script is valid for the call that took it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <wx/string.h>

#include "SLB3/slb.h"
#include "VxaCore/Export.h"

namespace VxaCore {

class VXA_CORE_API CDom {
public:
    class Store;  // what keeps the document: the host's business

    explicit CDom(std::unique_ptr<Store> store);
    ~CDom();
    CDom(const CDom&) = delete;
    CDom& operator=(const CDom&) = delete;

    // Sets a boolean key. Safe from any thread. A store that cannot be written
    // keeps the value in memory and reports through the error log.
    void Set(const std::string& key, bool value);

    // Writes an agent event. The format is printf-like ("%d", "%s"; wide and narrow
    // strings both fit "%s"); the writer knows how many arguments it was given, and a
    // conversion without an argument is written as it stands, so a text that was
    // composed elsewhere may be passed as the format whatever it holds. Safe from any
    // thread. When the call returns the event is stored.
    void DoAgentEventWrite(int id, const wxString& format);
    template <typename First, typename... Rest>
    void DoAgentEventWrite(int id, const wxString& format, First first, Rest... rest)
    {
        WriteEventText(
            id, wxString::Format(FittingFormat(format, 1 + sizeof...(rest)), first, rest...));
    }

    // The same for a format in UTF-8; bytes that are no UTF-8 are read as Latin-1.
    void DoAgentEventWriteUtf8(int id, const char* format);
    template <typename First, typename... Rest>
    void DoAgentEventWriteUtf8(int id, const char* format, First first, Rest... rest)
    {
        DoAgentEventWrite(id, DecodeUtf8(format), first, rest...);
    }

    Store& store() { return *m_store; }

private:
    static wxString DecodeUtf8(const char* text);
    // The format with conversions beyond its arguments made plain text.
    static wxString FittingFormat(const wxString& format, std::size_t arguments);
    void WriteEventText(int id, const wxString& text);

    std::unique_ptr<Store> m_store;
};

}  // namespace VxaCore

SLB3_DECLARATION(VxaCore::CDom, "SLB.Dom", policy::NoDelete)
// One instance for all libraries, exported by the library that owns the class: SLB3 tells
// classes apart by a function's address.
extern template struct VXA_CORE_API SLB3::policy::NoDelete::Implementation<VxaCore::CDom>;
