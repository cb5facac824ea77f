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

// What SLB3_IMPLEMENTATION fills: the class table that scripts see. Its fields are what
// objects answer to as methods.
template <typename T>
class Class : public Namespace {
public:
    explicit Class(lua_State* L) : Namespace(L, Wrapper<T>::GetName()) {}
};

// The objects' metatable; it is in the registry and recognised from here on. [-0, +0, m]
inline void MakeMetatable(lua_State* L, const char* name)
{
    luaL_newmetatable(L, name);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "__class");
    PushNamespace(L, name);
    lua_setfield(L, -2, "__index");
    lua_pop(L, 1);
}

// Whether the registry has the class; an error when the name belongs to a metatable
// of something else. [-0, +0, v]
inline bool IsRegistered(lua_State* L, const char* name)
{
    PushRegistered(L, name);
    const bool found = !lua_isnil(L, -1);
    if (found && !(lua_istable(L, -1) && IsClassMetatable(L)))
        luaL_error(L, "the name '%s' is taken by a metatable that is not an SLB3 class", name);
    lua_pop(L, 1);
    return found;
}

// Takes a half-registered class out of the registry. The name and an error value are
// on top. [-2, +1, m]
inline void Unregister(lua_State* L)
{
    lua_insert(L, -2);
    lua_pushvalue(L, -1);
    lua_rawget(L, LUA_REGISTRYINDEX);
    const bool published = !lua_isnil(L, -1);
    lua_pop(L, 1);
    if (published) {
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
    // Pushed beforehand: removing the class again must not need memory.
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
