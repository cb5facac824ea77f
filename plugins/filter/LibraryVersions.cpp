// Compares the versions of the agent's libraries with those that the module was built for.
#include "LibraryVersions.h"

#include <dlfcn.h>

#include "VxaCore/LogTrace.h"
#include "vxi/vxi.h"

#if __has_include("VxaCore/Version.h")
#include "VxaCore/Version.h"
#else
namespace VxaCore {
constexpr unsigned int kAbiVersion = 1;
}
#endif

#ifndef VXI_ABI_VERSION
#define VXI_ABI_VERSION 1
#endif

// An agent's libraries need not have these functions, nor its headers: the interface is version 1
// then.
extern "C" [[gnu::weak, gnu::visibility("default")]] unsigned int vxi_abi_version();

namespace VxaCore {
[[gnu::weak, gnu::visibility("default")]] unsigned int AbiVersion();
}

namespace fc {
namespace {

// `version` is null if the library lacks it; `function` is one that it has, to find its file.
void CheckVersion(lua_State* L, const char* name, unsigned int expected, unsigned int (*version)(),
                  const void* function)
{
    const unsigned int found = version ? version() : 1;
    if (found == expected) return;
    Dl_info library{};
    dladdr(version ? reinterpret_cast<const void*>(version) : function, &library);
    luaL_error(L, "fc was built for version %d of the interface of %s, not for version %d: %s",
               static_cast<int>(expected), name, static_cast<int>(found), library.dli_fname);
}

}  // namespace

void CheckLibraryVersions(lua_State* L)
{
    CheckVersion(L, "libvxi", VXI_ABI_VERSION, vxi_abi_version,
                 reinterpret_cast<const void*>(vxi_open));
    CheckVersion(L, "libvxa_core", VxaCore::kAbiVersion, VxaCore::AbiVersion,
                 reinterpret_cast<const void*>(VxaCore::LogTraceIsEnabled));
}

}  // namespace fc
