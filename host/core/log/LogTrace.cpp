// The trace log and its switches.
#include "VxaCore/LogTrace.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "log/LogSink.h"
#include "text/Json.h"
#include "text/Utf8.h"

namespace VxaCore {

namespace {

struct Switch {
    std::wstring pattern;
    bool on;
};

struct Switches {
    std::mutex mutex;
    std::vector<Switch> list;  // later ones win
};

// Never destroyed: static destructors of other libraries log, too.
Switches& GlobalSwitches()
{
    static Switches& instance = *new Switches;
    return instance;
}

// Whether any category may be on: the only cost while none is. Zero-initialised, so that static
// constructors of other libraries can log.
std::atomic<bool> s_any_on{false};

// Backtracks to the last "*" only: a longer match for an earlier one gains nothing.
bool Matches(const wchar_t* pattern, const wchar_t* text)
{
    const wchar_t* after_star = nullptr;
    const wchar_t* retry = nullptr;
    while (*text) {
        if (*pattern == L'*') {
            after_star = ++pattern;
            retry = text;
        } else if (*pattern == *text || *pattern == L'?') {
            ++pattern;
            ++text;
        } else if (after_star) {
            pattern = after_star;
            text = ++retry;
        } else {
            return false;
        }
    }
    while (*pattern == L'*') ++pattern;
    return !*pattern;
}

// With the mutex held.
bool IsOn(const std::vector<Switch>& list, const wchar_t* category)
{
    const auto matches = [&](const Switch& s) { return Matches(s.pattern.c_str(), category); };
    const auto last = std::find_if(list.rbegin(), list.rend(), matches);
    return last != list.rend() && last->on;
}

// Removes switches that no longer matter, so that the list stays short.
void Apply(std::vector<Switch>& list, Switch change)
{
    const auto is_replaced = [&](const Switch& s) {
        return change.pattern == L"*" || s.pattern == change.pattern;
    };
    list.erase(std::remove_if(list.begin(), list.end(), is_replaced), list.end());
    const bool is_plain = change.pattern.find_first_of(L"*?") == std::wstring::npos;
    if (!is_plain || IsOn(list, change.pattern.c_str()) != change.on)
        list.push_back(std::move(change));
    if (std::none_of(list.begin(), list.end(), [](const Switch& s) { return s.on; })) list.clear();
}

void WriteTrace(const wxString& category, const char* file, int line, const char* function,
                const wxString& message)
{
    Host::LogRecord record;
    record.time_s = SecondsSinceEpoch();
    record.trace = true;
    record.label = ToUtf8(category);
    record.file = ReplaceInvalidUtf8(file);
    record.line = line;
    record.function = ReplaceInvalidUtf8(function);
    record.message = ToUtf8(message);
    WriteRecord(std::move(record));
}

}  // namespace

bool LogTraceIsEnabled(const wxString& category)
{
    if (!s_any_on.load(std::memory_order_acquire)) return false;
    Switches& switches = GlobalSwitches();
    const std::lock_guard<std::mutex> lock(switches.mutex);
    return IsOn(switches.list, category.wc_str());
}

void LogTrace(const wxString& category, const char* file, int line, const char* function,
              const wxString& message)
{
    if (!LogTraceIsEnabled(category)) return;
    try {
        WriteTrace(category, file, line, function, message);
    } catch (const std::exception& failure) {
        ReportLostRecord(failure.what());
    }
}

namespace Host {

void SwitchTrace(const wxString& pattern, bool on)
{
    Switches& switches = GlobalSwitches();
    const std::lock_guard<std::mutex> lock(switches.mutex);
    Apply(switches.list, {pattern.ToStdWstring(), on});
    s_any_on.store(!switches.list.empty(), std::memory_order_release);
}

}  // namespace Host

}  // namespace VxaCore
