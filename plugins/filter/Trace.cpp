#include "Trace.h"

#include <new>

#include <wx/log.h>

#include "Text.h"
#include "VxaCore/LogTrace.h"

namespace fc {
namespace {

const wxString s_noMemory(L"(not enough memory for this message)");

// The message, or the one that replaces it.
class Message {
public:
    Message(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        try {
            m_composed = Decode(FormatV(format, arguments));
            m_text = &m_composed;
        } catch (const std::bad_alloc&) {
            m_text = &s_noMemory;
        }
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    const wxString& Text() const { return *m_text; }

private:
    wxString m_composed;
    const wxString* m_text;
};

// Not through wxLogError and its like: they format with wxString.
void Log(wxLogLevel level, const TracePoint& at, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void Log(wxLogLevel level, const TracePoint& at, const char* format, va_list arguments)
{
    if (!wxLog::IsLevelEnabled(level, wxString())) return;
    const Message message(format, arguments);
    try {
        wxLog::OnLog(level, message.Text(), {at.file, at.line, at.function, wxLOG_COMPONENT});
    } catch (const std::exception&) {
        // The host's log has no memory for it. wxWidgets may raise std::logic_error then.
    }
}

}  // namespace

void Trace(const wxString& category, const TracePoint& at, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    TraceV(category, at, format, arguments);
    va_end(arguments);
}

void TraceV(const wxString& category, const TracePoint& at, const char* format, va_list arguments)
{
    if (!VxaCore::LogTraceIsEnabled(category)) return;
    const Message message(format, arguments);
    VxaCore::LogTrace(category, at.file, at.line, at.function, message.Text());
}

void LogError(const TracePoint& at, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    Log(wxLOG_Error, at, format, arguments);
    va_end(arguments);
}

void LogVerbose(const TracePoint& at, const char* format, ...)
{
    if (!wxLog::GetVerbose()) return;
    va_list arguments;
    va_start(arguments, format);
    Log(wxLOG_Info, at, format, arguments);
    va_end(arguments);
}

}  // namespace fc
