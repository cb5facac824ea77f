// Connection metric feedback: the functions that Lua scripts call.
//
// Scripts feed observations into the working store, where they are merged by key and counted;
// publish them now and then into the finished store; and take that as a report of rows.
//
// The plugin feeds and publishes on one scripting thread: AddToConnMetrics and UpdateConnMetrics
// must not run at the same time. GetConnMetrics may run on any thread at any time.
#pragma once

#include <lua.hpp>

#include "Export.h"

// AddToConnMetrics(key, text, count): adds `count`, modulo 2^32, to the observation. The first text
// fed under a key stays. A full store drops new keys.
FC_PUBLIC int AddToConnMetrics(lua_State* L);

// UpdateConnMetrics(): publishes the working store if kMinPublicationIntervalS has passed since
// the last publication.
FC_PUBLIC int UpdateConnMetrics(lua_State* L);

// GetConnMetrics(): takes the finished store and returns its observations as an array of rows in
// the order of their keys.
FC_PUBLIC int GetConnMetrics(lua_State* L);
