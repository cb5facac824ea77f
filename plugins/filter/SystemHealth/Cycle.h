// Health check cycle.
//
// A cycle reads the configuration (Config.h), samples the machine (Collectors.h) and the monitored
// port (ScanRates.h), computes the metrics and counts those beyond their thresholds (Metrics.h),
// and decides about fail-open (FailOpen.h).
#pragma once

#include <cstdint>

#include <lua.hpp>

#include "Export.h"

extern int syshealth_enabled;  // 0 when the last cycle ended with monitoring disabled
extern std::uint64_t t_act;    // last transition into fail-open, us since the epoch
extern std::uint64_t t_prev;   // previous cycle, us since the epoch; 0 before the first

// Lua function CheckSystemHealthMetrics(dom, state, policy): runs one cycle. Returns {action =
// ACTION}, one of fc::Action, for any arguments.
FC_PUBLIC int CheckSystemHealthMetrics(lua_State* L);
