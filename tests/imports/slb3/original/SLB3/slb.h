// As much of the original library as the agent's headers use, written apart from the subset: the
// layout of its objects and, like the original, no visibility attributes.
#pragma once

namespace SLB3 {

namespace internal {
struct ObjHeader;
}

struct Object {
    internal::ObjHeader* header;
    void* data;
};

struct internal::ObjHeader {
    unsigned type : 2;
    unsigned flags : 30;
    void* (*unpack)(const Object& object);
    const void* parents;
};

namespace policy {
struct NoDelete {
    template <typename T>
    struct Implementation {
        static void* Unpack(const Object& object) { return *static_cast<void**>(object.data); }
    };
};
}  // namespace policy

}  // namespace SLB3

#define SLB3_DECLARATION(Type, Name, Policy)
