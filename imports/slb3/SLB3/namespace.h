// The global table of a dotted name.
#pragma once

#include <cstring>

#include "SLB3/config.h"
#include "SLB3/table.h"

namespace SLB3 {

namespace internal {

// Replaces the table on top by its field of this name, made new when it is no table.
// Raw accesses: opening a namespace runs no script, whatever metatables scripts have
// given to the globals. [-1, +1, m]
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

// [-0, +1, m]
inline void PushNamespace(lua_State* L, const char* name)
{
    luaL_checkstack(L, 5, "no room to open a namespace");
    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_GLOBALS);
    if (std::strcmp(name, "_G") == 0) return;
    while (*name != '\0') {
        const std::size_t length = std::strcspn(name, ".");
        if (length != 0) DescendTo(L, name, length);
        name += length + (name[length] == '.');
    }
}

}  // namespace internal

// Opens the table that the true globals hold under a dotted name ("SLB.filter"),
// whatever the environment of the running script. Tables on the way are used as they
// are; a component that is missing or no table is replaced by a new one; empty
// components are skipped. "" and "_G" are the globals. [-0, +0, m]
class Namespace : public Table {
public:
    Namespace(lua_State* L, const char* name) : Table(L)
    {
        internal::PushNamespace(L, name);
        hold(L);
    }
};

}  // namespace SLB3
