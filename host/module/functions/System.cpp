// What stock Lua lacks: clocks, environment, terminal, user, system.
#include <errno.h>
#include <sys/ioctl.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Module.h"
#include "boundary/Values.h"

namespace vxa {

namespace {

template <clockid_t kClock>
int ReadClock(lua_State* L)
{
    timespec now;
    clock_gettime(kClock, &now);
    lua_pushnumber(
        L, static_cast<lua_Number>(now.tv_sec) + static_cast<lua_Number>(now.tv_nsec) / 1e9);
    return 1;
}

const char* CheckCString(lua_State* L, int index)
{
    const std::string_view text = CheckBytes(L, index);
    luaL_argcheck(L, text.find('\0') == text.npos, index, "string contains a NUL byte");
    return text.data();
}

int SetEnvironment(lua_State* L)
{
    const char* name = CheckCString(L, 1);
    luaL_argcheck(L, *name && !std::strchr(name, '='), 1,
                  "the name of an environment variable expected");
    const bool is_removed = lua_isnoneornil(L, 2);
    const char* value = is_removed ? "" : CheckCString(L, 2);
    if ((is_removed ? unsetenv(name) : setenv(name, value, 1)) != 0)
        return luaL_error(L, "cannot set %s: %s", name, std::strerror(errno));
    return 0;
}

int IsTerminal(lua_State* L)
{
    lua_pushboolean(L, isatty(luaL_checkint(L, 1)));
    return 1;
}

// Returns nothing if standard output is not a terminal.
int TerminalColumns(lua_State* L)
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 0;
    lua_pushnumber(L, size.ws_col);
    return 1;
}

int EffectiveUser(lua_State* L)
{
    lua_pushnumber(L, geteuid());
    return 1;
}

int SystemName(lua_State* L)
{
    utsname name;
    uname(&name);  // fails only for a bad pointer
    lua_createtable(L, 0, 5);
    SetString(L, "system", name.sysname);
    SetString(L, "host", name.nodename);
    SetString(L, "release", name.release);
    SetString(L, "version", name.version);
    SetString(L, "machine", name.machine);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"clock", ReadClock<CLOCK_MONOTONIC>},
    {"time", ReadClock<CLOCK_REALTIME>},
    {"setenv", SetEnvironment},
    {"isatty", IsTerminal},
    {"terminal_columns", TerminalColumns},
    {"euid", EffectiveUser},
    {"uname", SystemName},
    {nullptr, nullptr},
};

}  // namespace

void OpenSystem(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
