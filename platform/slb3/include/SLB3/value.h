// Values pushed to Lua, and C++ functions called from it.
#pragma once

#include <new>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include "SLB3/config.h"
#include "SLB3/info.h"
#include "SLB3/internal/argument.h"
#include "SLB3/internal/boundary.h"
#include "SLB3/internal/object.h"
#include "SLB3/objectheader.h"

namespace SLB3 {

// Value<T>::Push(L, value) pushes one value. [-0, +1, m], for objects [-0, +1, e]
//
//   bool, numbers                 boolean, number
//   const char*, std::string      string; a null pointer is nil
//   lua_CFunction                 the function, without upvalues
//   other function pointers       a closure over Function<T>::Call with two upvalues:
//                                 the pointer, the type's record
//   T*, T&                        an object that points to `value`; a null T* is nil
//   const T*, const T&            the same, const; a null const T* is an object too
//   T                             an object that is a copy, destroyed by the collector
//
// What a pointer or reference points to must outlive the Lua object. Objects need
// SLB3/slb.h.
template <typename T, typename Enable = void>
struct Value;

// Function<T>::Call is the lua_CFunction behind a function pointer of type T: checks
// the arguments in ascending order, ignores further ones, calls, pushes the result.
// A method's object is the first argument. A std::exception thrown by the function
// becomes a Lua error with its text. [-0, +(0|1), v]
template <typename T>
struct Function;

namespace internal {

// A closure over `call` with the function pointer and its record as upvalues. [-0, +1, m]
template <typename T>
void PushRAWFunc(lua_State* L, T function, lua_CFunction call)
{
    new (lua_newuserdata(L, sizeof(T))) T(function);
    PushInfoUpvalue(L, InfoOf<T>());
    lua_pushcclosure(L, call, 2);
}

// Constructs the object of a holder from `make()`. [-0, +0, v]
template <typename T, typename Make>
void FillInstance(lua_State* L, ObjHeader* object, Make&& make)
{
    Guarded(L, [&] { new (InstanceAddress<T>(object + 1)) T(make()); });
    object->type = kInstance;
}

// Calls and pushes the result. [-0, +(0|1), v]
template <typename R, typename Enable = void>
struct Result {
    template <typename Call>
    static int Push(lua_State* L, Call&& call)
    {
        static_assert(std::is_trivially_destructible<R>::value, "would be lost in an error");
        R result{};
        Guarded(L, [&] { result = call(); });
        Value<R>::Push(L, result);
        return 1;
    }
};

template <>
struct Result<void> {
    template <typename Call>
    static int Push(lua_State* L, Call&& call)
    {
        Guarded(L, call);
        return 0;
    }
};

template <typename T>
struct Result<T&> {
    template <typename Call>
    static int Push(lua_State* L, Call&& call)
    {
        typename std::remove_reference<T>::type* result = nullptr;
        Guarded(L, [&] { result = &call(); });
        Value<T&>::Push(L, *result);
        return 1;
    }
};

template <typename T>
struct Result<T, typename std::enable_if<kIsObject<T>>::type> {
    template <typename Call>
    static int Push(lua_State* L, Call&& call)
    {
        FillInstance<T>(L, NewInstance<T>(L), call);
        return 1;
    }
};

// The string is gone before an error is raised.
template <>
struct Result<std::string> {
    template <typename Call>
    static int Push(lua_State* L, Call&& call)
    {
        ExceptionText thrown;
        bool called = false;
        int status = LUA_OK;
        {
            std::string text;
            auto push = [&text](lua_State* S) {
                lua_pushlstring(S, text.data(), text.size());
                return 1;
            };
            called = Try(thrown, [&] { text = call(); });
            if (called) status = RunProtected(L, push);
        }
        if (!called) return luaL_error(L, "%s", thrown.text);
        return status == LUA_OK ? 1 : lua_error(L);
    }
};

// Calls `function` with the arguments from stack index `first` on. [-0, +(0|1), v]
template <typename R, typename... Args, typename F, std::size_t... I>
int Invoke(lua_State* L, [[maybe_unused]] int first, const F& function, std::index_sequence<I...>)
{
    // Braces: the checks run from the first argument to the last.
    [[maybe_unused]] const std::tuple<typename Argument<Args>::Raw...> raw{
        Argument<Args>::Check(L, first + static_cast<int>(I))...};
    return Result<R>::Push(
        L, [&]() -> R { return function(Argument<Args>::Make(std::get<I>(raw))...); });
}

template <typename T>
const T& FunctionUpvalue(lua_State* L)
{
    return *static_cast<const T*>(lua_touserdata(L, lua_upvalueindex(1)));
}

// C is const for const methods.
template <typename T, typename C, typename R, typename... Args>
int CallMethod(lua_State* L)
{
    const T& method = FunctionUpvalue<T>(L);
    C* self = CheckObject<C>(L, 1);
    auto bound = [method, self](auto&&... args) -> R {
        return (self->*method)(std::forward<decltype(args)>(args)...);
    };
    return Invoke<R, Args...>(L, 2, bound, std::index_sequence_for<Args...>());
}

}  // namespace internal

template <typename R, typename... Args>
struct Function<R (*)(Args...)> {
    static int Call(lua_State* L)
    {
        return internal::Invoke<R, Args...>(L, 1, internal::FunctionUpvalue<R (*)(Args...)>(L),
                                            std::index_sequence_for<Args...>());
    }
};

template <typename C, typename R, typename... Args>
struct Function<R (C::*)(Args...)> {
    static int Call(lua_State* L)
    {
        return internal::CallMethod<R (C::*)(Args...), C, R, Args...>(L);
    }
};

template <typename C, typename R, typename... Args>
struct Function<R (C::*)(Args...) const> {
    static int Call(lua_State* L)
    {
        return internal::CallMethod<R (C::*)(Args...) const, const C, R, Args...>(L);
    }
};

template <>
struct Value<bool> {
    static void Push(lua_State* L, bool value) { lua_pushboolean(L, value); }
};

template <typename T>
struct Value<T, typename std::enable_if<std::is_arithmetic<T>::value &&
                                        !std::is_same<T, bool>::value>::type> {
    static void Push(lua_State* L, T value)
    {
        // A lua_Integer does not hold the upper half of unsigned 64-bit numbers.
        if constexpr (std::is_integral<T>::value && (std::is_signed<T>::value || sizeof(T) < 8))
            lua_pushinteger(L, static_cast<lua_Integer>(value));
        else
            lua_pushnumber(L, static_cast<lua_Number>(value));
    }
};

template <>
struct Value<const char*> {
    static void Push(lua_State* L, const char* value) { lua_pushstring(L, value); }
};
template <>
struct Value<char*> : Value<const char*> {
};

template <>
struct Value<std::string> {
    static void Push(lua_State* L, const std::string& value)
    {
        lua_pushlstring(L, value.data(), value.size());
    }
};

template <>
struct Value<lua_CFunction> {
    static void Push(lua_State* L, lua_CFunction value) { lua_pushcfunction(L, value); }
};

template <typename R, typename... Args>
struct Value<R (*)(Args...)> {
    typedef R (*Pointer)(Args...);
    static void Push(lua_State* L, Pointer value)
    {
        internal::PushRAWFunc<Pointer>(L, value, Function<Pointer>::Call);
    }
};

template <typename T>
struct Value<T, typename std::enable_if<std::is_member_function_pointer<T>::value>::type> {
    static void Push(lua_State* L, T value)
    {
        internal::PushRAWFunc<T>(L, value, Function<T>::Call);
    }
};

template <typename T>
struct Value<T*,
             typename std::enable_if<internal::kIsObject<T> && !std::is_const<T>::value>::type> {
    static void Push(lua_State* L, T* value)
    {
        if (value == nullptr)
            lua_pushnil(L);
        else
            internal::PushPointer<T>(L, value, internal::kPointer);
    }
};

template <typename T>
struct Value<const T*, typename std::enable_if<internal::kIsObject<T>>::type> {
    static void Push(lua_State* L, const T* value)
    {
        internal::PushPointer<T>(L, value, internal::kConstPointer);
    }
};

template <typename T>
struct Value<T&,
             typename std::enable_if<internal::kIsObject<T> && !std::is_const<T>::value>::type> {
    static void Push(lua_State* L, T& value) { Value<T*>::Push(L, &value); }
};

template <typename T>
struct Value<const T&, typename std::enable_if<internal::kIsObject<T>>::type> {
    static void Push(lua_State* L, const T& value) { Value<const T*>::Push(L, &value); }
};

// Other values by const reference are pushed as values.
template <typename T>
struct Value<const T&, typename std::enable_if<!internal::kIsObject<T>>::type> : Value<T> {
};

template <typename T>
struct Value<T, typename std::enable_if<internal::kIsObject<T> && !std::is_const<T>::value>::type> {
    static void Push(lua_State* L, const T& value)
    {
        internal::FillInstance<T>(L, internal::NewInstance<T>(L),
                                  [&value]() -> const T& { return value; });
    }
};

}  // namespace SLB3
