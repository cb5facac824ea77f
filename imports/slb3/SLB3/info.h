// Type records of functions registered with Lua.
#pragma once

#include "SLB3/config.h"

namespace SLB3 {

// There is one constant record per type, shared by all states and threads and never freed.
struct BaseInfo {
    enum Type {
        kType_unknown,
        kType_void,
        kType_primitive_value,
        kType_class,
        kType_function,
    };
    virtual Type type() const { return kType_unknown; }
    // "int"; "function" for functions.
    virtual const char* name() const { return "unknown"; }
    // -1 if this is not a function.
    virtual int num_args() const { return -1; }
    // `num_args()` records; null if there are none.
    virtual const BaseInfo* const* args() const { return nullptr; }
    // Null if this is not a function.
    virtual const BaseInfo* type_returned() const { return nullptr; }

protected:
    ~BaseInfo() = default;
};

// The record's class for T.
template <typename T>
struct Info;

template <>
struct Info<int> final : BaseInfo {
    Type type() const override { return kType_primitive_value; }
    const char* name() const override { return "int"; }
};

namespace internal {

// Returns the record of T.
template <typename T>
SLB3_INTERNAL_LOCAL const BaseInfo* InfoOf()
{
    static const Info<T> record;
    return &record;
}

}  // namespace internal

template <typename R>
struct Info<R (*)()> final : BaseInfo {
    Type type() const override { return kType_function; }
    const char* name() const override { return "function"; }
    int num_args() const override { return 0; }
    const BaseInfo* type_returned() const override { return internal::InfoOf<R>(); }
};

// Returns the record of the function at a stack index if it was registered by these headers in
// the same shared library, with two upvalues; else null. [-0, +0, -], needs one free stack slot.
const BaseInfo* GetInfo(lua_State* L, int index);

namespace internal {

// A function's second upvalue. The address of GetInfo distinguishes it from upvalues of other
// libraries.
struct InfoUpvalue {
    const BaseInfo* (*reader)(lua_State*, int);
    const BaseInfo* info;
};
static_assert(sizeof(InfoUpvalue) == 16, "the same as in the original library");

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
    if (!lua_iscfunction(L, index) || !lua_getupvalue(L, index, 2)) return nullptr;
    const BaseInfo* info = nullptr;
    if (lua_type(L, -1) == LUA_TUSERDATA && lua_rawlen(L, -1) == sizeof(internal::InfoUpvalue)) {
        auto* upvalue = static_cast<const internal::InfoUpvalue*>(lua_touserdata(L, -1));
        info = upvalue->reader == &GetInfo ? upvalue->info : nullptr;
    }
    lua_pop(L, 1);
    return info;
}

}  // namespace SLB3
