// The parts of the Lua module `vxa`, and what they use of each other. docs/lua-vxa.md describes
// the functions.
#pragma once

#include <lua.hpp>

#include "vxa_core/pending_file.h"
#include "vxi/vxi.h"

namespace vxa {

// Each adds its functions to the module's table on top. [-0, +0, m]

// objects/
void OpenAppendFiles(lua_State* L);     // append_file and its methods, is_appended_to
void OpenArchiveReaders(lua_State* L);  // zip_entries, zip_read, zip_reader
void OpenArchiveWriters(lua_State* L);  // ZipOutputStream and its methods
void OpenCharts(lua_State* L);          // chart and its methods
void OpenChildProcesses(lua_State* L);  // start_process and its methods
void OpenDocuments(lua_State* L);       // Dom and its methods
void OpenDriverHandles(lua_State* L);   // open and the handle's methods, driver_failures
void OpenRedactions(lua_State* L);      // redaction and its methods
void OpenReplays(lua_State* L);         // replay, tune and their methods
void OpenRotatedFiles(lua_State* L);    // rotated_file and its methods
void OpenTemporaryFiles(lua_State* L);  // temporary and its methods
// functions/
void OpenDigests(lua_State* L);          // sha256
void OpenEngines(lua_State* L);          // engine, engines, fault, simulate, ...
void OpenFileSizeLimit(lua_State* L);    // limit_file_size
void OpenFiles(lua_State* L);            // mkdir, file_kind, read_file, replace_file, ...
void OpenJsonValues(lua_State* L);       // parse_json
void OpenLogs(lua_State* L);             // trace, verbose, log_to, capture, captured
void OpenPrograms(lua_State* L);         // run_program
void OpenSignals(lua_State* L);          // sleep, catch_signals, interrupted, reloads
void OpenSimulatedMemory(lua_State* L);  // simulate_memory
void OpenSystem(lua_State* L);           // clock, time, setenv, isatty, uname, ...
void OpenTerminalText(lua_State* L);     // printable, hexdump
void OpenVersions(lua_State* L);         // versions, build_id

// Raises an error if a library has another binary interface than this module was built for; it
// names both versions and the library's file. Versions.cpp [-0, +0, v]
void CheckLibraryVersions(lua_State* L);

// Returns the name of the latest signal that catch_signals caught, or null. Signals.cpp
const char* CaughtSignalName();

// Returns the open handle that is argument 1; else raises an argument error. DriverHandles.cpp
// [-0, +0, v]
vxi_handle_ops_s* CheckHandle(lua_State* L);

// Pushes nil, the message of the handle's last failed call, and the status that it returned.
// DriverHandles.cpp [-0, +3, m]
int PushDriverError(lua_State* L, vxi_handle_ops_s* handle, int status);

// Returns the file if the argument is one that vxa.temporary made, else null; raises an argument
// error if it is closed. TemporaryFiles.cpp [-0, +0, v]
VxaCore::Host::PendingFile* TestPendingFile(lua_State* L, int index);

// The handle's method `connections`, and what it needs in a new state. Connections.cpp
int HandleConnections(lua_State* L);
void RegisterConnections(lua_State* L);

}  // namespace vxa
