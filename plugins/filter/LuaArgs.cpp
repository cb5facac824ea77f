#include "LuaArgs.h"

#include "SLB3/slb.h"
#include "VxaCore/Dom.h"
#include "VxaCore/ZipOutputStream.h"

namespace fc {
namespace {

template <typename T>
T* TestHostObject(lua_State* L, int arg)
{
    const std::pair<T*, bool> object = SLB3::internal::GetOrConvertPtr<T>(L, arg);
    return object.second ? nullptr : object.first;
}

template <typename T>
T* CheckHostObject(lua_State* L, int arg, const char* expected)
{
    T* object = TestHostObject<T>(L, arg);
    if (object == nullptr) luaL_argerror(L, arg, expected);
    return object;
}

}  // namespace

vxi_handle_ops_s* CheckDriverHandle(lua_State* L, int arg)
{
    void* block = luaL_testudata(L, arg, "vxi_handle_t*");
    if (block == nullptr || lua_rawlen(L, arg) < sizeof(vxi_handle_ops_s*))
        luaL_argerror(L, arg, "vxi handle expected");
    return *static_cast<vxi_handle_ops_s**>(block);
}

vxi_handle_ops_s* CheckOpenDriverHandle(lua_State* L, int arg)
{
    vxi_handle_ops_s* handle = CheckDriverHandle(L, arg);
    if (handle == nullptr) luaL_argerror(L, arg, "vxi handle already closed");
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
