// Wall clock that a benchmark can set ahead. A program that uses it replaces time(2).
#pragma once

#include <lua.hpp>

// Lua function advance(): sets the clock ahead by 61 seconds, so that the next UpdateConnMetrics
// publishes.
int AdvanceClock(lua_State* L);
