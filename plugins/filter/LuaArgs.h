// Driver handles and host objects among the arguments of a native function.
//
// The Check functions raise a Lua argument error with the quoted message for a wrong value.
// Callers check in ascending order of position, before they change anything.
#pragma once

#include <lua.hpp>

#include "vxi/vxi.h"

namespace VxaCore {
class CDom;
class CZipOutputStream;
}  // namespace VxaCore

namespace fc {

// Returns an open handle, never null. "vxi handle expected", "vxi handle already closed".
// [-0, +0, v]
vxi_handle_ops_s* CheckOpenDriverHandle(lua_State* L, int arg);

// Returns the handle, or null if the host has closed it. "vxi handle expected". [-0, +0, v]
vxi_handle_ops_s* CheckDriverHandle(lua_State* L, int arg);

// "CDom object expected". [-0, +0, v]
VxaCore::CDom* CheckDom(lua_State* L, int arg);

// Returns null instead of raising an error. [-0, +0, m]
VxaCore::CDom* TestDom(lua_State* L, int arg);

// "CZipOutputStream object expected". [-0, +0, v]
VxaCore::CZipOutputStream* CheckZipOutputStream(lua_State* L, int arg);

}  // namespace fc
