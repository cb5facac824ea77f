// Digests of strings: vxa.sha256.
#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/sha256.h"

namespace vxa {

namespace {

int Sha256OfBytes(lua_State* L)
{
    const std::string_view bytes = CheckBytes(L, 1);
    auto* digest = NewHolder<std::string>(L);
    CallOrRaise(L, [&] {
        VxaCore::Host::Sha256 sum;
        sum.Add(bytes);
        *digest = sum.Hex();
    });
    PushAndFree(L, *digest);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"sha256", Sha256OfBytes},
    {nullptr, nullptr},
};

}  // namespace

void OpenDigests(lua_State* L)
{
    RegisterHolder<std::string>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
