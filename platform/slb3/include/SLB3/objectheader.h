// Objects as Lua holds them, and getting pointers back out of the Lua stack.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "SLB3/config.h"

namespace SLB3 {

template <typename T>
struct Wrapper;

namespace internal {
struct ObjHeader;
}

// An object as its class's function takes it: made for the call from a userdata block.
struct Object {
    internal::ObjHeader* header;
    void* data;  // right after the header
};

namespace internal {

enum ObjectType : unsigned {
    kInvalid = 0,       // no object yet, or destroyed
    kInstance = 1,      // the object itself follows
    kPointer = 2,       // a T* follows
    kConstPointer = 3,  // a const T* follows, possibly null
};

// One direct base class. A list of these ends with a null name.
struct ParentRef {
    const char* name;                 // the base class's GetName()
    void* (*adjust)(void* instance);  // from the class to this base
};

// The head of every object's userdata block; the data follow it. The layout is shared
// with the original library: an object made there is understood here.
struct ObjHeader {
    unsigned type : 2;
    unsigned flags : 30;
    void* (*unpack)(const Object& object);
    const ParentRef* parents;
};
static_assert(sizeof(ObjHeader) == 24 && offsetof(ObjHeader, unpack) == 8 &&
                  offsetof(ObjHeader, parents) == 16 && sizeof(Object) == 16,
              "objects cross shared libraries: their layout is fixed");

// What the object's own class finds in the block, whichever library that is of.
inline void* Unpack(ObjHeader& header)
{
    return header.unpack(Object{&header, &header + 1});
}

// In `flags`: `parents` points to a list of this layout. Objects made elsewhere may
// keep something else there.
constexpr unsigned kParentsReadable = 0x15AB3F0D;

inline void* StoredPointer(const Object& object)
{
    return object.header->type == kPointer || object.header->type == kConstPointer
               ? *static_cast<void**>(object.data)
               : nullptr;
}

// Lua aligns a block to 8 bytes only; the room for more is reserved by NewInstance.
template <typename T>
void* InstanceAddress(void* data)
{
    const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(data);
    return reinterpret_cast<void*>((start + alignof(T) - 1) / alignof(T) * alignof(T));
}

struct NoParents {
    template <typename T>
    static const ParentRef* List()
    {
        return nullptr;
    }
};

template <typename Parent>
struct OneParent {
    template <typename T>
    static void* Adjust(void* instance)
    {
        return static_cast<Parent*>(static_cast<T*>(instance));
    }
    // A function: the class may still be incomplete where it is declared.
    template <typename T>
    SLB3_INTERNAL_LOCAL static const ParentRef* List()
    {
        static const ParentRef list[] = {{Wrapper<Parent>::GetName(), &Adjust<T>},
                                         {nullptr, nullptr}};
        return list;
    }
};

// Pushes registry[name] without metamethods. [-0, +1, m]
inline void PushRegistered(lua_State* L, const char* name)
{
    lua_pushstring(L, name);
    lua_rawget(L, LUA_REGISTRYINDEX);
}

// Whether the table at `index` is the registry's for the string in its own `__class`.
// Raw accesses only: a metatable may come from a script. [-0, +0, m]
inline bool IsClassMetatable(lua_State* L, int index)
{
    index = lua_absindex(L, index);
    lua_pushliteral(L, "__class");
    lua_rawget(L, index);
    bool same = false;
    if (lua_type(L, -1) == LUA_TSTRING) {
        lua_rawget(L, LUA_REGISTRYINDEX);
        same = lua_rawequal(L, -1, index) != 0;
    }
    lua_pop(L, 1);
    return same;
}

// The object at `index` with its metatable pushed, or null with nothing pushed for
// everything else, other libraries' userdata included. [-0, +(0|1), m]
inline ObjHeader* PushMetatableOfObject(lua_State* L, int index)
{
    if (lua_type(L, index) != LUA_TUSERDATA || lua_rawlen(L, index) < sizeof(ObjHeader))
        return nullptr;
    ObjHeader* object = static_cast<ObjHeader*>(lua_touserdata(L, index));
    if (!lua_getmetatable(L, index)) return nullptr;
    if (IsClassMetatable(L, -1)) return object;
    lua_pop(L, 1);
    return nullptr;
}

// The entry of the object's list of base classes with this name, or null.
inline const ParentRef* FindParent(const ObjHeader& object, const char* name)
{
    if (object.flags != kParentsReadable || object.parents == nullptr) return nullptr;
    const ParentRef* parent = object.parents;
    while (parent->name != nullptr && std::strcmp(parent->name, name) != 0) ++parent;
    return parent->name != nullptr ? parent : nullptr;
}

// GetOrConvertPtr for the class of this name. [-0, +0, m]
inline std::pair<void*, bool> GetOrConvert(lua_State* L, int index, const char* name)
{
    ObjHeader* object = PushMetatableOfObject(L, index);
    if (object == nullptr) return std::pair<void*, bool>(nullptr, true);
    PushRegistered(L, name);
    const bool exact = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 2);
    const ParentRef* parent = exact ? nullptr : FindParent(*object, name);
    if (!exact && parent == nullptr) return std::pair<void*, bool>(nullptr, false);
    void* instance = Unpack(*object);
    if (parent != nullptr && instance != nullptr) instance = parent->adjust(instance);
    return std::pair<void*, bool>(instance, object->type == kConstPointer);
}

// The object of class T, or of a class whose direct base is T, at a stack index; and
// whether it is const.
//
//   T*, T&, instance of T          pointer, false
//   const T*, const T&             pointer, true
//   const null                     null, true
//   an object of another class     null, false
//   anything else                  null, true
//
// "Anything else" takes in userdata of other libraries: they are never looked into. An
// object is recognised by its metatable, whichever shared library made it. The pointer
// belongs to whoever made the object and is valid while the value is on the stack and
// its owner keeps it. [-0, +0, m], needs two free stack slots.
template <typename T>
std::pair<T*, bool> GetOrConvertPtr(lua_State* L, int index)
{
    using Plain = typename std::remove_const<T>::type;
    const std::pair<void*, bool> found = GetOrConvert(L, index, Wrapper<Plain>::GetName());
    return std::pair<T*, bool>(static_cast<T*>(found.first), found.second);
}

}  // namespace internal
}  // namespace SLB3
