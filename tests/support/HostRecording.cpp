#include "HostRecording.h"

#include <utility>

namespace {

std::vector<host::Record> s_traces;
host::Lines s_log;

void Sort()
{
    VxaCore::Host::CaptureLog(true);
    std::uint64_t dropped = 0;
    for (host::Record& record : VxaCore::Host::TakeCaptured(dropped))
        if (record.trace)
            s_traces.push_back(std::move(record));
        else
            s_log.push_back(record.label + ": " + record.message);
}

}  // namespace

// Before the core library's own.
void VxaCore::CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    DoAgentEventWrite(id, wxString("utf8 ") + wxString::FromUTF8(format));
}

namespace host {

std::vector<Record> TakeTraces()
{
    Sort();
    return std::exchange(s_traces, {});
}

Lines TakeTraceLines()
{
    Lines lines;
    for (const Record& trace : TakeTraces())
        lines.push_back(trace.label + " " + trace.function + ": " + trace.message);
    return lines;
}

Lines TakeLog()
{
    Sort();
    return std::exchange(s_log, {});
}

void EnableTraces(bool on)
{
    Sort();
    VxaCore::Host::SwitchTrace("*", on);
}

std::unique_ptr<VxaCore::CDom> MakeDocument()
{
    return std::make_unique<VxaCore::CDom>(VxaCore::CDom::Store::InMemory());
}

std::optional<bool> TakeSetting(VxaCore::CDom& document, const std::string& key)
{
    const VxaCore::Host::DocumentValue value = document.store().Get(key);
    std::string error;
    document.store().Set(key, std::monostate(), error);
    if (const bool* setting = std::get_if<bool>(&value)) return *setting;
    return std::nullopt;
}

Lines Events(VxaCore::CDom& document)
{
    Lines lines;
    std::size_t unreadable = 0;
    for (const auto& event : document.store().Events(unreadable))
        lines.push_back(std::to_string(event.id) + " " + event.text);
    return lines;
}

}  // namespace host
