// Driver handles and host objects among the arguments of a native function.

#include "LuaArgs.h"

#include "SLB3/slb.h"
#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"

namespace fc {
namespace {

constexpr std::size_t kSlbHeaderBytes = 24;

// Whether the metatable on top is an SLB3 class: the registry holds it under its own `__class`.
// Uses raw access because the metatable may come from a script. [-0, +0, m]
bool IsClassMetatable(lua_State* L)
{
    lua_pushliteral(L, "__class");
    lua_rawget(L, -2);
    if (lua_type(L, -1) == LUA_TSTRING) lua_rawget(L, LUA_REGISTRYINDEX);
    const bool is_class = lua_rawequal(L, -1, -2) != 0;
    lua_pop(L, 1);
    return is_class;
}

// SLB3 may take any userdata for one of its objects, so this is checked first: a script that swaps
// two arguments must not crash the process. [-0, +0, m]
bool IsSlbObject(lua_State* L, int arg)
{
    if (lua_type(L, arg) != LUA_TUSERDATA || lua_rawlen(L, arg) < kSlbHeaderBytes) return false;
    if (!lua_getmetatable(L, arg)) return false;
    const bool is_object = IsClassMetatable(L);
    lua_pop(L, 1);
    return is_object;
}

template <typename T>
T* TestHostObject(lua_State* L, int arg)
{
    if (!IsSlbObject(L, arg)) return nullptr;
    const std::pair<T*, bool> object = SLB3::internal::GetOrConvertPtr<T>(L, arg);
    return object.second ? nullptr : object.first;
}

template <typename T>
T* CheckHostObject(lua_State* L, int arg, const char* expected)
{
    T* object = TestHostObject<T>(L, arg);
    if (!object) luaL_argerror(L, arg, expected);
    return object;
}

}  // namespace

vxi_handle_ops_s* CheckDriverHandle(lua_State* L, int arg)
{
    void* block = luaL_testudata(L, arg, "vxi_handle_t*");
    if (!block || lua_rawlen(L, arg) < sizeof(vxi_handle_ops_s*))
        luaL_argerror(L, arg, "vxi handle expected");
    return *static_cast<vxi_handle_ops_s**>(block);
}

vxi_handle_ops_s* CheckOpenDriverHandle(lua_State* L, int arg)
{
    vxi_handle_ops_s* handle = CheckDriverHandle(L, arg);
    if (!handle) luaL_argerror(L, arg, "vxi handle already closed");
    return handle;
}

VxaCore::CDom* TestDom(lua_State* L, int arg)
{
    return TestHostObject<VxaCore::CDom>(L, arg);
}

VxaCore::CDom* CheckDom(lua_State* L, int arg)
{
    return CheckHostObject<VxaCore::CDom>(L, arg, "CDom object expected");
}

VxaCore::CZipOutputStream* CheckZipOutputStream(lua_State* L, int arg)
{
    return CheckHostObject<VxaCore::CZipOutputStream>(L, arg, "CZipOutputStream object expected");
}

}  // namespace fc
