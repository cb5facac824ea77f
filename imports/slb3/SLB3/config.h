// Includes Lua, and conventions of all headers of this library.
//
// The headers need C++17 and Lua 5.2 or later. Functions that take a lua_State are marked with
// [-o, +p, x], the notation of the Lua manual, chapter 4.8: values popped, values pushed, and
// when it raises: "-" never, "m" out of memory, "e" other errors too, "v" on purpose. As in Lua,
// one thread at a time may use a state; the library keeps no mutable data outside the state.
//
// A function that raises may leave with longjmp, which skips destructors. The library releases
// what it holds first; the caller must have no live objects with destructors.
#pragma once

extern "C" {
#include <lua.h>

#include <lauxlib.h>
#include <lualib.h>
}

#if LUA_VERSION_NUM < 502
#error "SLB3 needs Lua 5.2 or later"
#endif

// For templates with static records: exported, these would be STB_GNU_UNIQUE symbols, and the
// loader never unloads a library that has some.
#define SLB3_INTERNAL_LOCAL __attribute__((visibility("hidden")))
