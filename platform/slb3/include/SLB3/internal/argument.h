// Arguments of C++ functions called from Lua.
//
// Argument<A>::Check takes the argument at a stack index into a plain record, raising
// an argument error when it does not fit [-0, +0, v]; Argument<A>::Make turns that
// record into what the function takes, without Lua. All checks come before the first
// Make, so no object with a destructor lives while Lua can raise.
#pragma once

#include <limits>
#include <string>

#include "SLB3/config.h"
#include "SLB3/declaration.h"
#include "SLB3/objectheader.h"

namespace SLB3 {
namespace internal {

template <typename T>
inline constexpr bool kIsObject = std::is_class<T>::value && !std::is_same<T, std::string>::value;

// [-0, +0, v]
inline int RaiseWrongObject(lua_State* L, int index, const char* name, bool is_const)
{
    const char* format = is_const ? "%s object expected, got a const one" : "%s object expected";
    return luaL_argerror(L, index, lua_pushfstring(L, format, name));
}

// Never null. A const object passes only where `T` is const. [-0, +0, v]
template <typename T>
T* CheckObject(lua_State* L, int index)
{
    const std::pair<T*, bool> object = GetOrConvertPtr<T>(L, index);
    const bool is_const = object.first != nullptr && object.second;
    if (object.first == nullptr || (is_const && !std::is_const<T>::value)) {
        typedef Wrapper<typename std::remove_const<T>::type> Declared;
        RaiseWrongObject(L, index, Declared::GetName(), is_const);
    }
    return object.first;
}

template <typename A, typename Enable = void>
struct Argument;

template <>
struct Argument<bool> {
    typedef bool Raw;
    static bool Check(lua_State* L, int index) { return lua_toboolean(L, index) != 0; }
    static bool Make(bool raw) { return raw; }
};

// Truncated toward zero; numbers beyond the type's range, and NaN, are errors.
template <typename A>
struct Argument<
    A, typename std::enable_if<std::is_integral<A>::value && !std::is_same<A, bool>::value>::type> {
    typedef A Raw;
    static A Check(lua_State* L, int index)
    {
        // The first value too large is a power of two, exact as a lua_Number; the
        // largest that fits may not be.
        constexpr lua_Number half = static_cast<lua_Number>(std::numeric_limits<A>::max() / 2 + 1);
        constexpr lua_Number low = static_cast<lua_Number>(std::numeric_limits<A>::min());
        const lua_Number number = luaL_checknumber(L, index);
        luaL_argcheck(L, number > low - 1 || number == low, index, "number out of range");
        luaL_argcheck(L, number < 2 * half, index, "number out of range");
        return static_cast<A>(number);
    }
    static A Make(A raw) { return raw; }
};

template <typename A>
struct Argument<A, typename std::enable_if<std::is_floating_point<A>::value>::type> {
    typedef A Raw;
    static A Check(lua_State* L, int index) { return static_cast<A>(luaL_checknumber(L, index)); }
    static A Make(A raw) { return raw; }
};

// Valid while the call runs.
template <>
struct Argument<const char*> {
    typedef const char* Raw;
    static Raw Check(lua_State* L, int index) { return luaL_checkstring(L, index); }
    static Raw Make(Raw raw) { return raw; }
};

template <>
struct Argument<std::string> {
    struct Raw {
        const char* text;
        std::size_t size;
    };
    static Raw Check(lua_State* L, int index)
    {
        Raw raw;
        raw.text = luaL_checklstring(L, index, &raw.size);
        return raw;
    }
    static std::string Make(Raw raw) { return std::string(raw.text, raw.size); }
};

// A pointer: nil stands for null.
template <typename T>
struct Argument<T*, typename std::enable_if<kIsObject<typename std::remove_cv<T>::type>>::type> {
    typedef T* Raw;
    static T* Check(lua_State* L, int index)
    {
        return lua_isnil(L, index) ? nullptr : CheckObject<T>(L, index);
    }
    static T* Make(T* raw) { return raw; }
};

template <typename T>
struct Argument<T&, typename std::enable_if<kIsObject<typename std::remove_cv<T>::type>>::type> {
    typedef T* Raw;
    static T* Check(lua_State* L, int index) { return CheckObject<T>(L, index); }
    static T& Make(T* raw) { return *raw; }
};

template <typename T>
struct Argument<T, typename std::enable_if<kIsObject<T>>::type> : Argument<const T&> {
};

// Other values by const reference are passed as their own copy.
template <typename T>
struct Argument<const T&, typename std::enable_if<!kIsObject<T>>::type> : Argument<T> {
};

}  // namespace internal
}  // namespace SLB3
