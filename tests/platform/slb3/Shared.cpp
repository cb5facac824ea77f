// The body of two libraries that share a class by its declaration alone; MODULE_NAME and
// MODULE_OPEN tell them apart.
#include "SLB3/slb.h"

struct Shared {
    const char* maker;
};
SLB3_DECLARATION(Shared, "Shared.Object", policy::Default)
SLB3_IMPLEMENTATION(Shared, shared)
{
    shared.set("registeredBy", MODULE_NAME);
}

namespace {

int Make(lua_State* L)
{
    static Shared own = {MODULE_NAME};
    SLB3::Value<Shared*>::Push(L, &own);
    SLB3::Value<Shared>::Push(L, own);
    return 2;
}

int Take(lua_State* L)
{
    const Shared* shared = SLB3::internal::GetOrConvertPtr<Shared>(L, 1).first;
    luaL_argcheck(L, shared != nullptr, 1, "shared object expected");
    lua_pushstring(L, shared->maker);
    return 1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int MODULE_OPEN(lua_State* L)
{
    SLB3::Namespace space(L, "Made.by." MODULE_NAME);
    space.set("make", Make).set("take", Take);
    space.push(L);
    return 1;
}
