// Driver handle and host objects taken from the Lua stack.
//
// Each raises a Lua argument error with its fixed text for a wrong value and changes
// nothing. Callers check in ascending position order.
#pragma once

#include <lua.hpp>

#include "vxi/vxi.h"

namespace VxaCore {
class CDom;
class CZipOutputStream;
}  // namespace VxaCore

namespace fc {

// The handle, never null. "vxi handle expected", "vxi handle already closed". [-0, +0, v]
vxi_handle_ops_s* CheckOpenDriverHandle(lua_State* L, int arg);

// The stored pointer as it is: null when the host has closed the handle.
// "vxi handle expected". [-0, +0, v]
vxi_handle_ops_s* CheckDriverHandle(lua_State* L, int arg);

// "CDom object expected". [-0, +0, v]
VxaCore::CDom* CheckDom(lua_State* L, int arg);

// The same without an error: null for a wrong value. [-0, +0, m]
VxaCore::CDom* TestDom(lua_State* L, int arg);

// "CZipOutputStream object expected". [-0, +0, v]
VxaCore::CZipOutputStream* CheckZipOutputStream(lua_State* L, int arg);

}  // namespace fc
