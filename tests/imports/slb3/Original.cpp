// A library built with the original SLB3: `make` returns a document as an object in its form,
// `take` works with one that was made elsewhere.
#include <lua.hpp>

#include "VxaCore/Dom.h"
#include "vxa_core/document.h"

namespace {

using SLB3::internal::ObjHeader;
using VxaCore::CDom;
using Policy = SLB3::policy::NoDelete::Implementation<CDom>;

int Make(lua_State* L)
{
    static CDom document(CDom::Store::InMemory());
    auto* header = static_cast<ObjHeader*>(lua_newuserdata(L, sizeof(ObjHeader) + sizeof(CDom*)));
    // Not the address of libvxa_core's function: an agent's libraries need not share it.
    *header = {2, 0, [](const SLB3::Object& object) { return Policy::Unpack(object); }, nullptr};
    *reinterpret_cast<CDom**>(header + 1) = &document;
    luaL_newmetatable(L, "SLB.Dom");
    lua_pushstring(L, "SLB.Dom");
    lua_setfield(L, -2, "__class");
    lua_setmetatable(L, -2);
    return 1;
}

int Take(lua_State* L)
{
    auto* header = static_cast<ObjHeader*>(lua_touserdata(L, 1));
    // The original identifies a class by this address.
    luaL_argcheck(L, header && header->unpack == &Policy::Unpack, 1, "SLB.Dom object expected");
    auto* document = static_cast<CDom*>(header->unpack({header, header + 1}));
    document->Set("taken", true);
    lua_pushboolean(L, std::get<bool>(document->store().Get("taken")));
    return 1;
}

constexpr luaL_Reg kFunctions[] = {{"make", Make}, {"take", Take}, {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_slb3_original(lua_State* L)
{
    luaL_newlib(L, kFunctions);
    return 1;
}
