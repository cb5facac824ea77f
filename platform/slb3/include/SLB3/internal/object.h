// Making the userdata blocks of objects.
#pragma once

#include <new>

#include "SLB3/config.h"
#include "SLB3/declaration.h"
#include "SLB3/objectheader.h"

namespace SLB3 {
namespace internal {

// A block of `size` bytes, registered as an object of T that is not there yet: the
// holder first, so that an error between here and the object leaks nothing. [-0, +1, e]
template <typename T>
ObjHeader* NewHolder(lua_State* L, std::size_t size)
{
    typedef typename Wrapper<T>::Policy::template Implementation<T> Implementation;
    SLB3::Register<T>(L);
    auto* object = static_cast<ObjHeader*>(lua_newuserdata(L, size));
    object->type = kInvalid;
    object->flags = kParentsReadable;
    object->unpack = &Implementation::Unpack;
    object->parents = Wrapper<T>::Parents::template List<T>();
    PushRegistered(L, Wrapper<T>::GetName());
    lua_setmetatable(L, -2);
    return object;
}

// [-0, +1, e]
template <typename T>
void PushPointer(lua_State* L, const T* pointer, ObjectType type)
{
    ObjHeader* object = NewHolder<T>(L, sizeof(ObjHeader) + sizeof(void*));
    *reinterpret_cast<const void**>(object + 1) = pointer;
    object->type = type;
}

// Room for an instance; `object->type` is to become kInstance when it is there. [-0, +1, e]
template <typename T>
ObjHeader* NewInstance(lua_State* L)
{
    static_assert(Wrapper<T>::Policy::kInstances,
                  "scripts hold only pointers to a class of the policy NoDelete");
    constexpr std::size_t padding = alignof(T) > 8 ? alignof(T) - 8 : 0;
    return NewHolder<T>(L, sizeof(ObjHeader) + padding + sizeof(T));
}

}  // namespace internal
}  // namespace SLB3
