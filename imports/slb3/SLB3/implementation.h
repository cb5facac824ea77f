// Registering classes and their methods.
//
//     SLB3_IMPLEMENTATION(Dog, dog)                 // at global scope, in one source
//     {
//         dog.set("bark", Bark);
//     }
#pragma once

#include "SLB3/config.h"
#include "SLB3/declaration.h"
#include "SLB3/namespace.h"
#include "SLB3/value.h"

namespace SLB3 {
namespace internal {

// The class table, which SLB3_IMPLEMENTATION fills. Its fields are the methods of objects.
template <typename T>
class Class : public Namespace {
public:
    explicit Class(lua_State* L) : Namespace(L, Wrapper<T>::GetName()) {}
};

// Makes the metatable of the class's objects in the registry. [-0, +0, m]
inline void MakeMetatable(lua_State* L, const char* name)
{
    luaL_newmetatable(L, name);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "__class");
    PushNamespace(L, name);
    lua_setfield(L, -2, "__index");
    lua_pop(L, 1);
}

// Returns whether the class is registered; raises an error if the name belongs to a metatable of
// something else. [-0, +0, v]
inline bool IsRegistered(lua_State* L, const char* name)
{
    PushRegistered(L, name);
    const bool is_found = !lua_isnil(L, -1);
    if (is_found && !(lua_istable(L, -1) && IsClassMetatable(L)))
        luaL_error(L, "the name '%s' is taken by a metatable that is not an SLB3 class", name);
    lua_pop(L, 1);
    return is_found;
}

// Removes a half-registered class from the registry. The name and an error value are on top; the
// error value stays. [-2, +1, m]
inline void Unregister(lua_State* L)
{
    lua_insert(L, -2);
    lua_pushvalue(L, -1);
    lua_rawget(L, LUA_REGISTRYINDEX);
    const bool is_in_registry = !lua_isnil(L, -1);
    lua_pop(L, 1);
    if (is_in_registry) {
        lua_pushnil(L);
        lua_rawset(L, LUA_REGISTRYINDEX);
    } else {
        lua_pop(L, 1);
    }
}

}  // namespace internal

template <typename T>
void Register(lua_State* L)
{
    const char* name = Wrapper<T>::GetName();
    luaL_checkstack(L, 8, "no room to register a class");
    if (internal::IsRegistered(L, name)) return;
    // Pushed now: removing the class after an error must not need memory.
    lua_pushstring(L, name);
    auto body = [name](lua_State* S) {
        internal::MakeMetatable(S, name);
        internal::Class<T> registered(S);
        Wrapper<T>::Register(registered);
        return 0;
    };
    if (internal::RunProtected(L, body) != LUA_OK) {
        internal::Unregister(L);
        lua_error(L);
    }
    lua_pop(L, 1);
}

}  // namespace SLB3

#define SLB3_IMPLEMENTATION(Type, Variable) \
    void SLB3::Wrapper<Type>::Register(SLB3::internal::Class<Type>& Variable)
