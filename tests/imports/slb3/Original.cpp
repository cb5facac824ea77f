// A library of an agent that uses the original SLB3: `make` gives a document as an object
// in that form, `take` works with one that was made elsewhere.
#include <lua.hpp>

#include "VxaCore/Dom.h"
#include "vxa_core/document.h"

namespace {

using SLB3::internal::ObjHeader;
using VxaCore::CDom;
using Policy = SLB3::policy::NoDelete::Implementation<CDom>;

// The agent's libraries need not share one: this is not libvxa_core's.
void* UnpackOwn(const SLB3::Object& object)
{
    return Policy::Unpack({object.header, object.data});
}

int Make(lua_State* L)
{
    static CDom document(CDom::Store::InMemory());
    auto* header = static_cast<ObjHeader*>(lua_newuserdata(L, sizeof(ObjHeader) + sizeof(CDom*)));
    *header = {2, 0, UnpackOwn, nullptr};
    *reinterpret_cast<CDom**>(header + 1) = &document;
    const char* name = SLB3::Wrapper<CDom>::GetName();
    luaL_newmetatable(L, name);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "__class");
    lua_setmetatable(L, -2);
    return 1;
}

int Take(lua_State* L)
{
    auto* header = static_cast<ObjHeader*>(lua_touserdata(L, 1));
    // How the original knows a class.
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
