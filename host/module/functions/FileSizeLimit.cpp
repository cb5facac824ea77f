// A limit on the size of files, to rehearse a full disk: vxa.limit_file_size.
#include <errno.h>
#include <signal.h>
#include <sys/resource.h>

#include <optional>

#include "Module.h"
#include "boundary/Exceptions.h"

namespace vxa {

namespace {

std::optional<rlim_t> s_former;  // the limit to restore; for the main thread only

// Without a handler, a write beyond the limit would end the process. It is not ignored, because
// commands started later would inherit that (execve(2)).
bool SurviveLimit()
{
    struct sigaction action = {};
    if (sigaction(SIGXFSZ, nullptr, &action) != 0) return false;
    if (action.sa_handler != SIG_DFL) return true;
    action.sa_handler = [](int) {};
    return sigaction(SIGXFSZ, &action, nullptr) == 0;
}

// Returns false with errno set if it fails; without a number of bytes, restores the limit.
bool SetLimit(std::optional<rlim_t> bytes)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_FSIZE, &limit) != 0) return false;
    if (!s_former) s_former = limit.rlim_cur;
    limit.rlim_cur = bytes.value_or(*s_former);
    return SurviveLimit() && setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// limit_file_size([bytes])
int LimitFileSize(lua_State* L)
{
    std::optional<rlim_t> bytes;
    if (!lua_isnoneornil(L, 1)) {
        const lua_Number number = luaL_checknumber(L, 1);
        luaL_argcheck(L, number >= 0 && number <= 1e15, 1, "a number of bytes expected");
        bytes = static_cast<rlim_t>(number);
    }
    if (!SetLimit(bytes)) return PushSystemError(L, "the size of files cannot be limited", errno);
    lua_pushboolean(L, 1);
    return 1;
}

constexpr luaL_Reg kFunctions[] = {
    {"limit_file_size", LimitFileSize},
    {nullptr, nullptr},
};

}  // namespace

void OpenFileSizeLimit(lua_State* L)
{
    luaL_setfuncs(L, kFunctions, 0);
}

}  // namespace vxa
