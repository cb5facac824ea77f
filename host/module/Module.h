// The parts of the module `vxa`: each registers what it needs in a new state and lists
// its functions. What scripts may rely on is told in docs/lua-vxa.md.
#pragma once

#include <lua.hpp>

#include "vxa_core/pending_file.h"
#include "vxi/vxi.h"

namespace vxa {

// Each fills the module's table on top. [-0, +0, m]
void open_document(lua_State* L);       // Document.cpp: Dom
void open_archive(lua_State* L);        // Archive.cpp: ZipOutputStream, zip_entries, zip_read
void open_handle(lua_State* L);         // Handle.cpp: open, and the handle's methods
void open_engine(lua_State* L);         // Engine.cpp: engine, engines, fault, simulate...
void open_log(lua_State* L);            // Log.cpp: trace, verbose, log_to, capture, captured
void open_json(lua_State* L);           // Json.cpp: parse_json
void open_pending_file(lua_State* L);   // PendingFile.cpp: temporary, and the file's methods
void open_system(lua_State* L);         // System.cpp: clock, files, environment
void open_text(lua_State* L);           // Text.cpp: printable, hexdump
void open_signals(lua_State* L);        // Signals.cpp: sleep, catch_signals, interrupted, reloads
void open_settings_file(lua_State* L);  // SettingsFile.cpp: read_file, conf_line
void open_simulated_memory(lua_State* L);  // SimulatedMemory.cpp: simulate_memory

// Name of the latest signal that catch_signals caught, or null. Signals.cpp
const char* caught_signal_name();

// The open handle that is argument 1; an argument error when there is none. [-0, +0, v]
vxi_handle_ops_s* check_handle(lua_State* L);

// The file that vxa.temporary has made, if the argument is one: else null. An argument error
// when it is closed. [-0, +0, v]
const VxaCore::Host::PendingFile* test_pending_file(lua_State* L, int index);

// What a method whose driver call failed returns: nil and the driver's text. [-0, +2, m]
int push_driver_error(lua_State* L, vxi_handle_ops_s* handle);

// The handle's method, and what it needs in a new state. Connections.cpp
int handle_connections(lua_State* L);
void register_connections(lua_State* L);

}  // namespace vxa
