// The host document that plugins see.
#include "VxaCore/Dom.h"

#include <stdexcept>

#include <wx/log.h>

#include "log/LogSink.h"
#include "text/Utf8.h"
#include "vxa_core/document.h"
#include "vxa_core/text.h"

template struct SLB3::policy::NoDelete::Implementation<VxaCore::CDom>;

namespace VxaCore {

CDom::CDom(std::unique_ptr<Store> store) : m_store(std::move(store)) {}

CDom::~CDom()
{
    LogException("host document", [this] { m_store->Close(); });
}

void CDom::Set(const std::string& key, bool value)
try {
    m_store->Set(key, value);
} catch (const std::runtime_error& error) {
    wxLogError("host document: %s not stored: %s", FromUtf8(key), FromUtf8(error.what()));
}

void CDom::DoAgentEventWrite(int id, const wxString& format)
{
    wxString text = format;
    text.Replace("%%", "%");
    WriteEvent(id, text);
}

void CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    DoAgentEventWrite(id, DecodeUtf8(format));
}

wxString CDom::DecodeUtf8(const char* text)
{
    const std::string_view bytes = text ? text : "";
    return Host::IsPlainUtf8(bytes) ? wxString::FromUTF8(bytes.data(), bytes.size())
                                    : wxString::From8BitData(bytes.data(), bytes.size());
}

// An event that cannot be stored is at least logged.
void CDom::WriteEvent(int id, const wxString& text)
try {
    m_store->WriteEvent(id, ToUtf8(text));
} catch (const std::runtime_error& error) {
    wxLogError("host document: event %d not stored (%s): %s", id, FromUtf8(error.what()), text);
}

}  // namespace VxaCore
