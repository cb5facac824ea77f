// Host objects that scripts hold as SLB3 objects of the policy NoDelete: SLB3 keeps only a
// pointer, so this module keeps the object.
//
// The object is in an owner, a userdata with __gc. A table with weak keys in the registry maps
// the SLB3 object to its owner, so that the owner lives as long as scripts hold the object. The
// owner refers to the SLB3 object and clears the pointer in it when it is collected: at the end
// of a state, or in a finalizer that resurrects the object, scripts can still reach it then.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

#include "SLB3/slb.h"
#include "boundary/Holder.h"

namespace vxa {

// Where SLB3 keeps the pointer in its object: after the header.
constexpr std::size_t kSlbPointerOffset = 24;

// Memory for a T, and later the T.
template <typename T>
class Owner {
public:
    Owner() noexcept = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    ~Owner()
    {
        if (m_pointer) *m_pointer = nullptr;
        if (m_isAlive) Address()->~T();
    }

    T* Address() { return reinterpret_cast<T*>(m_storage); }

    // Sets the pointer to clear; it must outlive this object.
    void ClearLater(void** pointer) { m_pointer = pointer; }

    template <typename... Arguments>
    void Construct(Arguments&&... arguments)
    {
        new (m_storage) T(std::forward<Arguments>(arguments)...);
        m_isAlive = true;
    }

private:
    alignas(T) unsigned char m_storage[sizeof(T)];
    void** m_pointer = nullptr;
    bool m_isAlive = false;
};

// Makes the table of owners. [-0, +0, m]
void RegisterOwners(lua_State* L);

// Ties the SLB3 object on top to the owner at index `owner`. Returns the place of the object's
// pointer, or null if `address` is not where it is expected. [-0, +0, m]
void** TieToOwner(lua_State* L, int owner, const void* address);

// Pushes owner and SLB3 object for a T that is not yet constructed: all Lua work is done before,
// so that an error in it leaves no half-made object. The caller must construct the T at once;
// until it does, and if that fails, nothing else can reach the object. [-0, +2, m]
template <typename T>
Owner<T>* PushHostObject(lua_State* L)
{
    auto* owner = NewHolder<Owner<T>>(L);
    SLB3::Value<T*>::Push(L, owner->Address());
    void** pointer = TieToOwner(L, lua_gettop(L) - 1, owner->Address());
    if (!pointer) luaL_error(L, "this build's SLB3 has an unknown object layout");
    owner->ClearLater(pointer);
    return owner;
}

// Returns the object at `index`; raises an argument error if it is not a live T. Checks the
// metatable first, because the original SLB3 takes any userdata for one of its objects.
// [-0, +0, v]
template <typename T>
T& CheckHostObject(lua_State* L, int index, const char* expected)
{
    if (!luaL_testudata(L, index, SLB3::Wrapper<T>::GetName()) ||
        lua_rawlen(L, index) < kSlbPointerOffset + sizeof(void*))
        luaL_argerror(L, index, expected);
    const auto [object, is_const] = SLB3::internal::GetOrConvertPtr<T>(L, index);
    if (!object || is_const) luaL_argerror(L, index, expected);
    return *object;
}

}  // namespace vxa
