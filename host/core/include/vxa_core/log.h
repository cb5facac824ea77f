// Control of the trace log and the general log.
//
// For hosts (the Lua module, tests); plugins use VxaCore/LogTrace.h and wxLog only. All calls
// may be made from any thread at any time.
//
// The general log. When it is loaded, this library becomes the active wxLog target unless the
// process has set one, so wxLogError and the like from any library arrive here. wxWidgets passes
// a record to the target at once, on the calling thread, as long as wxInitialize has not been
// called. A host that calls it must then call InstallGeneralLog() once, and once on each further
// thread that logs: wxInitialize replaces the target, and wxWidgets then holds back the records
// of other threads until its main thread is idle.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include <wx/string.h>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Switches the trace categories that match a pattern: "*" matches any characters, "?" any one
// character ("SysHealth.*"). The latest switch that matches a category decides; categories are
// off at first.
VXA_CORE_API void SwitchTrace(const wxString& pattern, bool on);

// Whether verbose messages (wxLogVerbose) and debug messages (mostly those of wxWidgets itself)
// are written. Off at first. wxWidgets keeps this in a plain variable: switch it before threads
// log.
VXA_CORE_API void SetVerbose(bool on);

// From now on writes each record as one JSON line to this file, created if missing and appended
// to:
//   {"time":T,"kind":"trace","category":C,"file":F,"line":N,"function":F,"message":M}
//   {"time":T,"kind":"log","level":L,"message":M}
// T is seconds since the epoch; L is "error", "warning", "message", "info" or "debug". A record
// is one write(2) to an O_APPEND descriptor and is in the file when the call that wrote it
// returns, so several processes can share the file. A record that cannot be written to the file
// goes to standard error with the reason. The empty path switches back to readable lines on
// standard error. Throws std::runtime_error, and changes nothing, if the file cannot be opened.
VXA_CORE_API void LogTo(const std::string& path);

// A captured record. Strings are UTF-8.
struct LogRecord {
    double time_s = 0;   // since the epoch
    bool trace = false;  // else general log
    std::string label;   // the trace's category, or the level
    std::string file;    // trace only, as are line and function
    int line = 0;
    std::string function;
    std::string message;
};

struct CapturedRecords {
    std::deque<LogRecord> records;  // oldest first
    std::uint64_t dropped = 0;      // older records that had to make room
};

// While on, keeps the newest 10000 records instead of writing them to standard error (a file set
// by LogTo still gets them). Switching it off keeps what was captured.
VXA_CORE_API void CaptureLog(bool on);

// Returns what was captured since the last call.
VXA_CORE_API CapturedRecords TakeCaptured();

// Makes this library the target of the general log, at least for this thread; see above.
VXA_CORE_API void InstallGeneralLog();

}  // namespace VxaCore::Host
