// What crosses between Lua and C++ in the module `vxa`.
//
// Lua raises by longjmp where it is built as C, by a C++ exception where it is built as
// C++. So a function that Lua can leave holds no object with a destructor: such objects
// live in holders (userdata with __gc), or inside a `guarded` body, which makes no Lua
// call. Every helper bears the manual's stack notation: [-pops, +pushes, errors].
#pragma once

#include <cstdio>
#include <exception>
#include <new>
#include <string>
#include <type_traits>

#include <lua.hpp>

namespace vxa {

// A failure's text, copied out so that nothing is alive when Lua raises. Long enough for
// the longest path and a reason.
struct Failure {
    char text[4608] = "";
    void Set(const std::string& reason) { std::snprintf(text, sizeof text, "%s", reason.c_str()); }
};

// Runs a body that makes no Lua call and may put a reason into `failure`. True when it
// did not and threw no std::exception; nothing else is caught, because Lua built as C++
// throws its own errors through here. [-0, +0, -]
template <typename Body>
bool Guarded(Failure& failure, Body&& body)
{
    try {
        body();
    } catch (const std::exception& thrown) {
        std::snprintf(failure.text, sizeof failure.text, "%s", thrown.what());
    }
    return failure.text[0] == '\0';
}

// What a function that failed returns: nil and the reason. [-0, +2, m]
inline int PushFailure(lua_State* L, const Failure& failure)
{
    lua_pushnil(L);
    lua_pushstring(L, failure.text);
    return 2;
}

// true, or nil and the reason. [-0, +1|2, m]
inline int PushOutcome(lua_State* L, bool succeeded, const Failure& failure)
{
    if (!succeeded) return PushFailure(L, failure);
    lua_pushboolean(L, 1);
    return 1;
}

template <typename T>
inline char holder_key = 0;  // its address is the metatable's place in the registry

template <typename T>
int CollectHolder(lua_State* L)
{
    static_cast<T*>(lua_touserdata(L, 1))->~T();
    return 0;
}

// Must have run once in a state before the first NewHolder<T>. [-0, +0, m]
template <typename T>
void RegisterHolder(lua_State* L)
{
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, &CollectHolder<T>);
    lua_setfield(L, -2, "__gc");
    lua_rawsetp(L, LUA_REGISTRYINDEX, &holder_key<T>);
}

// An empty T that the collector destroys: the place for what Lua work needs while it
// goes on. Scripts never see it. [-0, +1, m]
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

// A file or directory name; an argument error unless it is a text without zero bytes.
// [-0, +0, v]
const char* check_path(lua_State* L, int index);

// Registers a class of userdata under its name: `methods` as its functions, `close` for the
// collector. [-0, +0, m]
void RegisterClass(lua_State* L, const char* type, const luaL_Reg* methods, lua_CFunction close);

// `name` = value in the table on top. [-0, +0, m]
void SetNumber(lua_State* L, const char* name, lua_Number value);
void SetText(lua_State* L, const char* name, const char* text);
void SetText(lua_State* L, const char* name, const std::string& text);

}  // namespace vxa
