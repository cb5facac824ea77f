// Pushing values to Lua, and calling C++ functions from it.
#pragma once

#include <new>

#include "SLB3/config.h"
#include "SLB3/declaration.h"
#include "SLB3/info.h"
#include "SLB3/internal/boundary.h"
#include "SLB3/objectheader.h"

namespace SLB3 {

// Value<T>::Push(L, value) pushes one value. [-0, +1, m], for objects [-0, +1, e]
//
//   int                           number
//   lua_CFunction                 the function, without upvalues
//   other functions               a closure over Function<T>::Call with two upvalues: the
//                                 pointer and the type's record
//   T*                            an object that points to `value`; nil for null
//   const T*                      the same, const; an object for null, too
//
// The C++ object must outlive the Lua object. Objects need SLB3/slb.h.
template <typename T>
struct Value;

// Function<T>::Call is the lua_CFunction for function pointers of type T: ignores arguments, calls
// the function and pushes its result. A std::exception becomes a Lua error with its message.
// [-0, +1, v]
template <typename T>
struct Function;

namespace internal {

// Pushes a closure over `call` with the function pointer and its record as upvalues. [-0, +1, m]
template <typename T>
void PushRAWFunc(lua_State* L, T function, lua_CFunction call)
{
    new (lua_newuserdata(L, sizeof(T))) T(function);
    PushInfoUpvalue(L, InfoOf<T>());
    lua_pushcclosure(L, call, 2);
}

// Pushes an object of type kPointer or kConstPointer. [-0, +1, e]
template <typename T>
void PushPointer(lua_State* L, const T* pointer, ObjectType type)
{
    typedef typename Wrapper<T>::Policy::template Implementation<T> Implementation;
    SLB3::Register<T>(L);
    auto* header = static_cast<ObjHeader*>(lua_newuserdata(L, sizeof(ObjHeader) + sizeof(void*)));
    *header = {type, 0, &Implementation::Unpack, nullptr};
    *reinterpret_cast<const void**>(header + 1) = pointer;
    PushRegistered(L, Wrapper<T>::GetName());
    lua_setmetatable(L, -2);
}

}  // namespace internal

template <typename R>
struct Function<R (*)()> {
    static int Call(lua_State* L)
    {
        R (*const function)() = *static_cast<R (*const*)()>(lua_touserdata(L, lua_upvalueindex(1)));
        R result{};
        internal::Guarded(L, [&] { result = function(); });
        Value<R>::Push(L, result);
        return 1;
    }
};

template <>
struct Value<int> {
    static void Push(lua_State* L, int value) { lua_pushinteger(L, value); }
};

template <>
struct Value<lua_CFunction> {
    static void Push(lua_State* L, lua_CFunction value) { lua_pushcfunction(L, value); }
};

template <typename R>
struct Value<R (*)()> {
    static void Push(lua_State* L, R (*value)())
    {
        internal::PushRAWFunc<R (*)()>(L, value, Function<R (*)()>::Call);
    }
};

template <typename T>
struct Value<T*> {
    static void Push(lua_State* L, T* value)
    {
        if (!value)
            lua_pushnil(L);
        else
            internal::PushPointer<T>(L, value, internal::kPointer);
    }
};

template <typename T>
struct Value<const T*> {
    static void Push(lua_State* L, const T* value)
    {
        internal::PushPointer<T>(L, value, internal::kConstPointer);
    }
};

}  // namespace SLB3
