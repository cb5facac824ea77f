// Simulated memory: a file mounted over /proc/meminfo in a mount namespace of this process and
// its children. vxa.simulate_memory.
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "Module.h"
#include "boundary/Exceptions.h"

namespace vxa {

namespace {

constexpr const char* kMeminfo = "/proc/meminfo";

int s_meminfo = -1;  // the mounted file, never closed; for the main thread only

// By its descriptor: the name is in a directory that others can write to.
bool BindOverMeminfo(int file)
{
    char source[64];
    std::snprintf(source, sizeof source, "/proc/self/fd/%d", file);
    return mount(source, kMeminfo, nullptr, MS_BIND, nullptr) == 0;
}

// Returns false with errno set if it fails. The file is created in the new namespace, because
// mounts of another namespace cannot be bound there; its name is needed until it is bound.
bool CoverMeminfo()
{
    if (s_meminfo >= 0) return true;
    // Only mounts in /proc must stay private; in a chroot, "/" is often not a mount point.
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/proc", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    char name[] = "/tmp/vxa-meminfo-XXXXXX";
    const int file = mkostemp(name, O_CLOEXEC);
    if (file < 0) return false;
    const bool is_bound = BindOverMeminfo(file);
    const int cause = errno;
    unlink(name);
    if (is_bound)
        s_meminfo = file;
    else
        close(file);
    errno = cause;
    return is_bound;
}

// The length is constant: a reader never sees the end of an earlier content.
bool WriteMeminfo(unsigned long long total_kb, unsigned long long free_kb)
{
    char text[128];
    const int length = std::snprintf(text, sizeof text, "MemTotal: %20llu kB\nMemFree: %20llu kB\n",
                                     total_kb, free_kb);
    return pwrite(s_meminfo, text, static_cast<std::size_t>(length), 0) == length;
}

// simulate_memory(total_kb, free_kb)
int SimulateMemory(lua_State* L)
{
    const lua_Number total_kb = luaL_checknumber(L, 1);
    const lua_Number free_kb = luaL_checknumber(L, 2);
    luaL_argcheck(L, total_kb >= 0 && total_kb < 1e18, 1, "a number of kB expected");
    luaL_argcheck(L, free_kb >= 0 && free_kb <= total_kb, 2, "at most the total expected");
    if (CoverMeminfo() && WriteMeminfo(static_cast<unsigned long long>(total_kb),
                                       static_cast<unsigned long long>(free_kb))) {
        lua_pushboolean(L, 1);
        return 1;
    }
    return PushSystemError(L, "/proc/meminfo cannot be covered", errno);
}

constexpr luaL_Reg kFunctions[] = {
    {"simulate_memory", SimulateMemory},
    {nullptr, nullptr},
};

}  // namespace

void OpenSimulatedMemory(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
