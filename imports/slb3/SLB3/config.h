// Lua, as every other header of this library sees it.
//
// The headers need C++17 and Lua 5.2 or later. Each function of the library that takes
// a lua_State carries the Lua manual's mark [-o, +p, x]: values popped, values pushed,
// and how it may raise: "-" never, "m" on lack of memory, "e" other errors too, "v" on
// purpose. A state is used by one thread at a time, as Lua demands; the library itself
// keeps no mutable data outside the state.
//
// A function that raises may leave by longjmp, which skips destructors. What the
// library itself holds at that moment is released first; a caller's own objects with
// destructors must not be alive there.
#pragma once

extern "C" {
#include <lua.h>

#include <lauxlib.h>
#include <lualib.h>
}

#if LUA_VERSION_NUM < 502
#error "SLB3 needs Lua 5.2 or later"
#endif

// On templates with static records: exported, these would be process-wide unique
// symbols, which keep the library that holds them from ever being unloaded.
#define SLB3_INTERNAL_LOCAL __attribute__((visibility("hidden")))
