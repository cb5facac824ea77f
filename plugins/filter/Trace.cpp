// Composes and writes trace messages and messages of the general log.

#include "Trace.h"

#include <cstdio>
#include <new>

#include <wx/log.h>

#include "StringConversion.h"
#include "VxaCore/LogTrace.h"

namespace fc {
namespace {

const wxString s_noMemory(L"(not enough memory for this message)");

// Instead of wxString::Format, which crashes when memory runs out.
std::string FormatV(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

std::string FormatV(const char* format, va_list arguments)
{
    char buffer[512];
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(buffer, sizeof buffer, format, measured);
    va_end(measured);
    // No memory, or a result longer than an int can count.
    if (length < 0) throw std::bad_alloc();
    const auto size = static_cast<std::size_t>(length);
    if (size < sizeof buffer) return {buffer, size};
    std::string bytes(size, '\0');
    std::vsnprintf(bytes.data(), size + 1, format, arguments);
    return bytes;
}

// A composed message, or s_noMemory in its place.
class Message {
public:
    Message(const char* format, va_list arguments) __attribute__((format(printf, 2, 0)))
    {
        try {
            m_composed = Decode(FormatV(format, arguments));
            m_shown = &m_composed;
        } catch (const std::bad_alloc&) {
            m_shown = &s_noMemory;
        }
    }
    Message(const Message&) = delete;
    Message& operator=(const Message&) = delete;

    const wxString& Get() const { return *m_shown; }

private:
    wxString m_composed;
    const wxString* m_shown;
};

// Instead of wxLogError and wxLogVerbose, which format with wxString.
void Log(wxLogLevel level, const TracePoint& at, const char* format, va_list arguments)
    __attribute__((format(printf, 3, 0)));

void Log(wxLogLevel level, const TracePoint& at, const char* format, va_list arguments)
{
    if (!wxLog::IsLevelEnabled(level, wxString())) return;
    const Message message(format, arguments);
    try {
        wxLog::OnLog(level, message.Get(), {at.file, at.line, at.function, wxLOG_COMPONENT});
    } catch (const std::exception&) {
        // The host's log is out of memory; wxWidgets may also throw std::logic_error then.
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
    VxaCore::LogTrace(category, at.file, at.line, at.function, message.Get());
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
