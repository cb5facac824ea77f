// What scripts need of the system and stock Lua does not have.
#include <errno.h>
#include <sys/ioctl.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "LuaBoundary.h"
#include "Module.h"
#include "vxa_core/files.h"

namespace vxa {

namespace {

template <clockid_t kClock>
int read_clock(lua_State* L)
{
    timespec now;
    clock_gettime(kClock, &now);
    lua_pushnumber(
        L, static_cast<lua_Number>(now.tv_sec) + static_cast<lua_Number>(now.tv_nsec) / 1e9);
    return 1;
}

const char* check_c_text(lua_State* L, int index, const char* problem)
{
    std::size_t length = 0;
    const char* text = luaL_checklstring(L, index, &length);
    luaL_argcheck(L, std::strlen(text) == length, index, problem);
    return text;
}

int SetEnvironment(lua_State* L)
{
    const char* name = check_c_text(L, 1, "the variable's name holds a zero byte");
    luaL_argcheck(L, *name && !std::strchr(name, '='), 1,
                  "the name of a variable, without '=', expected");
    const bool remove = lua_isnoneornil(L, 2);
    const char* value = remove ? "" : check_c_text(L, 2, "the value holds a zero byte");
    if ((remove ? unsetenv(name) : setenv(name, value, 1)) != 0)
        return luaL_error(L, "cannot set %s: %s", name, std::strerror(errno));
    return 0;
}

// Calls a function that returns what was wrong: true, or nil and that.
template <typename Call>
int PushCall(lua_State* L, Call&& call)
{
    Failure failure;
    const bool done = Guarded(failure, [&] { failure.Set(call()); });
    return PushOutcome(L, done, failure);
}

int MakeDirectory(lua_State* L)
{
    const char* path = check_path(L, 1);
    return PushCall(L, [&] { return VxaCore::Host::MakeDirectories(path); });
}

int FileKind(lua_State* L)
{
    const char* path = check_path(L, 1);
    const char* kind = nullptr;
    int error_number = 0;
    Failure failure;
    if (!Guarded(failure, [&] {
            kind = VxaCore::Host::FileKind(path);
            error_number = errno;
        }))
        return PushFailure(L, failure);
    if (!kind && error_number != ENOENT) {
        lua_pushnil(L);
        lua_pushfstring(L, "%s: %s", path, std::strerror(error_number));
        return 2;
    }
    lua_pushstring(L, kind ? kind : "none");
    return 1;
}

int IsTerminal(lua_State* L)
{
    lua_pushboolean(L, isatty(luaL_checkint(L, 1)));
    return 1;
}

// Of the terminal that is standard output.
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

constexpr luaL_Reg kFunctions[] = {
    {"clock", read_clock<CLOCK_MONOTONIC>},
    {"time", read_clock<CLOCK_REALTIME>},
    {"setenv", SetEnvironment},
    {"mkdir", MakeDirectory},
    {"file_kind", FileKind},
    {"isatty", IsTerminal},
    {"terminal_columns", TerminalColumns},
    {"euid", EffectiveUser},
    {nullptr, nullptr},
};

}  // namespace

void OpenSystem(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
