// C++ objects on the Lua stack, where the collector destroys them.
#pragma once

#include <new>
#include <type_traits>

#include <lua.hpp>

namespace vxa {

template <typename T>
inline char holder_key = 0;  // its address is the metatable's key in the registry

template <typename T>
int DestroyHeld(lua_State* L)
{
    static_cast<T*>(lua_touserdata(L, 1))->~T();
    return 0;
}

// Must run in a state before the first NewHolder<T>. [-0, +0, m]
template <typename T>
void RegisterHolder(lua_State* L)
{
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, &DestroyHeld<T>);
    lua_setfield(L, -2, "__gc");
    lua_rawsetp(L, LUA_REGISTRYINDEX, &holder_key<T>);
}

// Pushes an empty T: the place for an object that must survive while Lua functions are called.
// Scripts never see it. [-0, +1, m]
template <typename T>
T* NewHolder(lua_State* L)
{
    static_assert(std::is_nothrow_default_constructible_v<T> && alignof(T) <= 8);
    void* block = lua_newuserdata(L, sizeof(T));
    T* held = new (block) T();
    lua_rawgetp(L, LUA_REGISTRYINDEX, &holder_key<T>);
    lua_setmetatable(L, -2);
    return held;
}

}  // namespace vxa
