#include "VxaCore/Dom.h"

#include <wx/log.h>

#include "document/EventFormat.h"
#include "files/Text.h"
#include "log/LogSink.h"
#include "vxa_core/document.h"

template struct SLB3::policy::NoDelete::Implementation<VxaCore::CDom>;

namespace VxaCore {

namespace {

wxString FromUtf8(const std::string& text)
{
    return wxString::FromUTF8(text.data(), text.size());
}

}  // namespace

CDom::CDom(std::unique_ptr<Store> store) : m_store(std::move(store)) {}

CDom::~CDom()
{
    std::string error;
    if (!m_store->Close(error)) wxLogError("host document: %s", FromUtf8(error));
}

void CDom::Set(const std::string& key, bool value)
{
    std::string error;
    if (!m_store->Set(key, value, error))
        wxLogError("host document: %s not stored: %s", FromUtf8(CleanUtf8(key.c_str())),
                   FromUtf8(error));
}

void CDom::DoAgentEventWrite(int id, const wxString& format)
{
    WriteEventText(id, WithoutArguments(format));
}

void CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    WriteEventText(id, WithoutArguments(DecodeUtf8(format)));
}

wxString CDom::DecodeUtf8(const char* text)
{
    const std::string_view bytes = text ? text : "";
    return IsPlainUtf8(bytes) ? wxString::FromUTF8(bytes.data(), bytes.size())
                              : wxString::From8BitData(bytes.data(), bytes.size());
}

wxString CDom::FittingFormat(const wxString& format, std::size_t arguments)
{
    return KeepConversions(format, arguments);
}

// The text goes into the error log when the store does not take it, so that it is
// written down somewhere.
void CDom::WriteEventText(int id, const wxString& text)
{
    std::string error;
    if (!m_store->WriteEvent(id, ToUtf8(text), error))
        wxLogError("host document: event %d not stored (%s): %s", id, FromUtf8(error), text);
}

}  // namespace VxaCore
