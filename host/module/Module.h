// The parts of the module `vxa`: each registers what it needs in a new state and lists
// its functions. What scripts may rely on is told in docs/lua-vxa.md.
#pragma once

#include <lua.hpp>

#include "vxa_core/pending_file.h"
#include "vxi/vxi.h"

namespace vxa {

// Each fills the module's table on top. [-0, +0, m]
void OpenDocument(lua_State* L);         // Document.cpp: Dom
void OpenArchive(lua_State* L);          // Archive.cpp: ZipOutputStream, ZipEntries, ZipRead
void OpenHandle(lua_State* L);           // Handle.cpp: open, and the handle's methods
void OpenEngine(lua_State* L);           // Engine.cpp: engine, engines, fault, simulate...
void OpenLog(lua_State* L);              // Log.cpp: trace, verbose, LogTo, capture, captured
void OpenJson(lua_State* L);             // Json.cpp: ParseJson
void open_pending_file(lua_State* L);    // PendingFile.cpp: temporary, and the file's methods
void OpenSystem(lua_State* L);           // System.cpp: clock, files, environment
void OpenText(lua_State* L);             // Text.cpp: printable, hexdump
void OpenSignals(lua_State* L);          // Signals.cpp: sleep, CatchSignals, interrupted, reloads
void OpenSettingsFile(lua_State* L);     // SettingsFile.cpp: read_file, ConfLine
void OpenSimulatedMemory(lua_State* L);  // SimulatedMemory.cpp: SimulateMemory

// Name of the latest signal that CatchSignals caught, or null. Signals.cpp
const char* CaughtSignalName();

// The open handle that is argument 1; an argument error when there is none. [-0, +0, v]
vxi_handle_ops_s* check_handle(lua_State* L);

// The file that vxa.temporary has made, if the argument is one: else null. An argument error
// when it is closed. [-0, +0, v]
const VxaCore::Host::PendingFile* test_pending_file(lua_State* L, int index);

// What a method whose driver call failed returns: nil and the driver's text. [-0, +2, m]
int PushDriverError(lua_State* L, vxi_handle_ops_s* handle);

// The handle's method, and what it needs in a new state. Connections.cpp
int HandleConnections(lua_State* L);
void RegisterConnections(lua_State* L);

}  // namespace vxa
