// Shell commands that run beside the process: vxa.start_process and its methods.
#include <signal.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <optional>

#include "Module.h"
#include "boundary/Exceptions.h"
#include "boundary/Values.h"
#include "vxa_core/child_process.h"

namespace vxa {

namespace {

using VxaCore::Host::ChildProcess;

using ProcessHolder = std::unique_ptr<ChildProcess>;  // null once it is closed

constexpr char kType[] = "vxa_process_t*";

ChildProcess& CheckOpen(lua_State* L)
{
    auto& process = *static_cast<ProcessHolder*>(luaL_checkudata(L, 1, kType));
    if (!process) luaL_argerror(L, 1, "the process is closed");
    return *process;
}

// start_process(command, input, limit_s)
int StartProcess(lua_State* L)
{
    const std::string_view command = CheckBytes(L, 1);
    luaL_argcheck(L, !command.empty() && command.find('\0') == command.npos, 1,
                  "a command without NUL bytes expected");
    const std::string_view input = CheckBytes(L, 2);
    const lua_Number limit_s = luaL_checknumber(L, 3);
    luaL_argcheck(L, limit_s >= 0, 3, "a number of seconds, 0 or more, expected");
    auto* process = new (lua_newuserdata(L, sizeof(ProcessHolder))) ProcessHolder();
    luaL_setmetatable(L, kType);
    const auto start = [&] {
        *process = std::make_unique<ChildProcess>(std::string(command), input, limit_s);
    };
    return SucceedsOrPushError(L, start) ? 1 : kErrorResults;
}

void PushResult(lua_State* L, const ChildProcess::Result& result)
{
    lua_createtable(L, 0, 4);
    SetNumber(L, "seconds", result.seconds);
    if (result.status >= 0) SetNumber(L, "status", result.status);
    if (const char* name = result.signal ? sigabbrev_np(result.signal) : nullptr) {
        lua_pushfstring(L, "SIG%s", name);
        lua_setfield(L, -2, "signal");
    } else if (result.signal) {
        lua_pushfstring(L, "signal %d", result.signal);
        lua_setfield(L, -2, "signal");
    }
    if (!result.is_gone)
        SetString(L, "ended", "cannot be killed");
    else if (result.ended != ChildProcess::Ended::kAlone)
        SetString(L, "ended", result.ended == ChildProcess::Ended::kAtLimit ? "limit" : "stopped");
}

// process:wait(seconds): the result, or nothing if it still runs
int Wait(lua_State* L)
{
    const ChildProcess& process = CheckOpen(L);
    const lua_Number seconds = luaL_optnumber(L, 2, 0);
    luaL_argcheck(L, !std::isnan(seconds), 2, "a number of seconds expected");
    const auto result = process.Wait(seconds);
    if (!result) return 0;
    PushResult(L, *result);
    return 1;
}

int Stop(lua_State* L)
{
    CheckOpen(L).Stop();
    return 0;
}

// Also for the collector.
int Close(lua_State* L)
{
    static_cast<ProcessHolder*>(luaL_checkudata(L, 1, kType))->reset();
    return 0;
}

constexpr luaL_Reg kMethods[] = {
    {"wait", Wait},
    {"stop", Stop},
    {"close", Close},
    {nullptr, nullptr},
};

}  // namespace

void OpenChildProcesses(lua_State* L)
{
    RegisterClass(L, kType, kMethods, Close);
    lua_pushcfunction(L, StartProcess);
    lua_setfield(L, -2, "start_process");
}

}  // namespace vxa
