// The global table of a dotted name.
#pragma once

#include <cstring>

#include "SLB3/config.h"
#include "SLB3/table.h"

namespace SLB3 {

namespace internal {

// Replaces the table on top by its field of this name, and a field that is not a table by a new
// table. Accesses are raw, so that no metamethod of a script runs. [-1, +1, m]
inline void DescendTo(lua_State* L, const char* name, std::size_t length)
{
    lua_pushlstring(L, name, length);
    lua_pushvalue(L, -1);
    lua_rawget(L, -3);
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        lua_newtable(L);
        lua_pushvalue(L, -2);
        lua_pushvalue(L, -2);
        lua_rawset(L, -5);
    }
    lua_replace(L, -3);
    lua_pop(L, 1);
}

// Pushes the table of a dotted name. [-0, +1, m]
inline void PushNamespace(lua_State* L, const char* name)
{
    luaL_checkstack(L, 5, "no room to open a namespace");
    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
    while (*name != '\0') {
        const std::size_t length = std::strcspn(name, ".");
        if (length != 0) DescendTo(L, name, length);
        name += length + (name[length] == '.');
    }
}

}  // namespace internal

// Opens the global table of a dotted name ("SLB.filter"), whatever the environment of the running
// script. Existing tables are used as they are; a component that is missing or not a table is
// replaced by a new table; empty components are skipped. [-0, +0, m]
class Namespace : public Table {
public:
    Namespace(lua_State* L, const char* name) : Table(L)
    {
        internal::PushNamespace(L, name);
        Hold(L);
    }
};

}  // namespace SLB3
