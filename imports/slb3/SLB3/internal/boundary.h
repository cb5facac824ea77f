// Lua errors caught for C++, and C++ exceptions turned into Lua errors.
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

// Runs `int body(lua_State*)` in a protected call and pushes its results. Returns lua_pcall's
// status; if that is not LUA_OK, the error value is on top. [-0, +n, -], needs two free stack
// slots.
//
// The caller can then release what it holds and raise the error value again with lua_error. The
// status of a memory error is lost then, its message is not.
template <typename Body>
int RunProtected(lua_State* L, Body& body)
{
    lua_pushcfunction(L, &ProtectedBody<Body>);
    lua_pushlightuserdata(L, &body);
    return lua_pcall(L, 1, LUA_MULTRET, 0);
}

// Runs `body`; a std::exception becomes a Lua error with its message. Nothing else is caught: if
// Lua is built as C++, its errors are exceptions. [-0, +0, v]
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
    // The exception is destroyed by now: longjmp would not destroy it.
    luaL_error(L, "%s", message);
}

}  // namespace internal
}  // namespace SLB3
