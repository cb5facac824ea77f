#include "LuaBoundary.h"

#include <cstring>

namespace vxa {

const char* check_path(lua_State* L, int index)
{
    std::size_t length = 0;
    const char* path = luaL_checklstring(L, index, &length);
    if (length == 0) luaL_argerror(L, index, "the name of a file or directory is empty");
    if (std::strlen(path) != length)
        luaL_argerror(L, index, "the name of a file or directory holds a zero byte");
    return path;
}

void RegisterClass(lua_State* L, const char* type, const luaL_Reg* methods, lua_CFunction close)
{
    luaL_newmetatable(L, type);
    lua_newtable(L);
    luaL_setfuncs(L, methods, 0);
    lua_setfield(L, -2, "__index");
    lua_pushcfunction(L, close);
    lua_setfield(L, -2, "__gc");
    lua_pop(L, 1);
}

void SetNumber(lua_State* L, const char* name, lua_Number value)
{
    lua_pushnumber(L, value);
    lua_setfield(L, -2, name);
}

void SetText(lua_State* L, const char* name, const char* text)
{
    lua_pushstring(L, text);
    lua_setfield(L, -2, name);
}

void SetText(lua_State* L, const char* name, const std::string& text)
{
    lua_pushlstring(L, text.data(), text.size());
    lua_setfield(L, -2, name);
}

}  // namespace vxa
