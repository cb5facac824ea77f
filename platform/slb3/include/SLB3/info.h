// What a type is, at run time: mostly for functions registered with Lua.
#pragma once

#include <string>

#include "SLB3/config.h"
#include "SLB3/declaration.h"

namespace SLB3 {

// One constant record per type, shared by all states and threads; never freed.
struct BaseInfo {
    enum Type {
        kType_unknown,
        kType_void,
        kType_primitive_value,
        kType_class,
        kType_function,
    };
    virtual Type type() const { return kType_unknown; }
    // "int", "const char*", a class's GetName(); "function" for functions.
    virtual const char* name() const { return "unknown"; }
    // Functions only; -1 for everything else. A method's object is not counted.
    virtual int num_args() const { return -1; }
    // `num_args()` records; null when there are none.
    virtual const BaseInfo* const* args() const { return nullptr; }
    // Null for void and for everything that is no function.
    virtual const BaseInfo* type_returned() const { return nullptr; }

protected:
    ~BaseInfo() = default;
};

// The record's class for T; references and top-level const do not count.
template <typename T>
struct Info;

namespace internal {

template <typename T>
struct InfoType {
    typedef typename std::remove_cv<typename std::remove_reference<T>::type>::type type;
};
template <typename T>
struct InfoType<T*> {
    // A pointer to an object is described by the object's class.
    typedef typename std::remove_cv<T>::type Plain;
    typedef typename std::conditional<std::is_class<Plain>::value, Plain, T*>::type type;
};

// The shared record of T; null for void.
template <typename T>
SLB3_INTERNAL_LOCAL const BaseInfo* InfoOf()
{
    if constexpr (std::is_void<T>::value) {
        return nullptr;
    } else {
        static const Info<typename InfoType<T>::type> record;
        return &record;
    }
}

template <typename R, typename... Args>
struct FunctionInfo : BaseInfo {
    Type type() const override { return kType_function; }
    const char* name() const override { return "function"; }
    int num_args() const override { return static_cast<int>(sizeof...(Args)); }
    SLB3_INTERNAL_LOCAL const BaseInfo* const* args() const override
    {
        static const BaseInfo* const list[] = {InfoOf<Args>()..., nullptr};
        return sizeof...(Args) == 0 ? nullptr : list;
    }
    const BaseInfo* type_returned() const override { return InfoOf<R>(); }

protected:
    ~FunctionInfo() = default;
};

}  // namespace internal

template <typename T>
struct Info final : BaseInfo {
    Type type() const override { return kType_class; }
    const char* name() const override { return Wrapper<T>::GetName(); }
};

template <>
struct Info<void> final : BaseInfo {
    Type type() const override { return kType_void; }
    const char* name() const override { return "void"; }
};

#define SLB3_INTERNAL_PRIMITIVE_INFO(Type_)                          \
    template <>                                                      \
    struct Info<Type_> final : BaseInfo {                            \
        Type type() const override { return kType_primitive_value; } \
        const char* name() const override { return #Type_; }         \
    };
SLB3_INTERNAL_PRIMITIVE_INFO(bool)
SLB3_INTERNAL_PRIMITIVE_INFO(char)
SLB3_INTERNAL_PRIMITIVE_INFO(signed char)
SLB3_INTERNAL_PRIMITIVE_INFO(unsigned char)
SLB3_INTERNAL_PRIMITIVE_INFO(short)
SLB3_INTERNAL_PRIMITIVE_INFO(unsigned short)
SLB3_INTERNAL_PRIMITIVE_INFO(int)
SLB3_INTERNAL_PRIMITIVE_INFO(unsigned int)
SLB3_INTERNAL_PRIMITIVE_INFO(long)
SLB3_INTERNAL_PRIMITIVE_INFO(unsigned long)
SLB3_INTERNAL_PRIMITIVE_INFO(long long)
SLB3_INTERNAL_PRIMITIVE_INFO(unsigned long long)
SLB3_INTERNAL_PRIMITIVE_INFO(float)
SLB3_INTERNAL_PRIMITIVE_INFO(double)
SLB3_INTERNAL_PRIMITIVE_INFO(const char*)
SLB3_INTERNAL_PRIMITIVE_INFO(std::string)
#undef SLB3_INTERNAL_PRIMITIVE_INFO

template <typename R, typename... Args>
struct Info<R (*)(Args...)> final : internal::FunctionInfo<R, Args...> {
};
template <typename C, typename R, typename... Args>
struct Info<R (C::*)(Args...)> final : internal::FunctionInfo<R, Args...> {
};
template <typename C, typename R, typename... Args>
struct Info<R (C::*)(Args...) const> final : internal::FunctionInfo<R, Args...> {
};

// The record of the function at a stack index when it was registered by these headers
// in the same shared library, with two upvalues; else null. [-0, +0, -], needs one
// free stack slot.
const BaseInfo* GetInfo(lua_State* L, int index);

namespace internal {

// A function's second upvalue. The address of GetInfo tells it from other libraries'
// upvalues.
struct InfoUpvalue {
    const BaseInfo* (*reader)(lua_State*, int);
    const BaseInfo* info;
};
static_assert(sizeof(InfoUpvalue) == 16, "part of what functions look like to others");

// [-0, +1, m]
inline void PushInfoUpvalue(lua_State* L, const BaseInfo* info)
{
    auto* upvalue = static_cast<InfoUpvalue*>(lua_newuserdata(L, sizeof(InfoUpvalue)));
    upvalue->reader = &GetInfo;
    upvalue->info = info;
}

}  // namespace internal

inline const BaseInfo* GetInfo(lua_State* L, int index)
{
    if (!lua_iscfunction(L, index) || lua_getupvalue(L, index, 2) == nullptr) return nullptr;
    const BaseInfo* info = nullptr;
    if (lua_type(L, -1) == LUA_TUSERDATA && lua_rawlen(L, -1) == sizeof(internal::InfoUpvalue)) {
        auto* upvalue = static_cast<const internal::InfoUpvalue*>(lua_touserdata(L, -1));
        info = upvalue->reader == &GetInfo ? upvalue->info : nullptr;
    }
    lua_pop(L, 1);
    return info;
}

}  // namespace SLB3
