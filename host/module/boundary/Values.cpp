// Arguments taken from Lua and values given to it.
#include "boundary/Values.h"

#include <cstring>

namespace vxa {

const char* CheckPath(lua_State* L, int index)
{
    std::size_t length = 0;
    const char* path = luaL_checklstring(L, index, &length);
    if (length == 0) luaL_argerror(L, index, "file name is empty");
    if (std::strlen(path) != length) luaL_argerror(L, index, "file name contains a NUL byte");
    return path;
}

std::string_view CheckBytes(lua_State* L, int index)
{
    std::size_t length = 0;
    const char* bytes = luaL_checklstring(L, index, &length);
    return {bytes, length};
}

void PushAndFree(lua_State* L, std::string& bytes)
{
    lua_pushlstring(L, bytes.data(), bytes.size());
    std::string().swap(bytes);
}

void SetNumber(lua_State* L, const char* name, lua_Number value)
{
    lua_pushnumber(L, value);
    lua_setfield(L, -2, name);
}

void SetBoolean(lua_State* L, const char* name, bool value)
{
    lua_pushboolean(L, value);
    lua_setfield(L, -2, name);
}

void SetString(lua_State* L, const char* name, const char* text)
{
    lua_pushstring(L, text);
    lua_setfield(L, -2, name);
}

void SetString(lua_State* L, const char* name, const std::string& text)
{
    lua_pushlstring(L, text.data(), text.size());
    lua_setfield(L, -2, name);
}

void RegisterClass(lua_State* L, const char* name, const luaL_Reg* methods, lua_CFunction close)
{
    luaL_newmetatable(L, name);
    lua_newtable(L);
    luaL_setfuncs(L, methods, 0);
    lua_setfield(L, -2, "__index");
    lua_pushcfunction(L, close);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);
}

}  // namespace vxa
