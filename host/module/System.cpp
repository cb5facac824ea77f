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
    size_t length = 0;
    const char* text = luaL_checklstring(L, index, &length);
    luaL_argcheck(L, std::strlen(text) == length, index, problem);
    return text;
}

int set_environment(lua_State* L)
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
int push_call(lua_State* L, Call&& call)
{
    Failure failure;
    const bool done = guarded(failure, [&] { failure.set(call()); });
    return push_outcome(L, done, failure);
}

int make_directory(lua_State* L)
{
    const char* path = check_path(L, 1);
    return push_call(L, [&] { return VxaCore::Host::MakeDirectories(path); });
}

int file_kind(lua_State* L)
{
    const char* path = check_path(L, 1);
    const char* kind = nullptr;
    int error_number = 0;
    Failure failure;
    if (!guarded(failure, [&] {
            kind = VxaCore::Host::FileKind(path);
            error_number = errno;
        }))
        return push_failure(L, failure);
    if (!kind && error_number != ENOENT) {
        lua_pushnil(L);
        lua_pushfstring(L, "%s: %s", path, std::strerror(error_number));
        return 2;
    }
    lua_pushstring(L, kind ? kind : "none");
    return 1;
}

int is_terminal(lua_State* L)
{
    lua_pushboolean(L, isatty(luaL_checkint(L, 1)));
    return 1;
}

// Of the terminal that is standard output.
int terminal_columns(lua_State* L)
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 0;
    lua_pushnumber(L, size.ws_col);
    return 1;
}

int effective_user(lua_State* L)
{
    lua_pushnumber(L, geteuid());
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"clock", read_clock<CLOCK_MONOTONIC>},
    {"time", read_clock<CLOCK_REALTIME>},
    {"setenv", set_environment},
    {"mkdir", make_directory},
    {"file_kind", file_kind},
    {"isatty", is_terminal},
    {"terminal_columns", terminal_columns},
    {"euid", effective_user},
    {nullptr, nullptr},
};

}  // namespace

void open_system(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
