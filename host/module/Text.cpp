// Bytes that may come from anywhere, in a form for terminals.
#include "vxa_core/text.h"

#include "LuaBoundary.h"
#include "Module.h"

namespace vxa {

namespace {

// Pushes what the call makes of a string; out of memory is an error, as in Lua itself.
template <typename Call>
int push_made(lua_State* L, Call&& call)
{
    auto* made = new_holder<std::string>(L);
    Failure failure;
    if (!guarded(failure, [&] { *made = call(); })) return luaL_error(L, "%s", failure.text);
    lua_pushlstring(L, made->data(), made->size());
    std::string().swap(*made);  // large ones should not wait for the collector
    return 1;
}

int printable(lua_State* L)
{
    size_t length = 0;
    const char* bytes = luaL_checklstring(L, 1, &length);
    const bool multiline = lua_toboolean(L, 2) != 0;
    return push_made(L, [&] { return VxaCore::Host::Printable({bytes, length}, multiline); });
}

int hexdump(lua_State* L)
{
    size_t length = 0;
    const char* bytes = luaL_checklstring(L, 1, &length);
    const double offset = luaL_optnumber(L, 2, 0);
    luaL_argcheck(L, offset >= 0 && offset < 0x1p53, 2, "an offset of 0 or more expected");
    return push_made(L, [&] {
        return VxaCore::Host::HexDump({bytes, length}, static_cast<std::uint64_t>(offset));
    });
}

constexpr luaL_Reg kFunctions[] = {
    {"printable", printable},
    {"hexdump", hexdump},
    {nullptr, nullptr},
};

}  // namespace

void open_text(lua_State* L)
{
    register_holder<std::string>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
