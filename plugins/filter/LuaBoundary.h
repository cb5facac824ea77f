// Guard between native functions and Lua: turns C++ exceptions into Lua errors.
//
// Lua built as C raises errors with longjmp, which skips destructors; Lua built as C++ throws its
// own objects. A native function therefore has three parts: check the arguments into plain
// locals; run the work inside Guarded, without calling Lua; push the results. No object with a
// destructor is alive where Lua can raise.
#pragma once

#include <cstdio>
#include <exception>

#include <lua.hpp>

namespace fc {

// Runs `body` and raises a std::exception that it throws as a Lua error with the same message.
// [-0, +0, v]
// Does not catch anything else: Lua built as C++ throws its own errors through here. The message
// is copied so that the exception object is gone when Lua raises.
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
    luaL_error(L, "%s", message);
}

}  // namespace fc
