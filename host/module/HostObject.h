// C++ host objects that scripts hold as SLB3 objects of the policy NoDelete: SLB3 keeps
// a bare pointer, so this module keeps the object.
//
// The object lies in an owner, a userdata with __gc. A weak-keyed table of the registry
// maps the SLB3 object to its owner, which keeps the owner as long as scripts hold the
// object, and no longer. The owner in turn refers to the SLB3 object and takes the
// pointer out of it when it is collected: at the end of a state, or in a finalizer that
// brought the object back, scripts can still get hold of the object then.
#pragma once

#include <cstddef>

#include "LuaBoundary.h"
#include "SLB3/slb.h"

namespace vxa {

// Where SLB3 keeps the pointer of a pointer object: behind its header.
constexpr std::size_t kSlbPointerOffset = 24;

// Memory for a T, and the T once it is there.
template <typename T>
class Owner {
public:
    Owner() noexcept = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner()
    {
        if (m_pointer) *m_pointer = nullptr;
        if (m_alive) Address()->~T();
    }

    T* Address() { return reinterpret_cast<T*>(m_storage); }

    // The SLB3 object's pointer; the SLB3 object must outlive this.
    void Refer(void** pointer) { m_pointer = pointer; }

    template <typename... Args>
    void Make(Args&&... args)
    {
        new (m_storage) T(std::forward<Args>(args)...);
        m_alive = true;
    }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
    void** m_pointer = nullptr;
    bool m_alive = false;
};

extern char owners_key;  // its address is the weak table's place in the registry

// [-0, +0, m]
void RegisterOwners(lua_State* L);

// Ties the SLB3 object on top to the owner at `owner`; returns where the object keeps
// its pointer, or null when that is not where it ought to be. [-0, +0, m]
void** TieToOwner(lua_State* L, int owner, const void* address);

// The SLB3 object, with memory for a T and no T yet: all Lua work is done before the
// object is made, so that no memory error leaves half of it. The caller must construct
// it at once; until then, and when that fails, nobody else has the object.
// Leaves owner and SLB3 object on the stack. [-0, +2, m]
template <typename T>
Owner<T>* PushHostObject(lua_State* L)
{
    auto* owner = NewHolder<Owner<T>>(L);
    SLB3::Value<T*>::Push(L, owner->Address());
    void** pointer = TieToOwner(L, lua_gettop(L) - 1, owner->Address());
    if (!pointer) luaL_error(L, "this build's SLB3 keeps objects in an unknown layout");
    owner->Refer(pointer);
    return owner;
}

// The object at `index`; an argument error unless it is a live T. The metatable is checked
// first, because SLB3 may take any userdata for an object of its own. [-0, +0, v]
template <typename T>
T& check_host_object(lua_State* L, int index, const char* expected)
{
    if (!luaL_testudata(L, index, SLB3::Wrapper<T>::GetName()) ||
        lua_rawlen(L, index) < kSlbPointerOffset + sizeof(void*))
        luaL_argerror(L, index, expected);
    const auto found = SLB3::internal::GetOrConvertPtr<T>(L, index);
    if (!found.first || found.second) luaL_argerror(L, index, expected);
    return *found.first;
}

}  // namespace vxa
