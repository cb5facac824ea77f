// Bytes from anywhere in a form for terminals: vxa.printable and vxa.hexdump.
#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Holder.h"
#include "boundary/Values.h"
#include "vxa_core/text.h"

namespace vxa {

namespace {

int Printable(lua_State* L)
{
    const std::string_view bytes = CheckBytes(L, 1);
    const bool multiline = lua_toboolean(L, 2) != 0;
    auto* text = NewHolder<std::string>(L);
    CallOrRaise(L, [&] { *text = VxaCore::Host::Printable(bytes, multiline); });
    PushAndFree(L, *text);
    return 1;
}

int HexDump(lua_State* L)
{
    const std::string_view bytes = CheckBytes(L, 1);
    const double offset = luaL_optnumber(L, 2, 0);
    luaL_argcheck(L, offset >= 0 && offset < 0x1p53, 2, "an offset of 0 or more expected");
    auto* text = NewHolder<std::string>(L);
    CallOrRaise(L,
                [&] { *text = VxaCore::Host::HexDump(bytes, static_cast<std::uint64_t>(offset)); });
    PushAndFree(L, *text);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"printable", Printable},
    {"hexdump", HexDump},
    {nullptr, nullptr},
};

}  // namespace

void OpenTerminalText(lua_State* L)
{
    RegisterHolder<std::string>(L);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
