// Ties SLB3 objects to the owners of what they point to.
#include "boundary/HostObject.h"

namespace vxa {

namespace {

char owners_key = 0;  // its address is the table's key in the registry

}  // namespace

void RegisterOwners(lua_State* L)
{
    // A script may load the module again; the owners of live objects must stay tied.
    lua_rawgetp(L, LUA_REGISTRYINDEX, &owners_key);
    const bool is_registered = lua_istable(L, -1);
    lua_pop(L, 1);
    if (is_registered) return;
    lua_newtable(L);
    lua_createtable(L, 0, 1);
    lua_pushliteral(L, "k");
    lua_setfield(L, -2, "__mode");
    lua_setmetatable(L, -2);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &owners_key);
}

void** TieToOwner(lua_State* L, int owner, const void* address)
{
    const int object = lua_gettop(L);
    auto* block = static_cast<char*>(lua_touserdata(L, object));
    if (!block || lua_rawlen(L, object) < kSlbPointerOffset + sizeof(void*)) return nullptr;
    auto** pointer = reinterpret_cast<void**>(block + kSlbPointerOffset);
    if (*pointer != address) return nullptr;

    lua_createtable(L, 1, 0);
    lua_pushvalue(L, object);
    lua_rawseti(L, -2, 1);
    lua_setuservalue(L, owner);

    lua_rawgetp(L, LUA_REGISTRYINDEX, &owners_key);
    lua_pushvalue(L, object);
    lua_pushvalue(L, owner);
    lua_rawset(L, -3);
    lua_pop(L, 1);
    return pointer;
}

}  // namespace vxa
