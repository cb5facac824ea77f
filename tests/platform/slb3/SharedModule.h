// The body of both libraries; MODULE_NAME and MODULE_OPEN tell them apart.
#include "SharedClass.h"

SLB3_IMPLEMENTATION(Held, held)
{
    held.set("registeredBy", MODULE_NAME);
}
SLB3_IMPLEMENTATION(Owned, owned)
{
    owned.set("registeredBy", MODULE_NAME);
}

namespace {

Held s_held = {MODULE_NAME};

Held* Make()
{
    return &s_held;
}
Owned MakeOwned()
{
    return Owned{MODULE_NAME};
}

int Take(lua_State* L)
{
    const Held* held = SLB3::internal::GetOrConvertPtr<Held>(L, 1).first;
    const Owned* owned = SLB3::internal::GetOrConvertPtr<Owned>(L, 1).first;
    luaL_argcheck(L, held != nullptr || owned != nullptr, 1, "shared object expected");
    lua_pushstring(L, held != nullptr ? held->maker : owned->maker);
    return 1;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int MODULE_OPEN(lua_State* L)
{
    SLB3::Namespace space(L, "Shared." MODULE_NAME);
    space.set("make", Make).set("makeOwned", MakeOwned).set("take", Take);
    space.push(L);
    return 1;
}
