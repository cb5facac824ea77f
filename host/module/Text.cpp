// Bytes that may come from anywhere, in a form for terminals.
#include "vxa_core/text.h"

#include "LuaBoundary.h"
#include "Module.h"

namespace vxa {

namespace {

// Pushes what the call makes of a string; out of memory is an error, as in Lua itself.
template <typename Call>
int PushMade(lua_State* L, Call&& call)
{
    auto* made = NewHolder<std::string>(L);
    Failure failure;
    if (!Guarded(failure, [&] { *made = call(); })) return luaL_error(L, "%s", failure.text);
    lua_pushlstring(L, made->data(), made->size());
    std::string().swap(*made);  // large ones should not wait for the collector
    return 1;
}

int Printable(lua_State* L)
{
    std::size_t length = 0;
    const char* bytes = luaL_checklstring(L, 1, &length);
    const bool multiline = lua_toboolean(L, 2) != 0;
    return PushMade(L, [&] { return VxaCore::Host::Printable({bytes, length}, multiline); });
}

int Hexdump(lua_State* L)
{
    std::size_t length = 0;
    const char* bytes = luaL_checklstring(L, 1, &length);
    const double offset = luaL_optnumber(L, 2, 0);
    luaL_argcheck(L, offset >= 0 && offset < 0x1p53, 2, "an offset of 0 or more expected");
    return PushMade(L, [&] {
        return VxaCore::Host::HexDump({bytes, length}, static_cast<std::uint64_t>(offset));
    });
}

constexpr luaL_Reg kFunctions[] = {
    {"printable", Printable},
    {"hexdump", Hexdump},
    {nullptr, nullptr},
};

}  // namespace

void OpenText(lua_State* L)
{
    RegisterHolder<std::string>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
