// Declaring C++ classes to Lua.
//
//     class Dom;                                               // complete or not
//     SLB3_DECLARATION(Dom, "SLB.Dom", policy::NoDelete)       // at global scope
//
// That is all that a library needs to take objects of the class from scripts. The
// library that owns the class also defines its methods, with SLB3_IMPLEMENTATION.
//
// In a header shared between libraries add
//
//     extern template struct API SLB3::policy::NoDelete::Implementation<Dom>;
//
// where API gives default visibility, and in one source of the library that owns the class
//
//     template struct SLB3::policy::NoDelete::Implementation<Dom>;
//
// These headers recognise a class by its metatable and work without the two lines; the
// original library tells classes apart by the address of a function in there, which must
// be one in the whole process.
#pragma once

#include "SLB3/objectheader.h"

namespace SLB3 {

namespace internal {
template <typename T>
class Class;
}

// What SLB3_DECLARATION says about a class. Only specialisations are defined: a class
// that was never declared does not compile where it is used.
template <typename T>
struct Wrapper;

// Registers the class in this state unless it is already: metatable `GetName()` in the
// registry, class table as the global of that (dotted) name, then the body given to
// SLB3_IMPLEMENTATION. Pushing an object does it too. An error on the way leaves the
// class unregistered, to be tried again. Defined in implementation.h. [-0, +0, e]
template <typename T>
void Register(lua_State* L);

namespace policy {

// Scripts hold pointers only; the objects belong to someone else.
struct NoDelete {
    template <typename T>
    struct Implementation {
        static void* Unpack(const Object& object)
        {
            const unsigned type = object.header->type;
            const bool stored = type == internal::kPointer || type == internal::kConstPointer;
            return stored ? *static_cast<void**>(object.data) : nullptr;
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
