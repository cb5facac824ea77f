// A library built with the original SLB3: `make` and `archive` return a document and an archive as
// objects in its form, `take` works with a document that was made elsewhere, `handle` returns a
// driver handle.
#include <lua.hpp>

#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"
#include "vxa_core/archive.h"
#include "vxa_core/document.h"
#include "vxi/vxi.h"

namespace {

using SLB3::internal::ObjHeader;
using VxaCore::CDom;
using VxaCore::CZipOutputStream;

template <typename T>
using Policy = SLB3::policy::NoDelete::Implementation<T>;

template <typename T>
int Push(lua_State* L, T* object, const char* name)
{
    auto* header = static_cast<ObjHeader*>(lua_newuserdata(L, sizeof(ObjHeader) + sizeof(T*)));
    // Not the address of libvxa_core's function: an agent's libraries need not share it.
    *header = {2, 0, [](const SLB3::Object& source) { return Policy<T>::Unpack(source); }, nullptr};
    *reinterpret_cast<T**>(header + 1) = object;
    luaL_newmetatable(L, name);
    lua_pushstring(L, name);
    lua_setfield(L, -2, "__class");
    lua_setmetatable(L, -2);
    return 1;
}

int Make(lua_State* L)
{
    static CDom document(CDom::Store::InMemory());
    return Push(L, &document, "SLB.Dom");
}

// It is complete when the process exits.
int MakeArchive(lua_State* L)
{
    static CZipOutputStream archive(CZipOutputStream::Archive::Create(luaL_checkstring(L, 1)));
    return Push(L, &archive, "SLB.wx.ZipOutputStream");
}

int OpenHandle(lua_State* L)
{
    *static_cast<vxi_handle_ops_s**>(lua_newuserdata(L, sizeof(vxi_handle_ops_s*))) = vxi_open();
    luaL_newmetatable(L, "vxi_handle_t*");
    lua_setmetatable(L, -2);
    return 1;
}

int Take(lua_State* L)
{
    auto* header = static_cast<ObjHeader*>(lua_touserdata(L, 1));
    // The original identifies a class by this address.
    luaL_argcheck(L, header && header->unpack == &Policy<CDom>::Unpack, 1,
                  "SLB.Dom object expected");
    auto* document = static_cast<CDom*>(header->unpack({header, header + 1}));
    document->Set("taken", true);
    lua_pushboolean(L, std::get<bool>(document->store().Get("taken")));
    return 1;
}

constexpr luaL_Reg kFunctions[] = {{"make", Make},
                                   {"archive", MakeArchive},
                                   {"handle", OpenHandle},
                                   {"take", Take},
                                   {nullptr, nullptr}};

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_slb3_original(lua_State* L)
{
    luaL_newlib(L, kFunctions);
    return 1;
}
