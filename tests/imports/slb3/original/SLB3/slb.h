// Objects in the form of the original library, written apart from the subset's headers:
// just enough of it for the agent's headers. Like the original it says nothing of
// visibility.
#pragma once

namespace SLB3 {

namespace internal {
struct ObjHeader;
}

// What the class's function gets: made for the call, it is not the userdata block.
struct Object {
    internal::ObjHeader* header;
    void* data;
};

namespace internal {
struct ObjHeader {
    unsigned type : 2;
    unsigned flags : 30;
    void* (*unpack)(const Object& object);
    const void* parents;
};
}  // namespace internal

namespace policy {
struct NoDelete {
    template <typename T>
    struct Implementation {
        static void* Unpack(const Object& object)
        {
            return object.header->type >= 2 ? *static_cast<void**>(object.data) : nullptr;
        }
    };
};
}  // namespace policy

template <typename T>
struct Wrapper;

}  // namespace SLB3

#define SLB3_DECLARATION(Type, Name, Policy_)         \
    namespace SLB3 {                                  \
    template <>                                       \
    struct Wrapper<Type> {                            \
        typedef Policy_ Policy;                       \
        static const char* GetName() { return Name; } \
    };                                                \
    }
