// Lua functions that report the state of the health monitor. They ignore any arguments.
#pragma once

#include <lua.hpp>

#include "Export.h"

// Whether the last cycle ended with monitoring enabled.
FC_PUBLIC int GetSysHealthEnabled(lua_State* L);

// true and the configured port while monitoring is enabled, otherwise false and 0.
FC_PUBLIC int GetScanMetricPort(lua_State* L);

// true and an array: {value=, threshold=, name=} per metric, truncated to integers, and last
// {cpu_count=}.
FC_PUBLIC int GetSysHealthMetrics(lua_State* L);
