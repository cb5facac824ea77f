// Declaring C++ classes to Lua.
//
//     class Dom;                                               // complete or not
//     SLB3_DECLARATION(Dom, "SLB.Dom", policy::NoDelete)       // at global scope
//
// A library that only takes objects of the class from scripts needs nothing more. The library
// that owns the class also defines its methods, with SLB3_IMPLEMENTATION.
//
// In a header shared between libraries add
//
//     extern template struct API SLB3::policy::NoDelete::Implementation<Dom>;
//
// where API sets default visibility, and in one source of the library that owns the class
//
//     template struct SLB3::policy::NoDelete::Implementation<Dom>;
//
// These headers identify a class by its metatable and work without the two lines. The original
// library identifies it by the address of a function in there, which must be the same in the
// whole process.
#pragma once

#include "SLB3/objectheader.h"

namespace SLB3 {

namespace internal {
template <typename T>
class Class;
}

// What SLB3_DECLARATION declares. Only specialisations are defined, so that a class without a
// declaration does not compile.
template <typename T>
struct Wrapper;

// Registers the class in this state unless it is registered: the metatable `GetName()` in the
// registry, the class table as the global of that (dotted) name, then runs the body of
// SLB3_IMPLEMENTATION. Pushing an object registers its class too. After an error the class is
// not registered and can be tried again. Defined in implementation.h. [-0, +0, e]
template <typename T>
void Register(lua_State* L);

namespace policy {

// Scripts hold pointers only and never delete the objects.
struct NoDelete {
    template <typename T>
    struct Implementation {
        static void* Unpack(const Object& object)
        {
            const unsigned type = object.header->type;
            const bool is_pointer = type == internal::kPointer || type == internal::kConstPointer;
            return is_pointer ? *static_cast<void**>(object.data) : nullptr;
        }
    };
};

}  // namespace policy
}  // namespace SLB3

#define SLB3_DECLARATION(Type, Name, Policy_)                    \
    namespace SLB3 {                                             \
    template <>                                                  \
    struct Wrapper<Type> {                                       \
        typedef Policy_ Policy;                                  \
        static const char* GetName() { return Name; }            \
        static void Register(internal::Class<Type>& registered); \
    };                                                           \
    }
