// Driver handles: vxa.open and the methods of what it returns; vxa.driver_failures.
#include <algorithm>
#include <climits>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"
#include "vxi/engine.h"

namespace vxa {

namespace {

constexpr char kHandleType[] = "vxi_handle_t*";  // the filter module identifies handles by it
constexpr unsigned kErrorBytes = 256;
constexpr unsigned kCapabilityRows = 32;  // more than any engine has
constexpr unsigned kMostCalls = 32;       // more than the driver interface has

// The layout that the filter module reads; a null pointer is a closed handle.
struct HandleBlock {
    vxi_handle_ops_s* handle;
};

HandleBlock& CheckBlock(lua_State* L)
{
    return *static_cast<HandleBlock*>(luaL_checkudata(L, 1, kHandleType));
}

int Open(lua_State* L)
{
    auto* block = static_cast<HandleBlock*>(lua_newuserdata(L, sizeof(HandleBlock)));
    block->handle = nullptr;
    luaL_setmetatable(L, kHandleType);
    block->handle = vxi_open();
    if (block->handle) return 1;
    return PushError(L, vxi_open_error(), vxi_open_status());
}

int Close(lua_State* L)
{
    HandleBlock& block = CheckBlock(L);
    vxi_handle_ops_s* handle = block.handle;
    block.handle = nullptr;
    vxi_close(handle);
    return 0;
}

int Available(lua_State* L)
{
    lua_pushboolean(L, vxi_driver_available(CheckHandle(L)) > 0);
    return 1;
}

int Error(lua_State* L)
{
    char text[kErrorBytes] = "";
    vxi_get_error(CheckHandle(L), text, sizeof text);
    lua_pushstring(L, text);
    return 1;
}

void PushCapability(lua_State* L, const vxi_capability_s& row)
{
    lua_createtable(L, 0, 3);
    SetString(L, "name", row.name);
    SetBoolean(L, "available", row.available > 0);
    SetString(L, "detail", row.detail);
}

int Capabilities(lua_State* L)
{
    vxi_handle_ops_s* handle = CheckHandle(L);
    vxi_capability_s rows[kCapabilityRows] = {};
    const int count = vxi_capabilities(handle, rows, kCapabilityRows);
    if (count < 0) return PushDriverError(L, handle, count);
    lua_newtable(L);
    // A scripted failure can return any count without filling a row.
    for (int i = 0; i < count && i < static_cast<int>(kCapabilityRows) && rows[i].name; ++i) {
        PushCapability(L, rows[i]);
        lua_rawseti(L, -2, i + 1);
    }
    return 1;
}

int Failures(lua_State* L)
{
    vxi_failure_s rows[VXI_FAILURES_KEPT];
    const unsigned total = vxi_failures(CheckHandle(L), rows, VXI_FAILURES_KEPT);
    const unsigned kept = std::min(total, 0U + VXI_FAILURES_KEPT);
    lua_createtable(L, static_cast<int>(kept), 0);
    for (unsigned i = 0; i < kept; ++i) {
        lua_createtable(L, 0, 3);
        SetString(L, "call", rows[i].call);
        SetNumber(L, "status", rows[i].status);
        SetString(L, "message", rows[i].message);
        lua_rawseti(L, -2, static_cast<int>(i) + 1);
    }
    lua_pushnumber(L, total - kept);
    return 2;
}

// driver_failures(): an array of {call=, count=}, one for each call of the driver interface.
int DriverFailures(lua_State* L)
{
    vxi_failure_count_s rows[kMostCalls];
    const unsigned calls = std::min(vxi_failure_counts(rows, kMostCalls), kMostCalls);
    lua_createtable(L, static_cast<int>(calls), 0);
    for (unsigned i = 0; i < calls; ++i) {
        lua_createtable(L, 0, 2);
        SetString(L, "call", rows[i].call);
        SetNumber(L, "count", static_cast<lua_Number>(rows[i].count));
        lua_rawseti(L, -2, static_cast<int>(i) + 1);
    }
    return 1;
}

unsigned CheckUnsigned(lua_State* L, int index)
{
    const double value = luaL_checknumber(L, index);
    luaL_argcheck(L, value >= 0 && value <= UINT_MAX, index, "a number from 0 to 2^32-1 expected");
    return static_cast<unsigned>(value);
}

int SetVariable(lua_State* L)
{
    vxi_handle_ops_s* handle = CheckHandle(L);
    const unsigned number = CheckUnsigned(L, 2);
    const int status = vxi_set_var(handle, number, CheckUnsigned(L, 3));
    if (status != 0) return PushDriverError(L, handle, status);
    lua_pushboolean(L, 1);
    return 1;
}

constexpr luaL_Reg kMethods[] = {
    {"close", Close},
    {"available", Available},
    {"error", Error},
    {"failures", Failures},
    {"connections", HandleConnections},
    {"capabilities", Capabilities},
    {"set_variable", SetVariable},
    {nullptr, nullptr},
};

constexpr luaL_Reg kFunctions[] = {
    {"open", Open},
    {"driver_failures", DriverFailures},
    {nullptr, nullptr},
};

}  // namespace

vxi_handle_ops_s* CheckHandle(lua_State* L)
{
    vxi_handle_ops_s* handle = CheckBlock(L).handle;
    if (!handle) luaL_argerror(L, 1, "vxi handle already closed");
    return handle;
}

int PushDriverError(lua_State* L, vxi_handle_ops_s* handle, int status)
{
    char text[kErrorBytes] = "";
    vxi_get_error(handle, text, sizeof text);
    return PushError(L, text, status);
}

void OpenDriverHandles(lua_State* L)
{
    RegisterConnections(L);
    RegisterClass(L, kHandleType, kMethods, Close);
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
