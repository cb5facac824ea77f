// What all dumps share: availability, failed calls as agent events, the print function.

#include <langinfo.h>

#include <cstdarg>
#include <cstring>

#include "TextEntry.h"

namespace Filter {

const wxString s_Trace("diagnostics");
const wxString s_EmptyString;

namespace Diagnostics {
namespace {

constexpr int kDriverCallFailedEvent = 1001;
constexpr unsigned int kErrorTextSize = 80;
constexpr std::size_t kPrintSize = 1024;

bool LocaleIsUtf8()
{
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
}

// The text itself is the format, without arguments: the host's writer knows that.
void WriteEvent(VxaCore::CDom* dom, const wxString& text)
{
    if (LocaleIsUtf8())
        dom->DoAgentEventWriteUtf8(kDriverCallFailedEvent, text.utf8_str());
    else
        dom->DoAgentEventWrite(kDriverCallFailedEvent, text);
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
    char error[kErrorTextSize] = {};
    vxi_get_error(handle, error, kErrorTextSize);
    const wxString text = wxString::Format("%.64s|%08x (%.128s)", operation, rc,
                                           wxString(error, wxConvWhateverWorks));
    TraceLine(408, "ShowErrors", "AgentWrite 1001 %s", text);
    WriteEvent(dom, text);
    return false;
}

void tosprintf(tb_dump_s* dump, char const* format, ...)
{
    char buffer[kPrintSize];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf_safe(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    static_cast<wxTextOutputStream*>(dump->context)->WriteString(wxString::FromAscii(buffer));
}

bool AddEntry(VxaCore::CZipOutputStream& zip, const char* name, bool text,
              const wxMemoryOutputStream& memory)
{
    // An output stream that was never written to has no buffer to make an input of.
    if (memory.GetLength() == 0) {
        wxMemoryInputStream nothing("", 0);
        return zip.AddFromStream(nothing, text, wxString(name), s_EmptyString);
    }
    wxMemoryInputStream in(memory);
    return zip.AddFromStream(in, text, wxString(name), s_EmptyString);
}

}  // namespace Diagnostics
}  // namespace Filter
