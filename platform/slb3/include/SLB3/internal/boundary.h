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

// The text of a C++ exception, copied out so that nothing is alive when Lua raises.
struct ExceptionText {
    char text[256];
};

// Runs `body`; false and the text when it threw a std::exception. Nothing else is
// caught: where Lua is built as C++ a catch-all would swallow Lua's own errors.
template <typename Body>
bool Try(ExceptionText& thrown, Body&& body)
{
    try {
        body();
        return true;
    } catch (const std::exception& e) {
        std::snprintf(thrown.text, sizeof thrown.text, "%s", e.what());
        return false;
    }
}

// Runs `body`; a std::exception becomes a Lua error with its text. [-0, +0, v]
template <typename Body>
void Guarded(lua_State* L, Body&& body)
{
    ExceptionText thrown;
    if (!Try(thrown, body)) luaL_error(L, "%s", thrown.text);
}

}  // namespace internal
}  // namespace SLB3
