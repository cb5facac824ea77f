// Turns C++ exceptions into Lua results or errors: the one place where they stop.
//
// Lua raises with longjmp if it is built as C, with a C++ exception if it is built as C++. So a
// function that Lua can leave has no object with a destructor: such objects live in holders
// (boundary/Holder.h) or inside the functions passed here, which make no Lua call. Only
// std::exception is caught: Lua built as C++ throws its own errors through here.
//
// Everywhere in this module, [-o, +p, x] is the notation of the Lua manual, chapter 4.8.
#pragma once

#include <cstdio>
#include <cstring>
#include <exception>
#include <string_view>

#include <lua.hpp>

#include "vxa_core/files.h"

namespace vxa {

// What an exception reports, copied so that nothing is left to destroy when Lua raises. Has room
// for the longest path and a reason; a longer message is cut in the middle, because reasons are at
// the end.
struct ErrorMessage {
    char text[4608] = "";
    int number = 0;  // as VxaCore::Host::ErrorNumber returns it

    void Set(std::string_view message)
    {
        constexpr std::size_t kTail = 256;
        if (message.size() < sizeof text) {
            text[message.copy(text, sizeof text)] = '\0';
            return;
        }
        const auto tail = message.substr(message.size() - kTail);
        std::snprintf(text, sizeof text, "%.*s...%.*s",
                      static_cast<int>(sizeof text - kTail - sizeof "..."), message.data(),
                      static_cast<int>(tail.size()), tail.data());
    }
};

// Returns false and the message if the function throws. [-0, +0, -]
template <typename Function>
bool Succeeds(Function&& function, ErrorMessage& message)
{
    try {
        function();
        return true;
    } catch (const std::exception& error) {
        message.Set(error.what());
        message.number = VxaCore::Host::ErrorNumber(error);
        return false;
    }
}

// A function that fails returns nil, a message and a number, as Lua's io library does.
constexpr int kErrorResults = 3;

// Pushes these results: the number is an errno value, or a status of the driver library, which is
// negative. [-0, +3, m]
inline int PushError(lua_State* L, const char* message, int number)
{
    lua_pushnil(L);
    lua_pushstring(L, message);
    lua_pushinteger(L, number);
    return kErrorResults;
}

// Pushes them for a system call that failed: the message ends with the reason. [-0, +3, m]
inline int PushSystemError(lua_State* L, const char* message, int error_number)
{
    lua_pushnil(L);
    lua_pushfstring(L, "%s: %s", message, std::strerror(error_number));
    lua_pushinteger(L, error_number);
    return kErrorResults;
}

// Returns false with these results pushed if the function throws. [-0, +(0|3), m]
template <typename Function>
bool SucceedsOrPushError(lua_State* L, Function&& function)
{
    ErrorMessage message;
    if (Succeeds(function, message)) return true;
    PushError(L, message.text, message.number);
    return false;
}

// Pushes true, or the results of a failure if the function throws; returns their number.
// [-0, +(1|3), m]
template <typename Function>
int PushSuccess(lua_State* L, Function&& function)
{
    if (!SucceedsOrPushError(L, function)) return kErrorResults;
    lua_pushboolean(L, 1);
    return 1;
}

// Raises an error with the message if the function throws. [-0, +0, v]
template <typename Function>
void CallOrRaise(lua_State* L, Function&& function)
{
    ErrorMessage message;
    if (!Succeeds(function, message)) luaL_error(L, "%s", message.text);
}

}  // namespace vxa
