// What crosses between Lua and C++: errors one way, exceptions the other.
#pragma once

#include <cstdio>
#include <exception>

#include "SLB3/config.h"

namespace SLB3 {
namespace internal {

template <typename Body>
int ProtectedBody(lua_State* L)
{
    return (*static_cast<Body*>(lua_touserdata(L, 1)))(L);
}

// Runs `int body(lua_State*)` in a protected call with a stack frame of its own; its
// results come out on top. Returns lua_pcall's status; when that is not LUA_OK, the
// error value is on top. [-0, +n, -], needs two free stack slots.
//
// The caller can then release what it holds and pass the error on with lua_error. The
// error value stays the same; that it was a memory error shows in its text only.
template <typename Body>
int RunProtected(lua_State* L, Body& body)
{
    lua_pushcfunction(L, &ProtectedBody<Body>);
    lua_pushlightuserdata(L, &body);
    return lua_pcall(L, 1, LUA_MULTRET, 0);
}

// Runs `body`; a std::exception becomes a Lua error with its text. Nothing else is caught:
// where Lua is built as C++ a catch-all would swallow Lua's own errors. [-0, +0, v]
template <typename Body>
void Guarded(lua_State* L, Body&& body)
{
    char message[256];
    try {
        body();
        return;
    } catch (const std::exception& e) {
        std::snprintf(message, sizeof message, "%s", e.what());
    }
    // The exception is gone by now: nothing is alive when Lua jumps.
    luaL_error(L, "%s", message);
}

}  // namespace internal
}  // namespace SLB3
