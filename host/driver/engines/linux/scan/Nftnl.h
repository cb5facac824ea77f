// Ownership of libnftnl's objects.
#pragma once

#include <memory>
#include <new>

namespace vxi {

template <auto Free>
struct NftnlFree {
    template <typename Object>
    void operator()(Object* object) const
    {
        Free(object);
    }
};

// Takes ownership of the result of an nftnl_*_alloc function; null means out of memory.
template <auto Free, typename Object>
std::unique_ptr<Object, NftnlFree<Free>> OwnNftnl(Object* object)
{
    if (!object) {
        throw std::bad_alloc();
    }
    return std::unique_ptr<Object, NftnlFree<Free>>(object);
}

// Checks the result of a setter that copies its value: it fails only if memory runs out.
inline void CheckNftnlSet(int result)
{
    if (result < 0) {
        throw std::bad_alloc();
    }
}

}  // namespace vxi
