// Arguments taken from Lua and values given to it.
#pragma once

#include <iterator>
#include <string>
#include <string_view>

#include <lua.hpp>

namespace vxa {

// Returns the argument, a file name without NUL bytes; else raises an argument error.
// [-0, +0, v]
const char* CheckPath(lua_State* L, int index);

// Returns the bytes of a string argument, which must stay on the stack. [-0, +0, v]
std::string_view CheckBytes(lua_State* L, int index);

// Pushes the bytes and frees the memory, whose size the collector does not know. [-0, +1, m]
void PushAndFree(lua_State* L, std::string& bytes);

// Set the field of that name in the table on top. [-0, +0, m]
void SetNumber(lua_State* L, const char* name, lua_Number value);
void SetBoolean(lua_State* L, const char* name, bool value);
void SetString(lua_State* L, const char* name, const char* text);
void SetString(lua_State* L, const char* name, const std::string& text);

// Pushes an array with one element per item of the range, as `push_item` pushes it. [-0, +1, m]
template <typename Range, typename PushItem>
void PushArray(lua_State* L, const Range& range, PushItem push_item)
{
    lua_createtable(L, static_cast<int>(std::size(range)), 0);
    int index = 0;
    for (const auto& item : range) {
        push_item(L, item);
        lua_rawseti(L, -2, ++index);
    }
}

// Registers a class of userdata under its name: `methods` as its functions, `close` for the
// collector. [-0, +0, m]
void RegisterClass(lua_State* L, const char* name, const luaL_Reg* methods, lua_CFunction close);

}  // namespace vxa
