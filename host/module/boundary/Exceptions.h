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
#include <exception>
#include <string_view>

#include <lua.hpp>

namespace vxa {

// The message of an exception, copied so that nothing is left to destroy when Lua raises. Has
// room for the longest path and a reason; a longer message is cut in the middle, because reasons
// are at the end.
struct ErrorMessage {
    char text[4608] = "";

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
        return false;
    }
}

// Returns false with nil and the message pushed if the function throws. [-0, +(0|2), m]
template <typename Function>
bool SucceedsOrPushError(lua_State* L, Function&& function)
{
    ErrorMessage message;
    if (Succeeds(function, message)) return true;
    lua_pushnil(L);
    lua_pushstring(L, message.text);
    return false;
}

// Pushes true, or nil and the message if the function throws; returns the number of results.
// [-0, +(1|2), m]
template <typename Function>
int PushSuccess(lua_State* L, Function&& function)
{
    if (!SucceedsOrPushError(L, function)) return 2;
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
