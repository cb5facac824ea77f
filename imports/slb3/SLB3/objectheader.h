// The layout of objects in Lua, and getting pointers back from the Lua stack.
#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "SLB3/config.h"

namespace SLB3 {

template <typename T>
struct Wrapper;

namespace internal {
struct ObjHeader;
}

// The argument of ObjHeader::unpack, made for the call from a userdata block.
struct Object {
    internal::ObjHeader* header;
    void* data;  // follows the header
};

namespace internal {

enum ObjectType : unsigned {
    kInvalid = 0,
    kInstance = 1,      // the object itself follows; made by the original library only
    kPointer = 2,       // a T* follows
    kConstPointer = 3,  // a const T* follows, possibly null
};

// The start of every object's userdata block; the data follow it. The original library has the
// same layout, so that each accepts objects of the other.
struct ObjHeader {
    unsigned type : 2;
    unsigned flags : 30;
    void* (*unpack)(const Object& object);
    const void* parents;  // base classes, in objects of the original library
};
static_assert(sizeof(ObjHeader) == 24 && offsetof(ObjHeader, unpack) == 8 &&
                  offsetof(ObjHeader, parents) == 16 && sizeof(Object) == 16,
              "objects are shared between libraries");

// Pushes registry[name] without metamethods. [-0, +1, m]
inline void PushRegistered(lua_State* L, const char* name)
{
    lua_pushstring(L, name);
    lua_rawget(L, LUA_REGISTRYINDEX);
}

// Returns whether the table on top is in the registry under the string in its own `__class`.
// Accesses are raw, because a metatable can come from a script. [-0, +0, m]
inline bool IsClassMetatable(lua_State* L)
{
    lua_pushliteral(L, "__class");
    lua_rawget(L, -2);
    if (lua_type(L, -1) == LUA_TSTRING) lua_rawget(L, LUA_REGISTRYINDEX);
    const bool is_class = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 1);
    return is_class;
}

// Returns the object at `index` and pushes its metatable; returns null and pushes nothing for
// anything else, userdata of other libraries included. [-0, +(0|1), m]
inline ObjHeader* PushMetatableOfObject(lua_State* L, int index)
{
    if (lua_type(L, index) != LUA_TUSERDATA || lua_rawlen(L, index) < sizeof(ObjHeader))
        return nullptr;
    auto* header = static_cast<ObjHeader*>(lua_touserdata(L, index));
    if (!lua_getmetatable(L, index)) return nullptr;
    if (IsClassMetatable(L)) return header;
    lua_pop(L, 1);
    return nullptr;
}

// GetOrConvertPtr for the class of this name. [-0, +0, m]
inline std::pair<void*, bool> GetOrConvert(lua_State* L, int index, const char* name)
{
    ObjHeader* header = PushMetatableOfObject(L, index);
    if (!header) return std::pair<void*, bool>(nullptr, true);
    PushRegistered(L, name);
    const bool is_same_class = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    if (!is_same_class) return std::pair<void*, bool>(nullptr, false);
    void* found = header->unpack(Object{header, header + 1});
    return std::pair<void*, bool>(found, header->type == kConstPointer);
}

// Returns the object of class T at a stack index, and whether it is const.
//
//   T*, T&, instance of T          pointer, false
//   const T*, const T&             pointer, true
//   const null                     null, true
//   an object of another class     null, false
//   anything else                  null, true
//
// "Anything else" includes userdata of other libraries, whose content is never read. A class is
// identified by its metatable, whichever shared library made the object. The caller does not own
// the pointer; it is valid while the value is on the stack and its owner keeps it. [-0, +0, m],
// needs two free stack slots.
template <typename T>
std::pair<T*, bool> GetOrConvertPtr(lua_State* L, int index)
{
    using Plain = typename std::remove_const<T>::type;
    const std::pair<void*, bool> found = GetOrConvert(L, index, Wrapper<Plain>::GetName());
    return std::pair<T*, bool>(static_cast<T*>(found.first), found.second);
}

}  // namespace internal
}  // namespace SLB3
