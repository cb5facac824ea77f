// The general log: what wxLogError and the like write.
#include <wx/debug.h>
#include <wx/log.h>
#include <wx/thread.h>

#include "log/LogSink.h"
#include "text/Json.h"
#include "text/Utf8.h"

namespace VxaCore {

namespace {

const char* LevelName(wxLogLevel level)
{
    switch (level) {
        case wxLOG_FatalError:
        case wxLOG_Error:
            return "error";
        case wxLOG_Warning:
            return "warning";
        case wxLOG_Message:
        case wxLOG_Status:
            return "message";
        case wxLOG_Info:
            return "info";
        default:
            return "debug";
    }
}

// wxWidgets does not lock its target; the sink has its own mutex.
class GeneralLog : public wxLog {
protected:
    void DoLogRecord(wxLogLevel level, const wxString& message, const wxLogRecordInfo&) override
    {
        if (level >= wxLOG_Debug && !GetVerbose()) return;
        try {
            Host::LogRecord record;
            record.time_s = SecondsSinceEpoch();
            record.label = LevelName(level);
            record.message = ToUtf8(message);
            WriteRecord(std::move(record));
        } catch (const std::exception& failure) {
            ReportLostRecord(failure.what());
        }
    }
};

// wxUninitialize deletes the active target, so each place that needs one gets its own object.
bool InstallAtLoad()
{
#ifdef NDEBUG
    // Out of memory, an assertion in wxWidgets fails and its report crashes; without assertions
    // the caller gets std::bad_alloc.
    wxDisableAsserts();
#endif
    if (wxLog* chosen_by_host = wxLog::SetActiveTarget(new GeneralLog))
        delete wxLog::SetActiveTarget(chosen_by_host);
    return true;
}

[[maybe_unused]] const bool s_installed = InstallAtLoad();

}  // namespace

namespace Host {

void SetVerbose(bool on)
{
    wxLog::SetVerbose(on);
}

void InstallGeneralLog()
{
    if (!wxThread::IsMain()) {
        // Shared and never destroyed: registering a thread_local destructor can fail for lack of
        // memory, which ends the process. wxWidgets does not delete the targets of threads.
        static GeneralLog& other_threads = *new GeneralLog;
        wxLog::SetThreadActiveTarget(&other_threads);
    } else if (!dynamic_cast<GeneralLog*>(wxLog::GetActiveTarget())) {
        delete wxLog::SetActiveTarget(new GeneralLog);
    }
}

}  // namespace Host

}  // namespace VxaCore
