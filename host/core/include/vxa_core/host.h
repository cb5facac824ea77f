// What a host decides about the trace log and the general log.
//
// For hosts (the Lua module, harnesses, tests); plugins see VxaCore/LogTrace.h and
// wxLog only. All calls may be made from any thread at any time.
//
// The general log. From its loading on this library is the active wxLog target (unless
// the process has set one), so wxLogError and its like from any library come here.
// wxWidgets hands a record to the target at once, on the calling thread, as long as
// nobody has called wxInitialize. A host that does must call TakeGeneralLog() after it
// and once on each further thread that logs: wxInitialize takes the target away, and
// holds the records of other threads back until its main thread is idle.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <wx/string.h>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// Switches the trace categories that a pattern stands for: "*" is any run of
// characters, "?" any one, everything else itself ("SysHealth.*"). The latest switch
// that matches a category decides; categories are off at first.
VXA_CORE_API void SwitchTrace(const wxString& pattern, bool on);

// Whether informational messages marked verbose (wxLogVerbose) and debug messages (those
// of wxWidgets itself, mostly) are written. Off at first. wxWidgets keeps this in a plain variable:
// switch it before threads log.
VXA_CORE_API void SetVerbose(bool on);

// From now on every record is one JSON line in this file, created when missing and
// appended to:
//   {"time":T,"kind":"trace","category":C,"file":F,"line":N,"function":F,"message":M}
//   {"time":T,"kind":"log","level":L,"message":M}
// T is seconds since the epoch; L is "error", "warning", "message", "info" or "debug".
// A record is one write(2) to an O_APPEND descriptor and is in the file when the call
// that wrote it returns, so several processes may share the file. A record that the
// file does not take goes to standard error instead, with the reason.
// The empty path goes back to readable lines on standard error.
// False when the file cannot be opened; `error` then says why, and nothing changes.
VXA_CORE_API bool LogTo(const std::string& path, std::string& error);

// One record as kept by CaptureLog. Texts are UTF-8.
struct LogRecord {
    double time_s = 0;   // since the epoch
    bool trace = false;  // else general log
    std::string label;   // the trace's category, or the level
    std::string file;    // trace only, as are line and function
    int line = 0;
    std::string function;
    std::string message;
};

// While on, records are kept instead of being written to standard error (a file set by
// LogTo still gets them): the newest 10000. Switching off keeps what was captured.
VXA_CORE_API void CaptureLog(bool on);

// Hands out what was captured, oldest first, and forgets it. `dropped` is the number
// of older records that had to make room since the last call.
VXA_CORE_API std::vector<LogRecord> TakeCaptured(std::uint64_t& dropped);

// Makes this library the target of the general log, for this thread at least; see
// above. Harmless where it is that already.
VXA_CORE_API void TakeGeneralLog();

}  // namespace VxaCore::Host
