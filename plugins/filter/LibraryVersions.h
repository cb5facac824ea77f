// Compares the versions of the agent's libraries with those that the module was built for.
#pragma once

#include <lua.hpp>

namespace fc {

// Raises an error if a library has another binary interface. It names both versions and the
// library's file. [-0, +0, v]
void CheckLibraryVersions(lua_State* L);

}  // namespace fc
