// What all dumps share: availability, failed calls as agent events, the print function.

#include <langinfo.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "Text.h"
#include "TextEntry.h"
#include "VxaCore/LogTrace.h"

namespace Filter {

const wxString s_Trace(L"diagnostics");
const wxString s_EmptyString;

namespace Diagnostics {
namespace {

constexpr int kDriverCallFailedEvent = 1001;
constexpr unsigned int kErrorTextSize = 80;
constexpr std::size_t kLongestOperation = 64;
constexpr std::size_t kPrintSize = 1024;

bool LocaleIsUtf8()
{
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// The driver's own description of what failed. One byte more than the driver knows of, for one
// that forgets the terminator.
wxString FailureText(vxi_handle_ops_s* handle, wchar_t const* operation, int rc)
{
    char error[kErrorTextSize + 1] = {};
    vxi_get_error(handle, error, kErrorTextSize);
    char rest[160];
    std::snprintf(rest, sizeof rest, "|%08x (%.128s)", static_cast<unsigned int>(rc), error);
    wxString text(operation, wcsnlen(operation, kLongestOperation));
    text += fc::Decode(rest);
    return text;
}

// The text itself is the format, without arguments: the host's writer knows that.
void WriteEvent(VxaCore::CDom* dom, const wxString& text, const std::string& utf8)
{
    if (LocaleIsUtf8())
        dom->DoAgentEventWriteUtf8(kDriverCallFailedEvent, utf8.c_str());
    else
        dom->DoAgentEventWrite(kDriverCallFailedEvent, text);
}

// Writes to the stream under a text stream of AddTextEntry, in the encoding that it would use.
// Its own WriteString converts with buffers from malloc that it does not check.
void WriteLatin1(wxTextOutputStream* text, std::string_view characters)
{
    // The reference is const, the stream is not.
    auto& stream = const_cast<wxOutputStream&>(text->GetOutputStream());
    while (!characters.empty()) {
        const auto plain = std::find_if(characters.begin(), characters.end(),
                                        [](char c) { return static_cast<signed char>(c) < 0; });
        const auto length = static_cast<std::size_t>(plain - characters.begin());
        stream.Write(characters.data(), length);
        characters.remove_prefix(length);
        if (characters.empty()) return;
        const auto byte = static_cast<unsigned char>(characters[0]);
        const unsigned char utf8[] = {static_cast<unsigned char>(0xc0 | byte >> 6),
                                      static_cast<unsigned char>(0x80 | (byte & 0x3f))};
        stream.Write(utf8, sizeof utf8);
        characters.remove_prefix(1);
    }
}

}  // namespace

bool IsDriverOpen(vxi_handle_ops_s* handle)
{
    // With tracing on the driver is asked once more: the answer that decides is never
    // older than the trace.
    if (VxaCore::LogTraceIsEnabled(s_Trace))
        TraceLine(392, "IsDriverOpen", "IsDriverOpen %d", vxi_driver_available(handle));
    return vxi_driver_available(handle) > 0;
}

bool ShowErrors(VxaCore::CDom* dom, vxi_handle_ops_s* handle, wchar_t const* operation, int rc)
{
    if (rc == 0) return true;
    const wxString text = FailureText(handle, operation, rc);
    const std::string utf8 = fc::Encode(text);
    TraceLine(408, "ShowErrors", "AgentWrite 1001 %s", utf8.c_str());
    WriteEvent(dom, text, utf8);
    return false;
}

void tosprintf(tb_dump_s* dump, char const* format, ...)
{
    char buffer[kPrintSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    WriteLatin1(static_cast<wxTextOutputStream*>(dump->context), buffer);
}

void TraceLine(int line, const char* function, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    fc::TraceV(s_Trace, {"plugins/filter/Diagnostics", line, function}, format, arguments);
    va_end(arguments);
}

std::size_t EntryBytes::OnSysWrite(const void* bytes, std::size_t size)
{
    if (m_lasterror != wxSTREAM_NO_ERROR) return 0;
    try {
        m_bytes.append(static_cast<const char*>(bytes), size);
        return size;
    } catch (const std::bad_alloc&) {
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }
}

bool AddEntry(VxaCore::CZipOutputStream& zip, const wchar_t* name, bool text,
              std::string_view bytes)
{
    wxMemoryInputStream in(bytes.data(), bytes.size());
    return zip.AddFromStream(in, text, wxString(name), s_EmptyString);
}

}  // namespace Diagnostics
}  // namespace Filter
