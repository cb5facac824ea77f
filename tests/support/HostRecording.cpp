#include "HostRecording.h"

#include <wx/log.h>

#include "VxaCore/LogTrace.h"

namespace VxaCore {

class CDom::Store {
public:
    std::vector<std::pair<std::string, bool>> settings;
    std::vector<std::string> events;
};

CDom::CDom(std::unique_ptr<Store> store) : m_store(std::move(store)) {}
CDom::~CDom() = default;

void CDom::Set(const std::string& key, bool value)
{
    m_store->settings.emplace_back(key, value);
}

void CDom::DoAgentEventWrite(int id, const wxString& format)
{
    m_store->events.push_back(std::to_string(id) + " " + format.utf8_string());
}

void CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    m_store->events.push_back(std::to_string(id) + " utf8 " + format);
}

class CZipOutputStream::Archive {
public:
    std::set<std::string> refused;
    std::vector<host::Entry> entries;
};

CZipOutputStream::CZipOutputStream(std::unique_ptr<Archive> archive) : m_archive(std::move(archive))
{
}
CZipOutputStream::~CZipOutputStream() = default;

bool CZipOutputStream::AddFromStream(wxInputStream& in, bool text, const wxString& name,
                                     const wxString& comment)
{
    if (m_archive->refused.count(name.ToStdString()) != 0) return false;
    host::Entry entry{name.ToStdString(), text, comment.ToStdString(), ""};
    char chunk[4096];
    while (const std::size_t got = in.Read(chunk, sizeof chunk).LastRead())
        entry.bytes.append(chunk, got);
    m_archive->entries.push_back(std::move(entry));
    return in.Eof();
}

}  // namespace VxaCore

template struct SLB3::policy::NoDelete::Implementation<VxaCore::CDom>;
template struct SLB3::policy::NoDelete::Implementation<VxaCore::CZipOutputStream>;

namespace {

bool s_traces_on = true;
std::vector<host::Trace> s_traces;
std::vector<std::string> s_log;

class KeepingLog : public wxLog {
protected:
    void DoLogTextAtLevel(wxLogLevel level, const wxString& text) override
    {
        const std::string name = level == wxLOG_Error  ? "error"
                                 : level == wxLOG_Info ? "info"
                                                       : std::to_string(level);
        s_log.push_back(name + ": " + text.ToStdString());
    }
    void DoLogRecord(wxLogLevel level, const wxString& text, const wxLogRecordInfo&) override
    {
        DoLogTextAtLevel(level, text);
    }
};

}  // namespace

namespace VxaCore {

bool LogTraceIsEnabled(const wxString&)
{
    return s_traces_on;
}

void LogTrace(const wxString& category, const char* file, int line, const char* function,
              const wxString& message)
{
    s_traces.push_back({category.ToStdString(), file, line, function, message.ToStdString()});
}

}  // namespace VxaCore

namespace host {

std::vector<Trace> TakeTraces()
{
    return std::exchange(s_traces, {});
}

std::vector<std::string> TakeTraceLines()
{
    std::vector<std::string> lines;
    for (const Trace& trace : TakeTraces())
        lines.push_back(trace.category + " " + trace.function + ": " + trace.message);
    return lines;
}

std::vector<std::string> TakeLog()
{
    return std::exchange(s_log, {});
}

void EnableTraces(bool on)
{
    s_traces_on = on;
}

void CatchLog()
{
    static KeepingLog log;
    wxLog::SetActiveTarget(&log);
}

std::unique_ptr<VxaCore::CDom> MakeDocument()
{
    return std::make_unique<VxaCore::CDom>(std::make_unique<VxaCore::CDom::Store>());
}

std::vector<std::pair<std::string, bool>> TakeSettings(VxaCore::CDom& document)
{
    return std::exchange(document.store().settings, {});
}

std::vector<std::string> TakeEvents(VxaCore::CDom& document)
{
    return std::exchange(document.store().events, {});
}

std::unique_ptr<VxaCore::CZipOutputStream> MakeArchive(const std::set<std::string>& refused)
{
    auto archive = std::make_unique<VxaCore::CZipOutputStream::Archive>();
    archive->refused = refused;
    return std::make_unique<VxaCore::CZipOutputStream>(std::move(archive));
}

std::vector<Entry> TakeEntries(VxaCore::CZipOutputStream& archive)
{
    return std::exchange(archive.archive().entries, {});
}

}  // namespace host
