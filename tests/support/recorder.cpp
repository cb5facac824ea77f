// The Lua module "recorder": the recording driver for scripts. Preloaded, it takes the
// place of libvxi; required, it tells what was recorded.

#include <cstdio>

#include <lua.hpp>

#include "RecordingDriver.h"

namespace {

// Plain data only beside the Lua calls that can raise: scripts own the process here, and a
// memory error ends it.
void SetText(lua_State* L, const char* field, const std::string& text)
{
    lua_pushlstring(L, text.data(), text.size());
    lua_setfield(L, -2, field);
}

int TakeCalls(lua_State* L)
{
    lua_newtable(L);
    int index = 0;
    for (const driver::Call& call : driver::TakeCalls()) {
        lua_newtable(L);
        SetText(L, "name", call.name);
        SetText(L, "bytes", call.bytes);
        lua_pushnumber(L, static_cast<lua_Number>(call.number));
        lua_setfield(L, -2, "number");
        lua_pushboolean(L, call.null_handle);
        lua_setfield(L, -2, "null_handle");
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

double Number(lua_State* L, const char* field, double otherwise)
{
    lua_getfield(L, 1, field);
    const double number = luaL_optnumber(L, -1, otherwise);
    lua_pop(L, 1);
    return number;
}

// Lua numbers: counters are exact up to 2^53.
void ReadValues(lua_State* L, driver::Answers& answers)
{
    lua_getfield(L, 1, "values");
    for (std::size_t j = 0; j < answers.values.size() && lua_istable(L, -1); ++j) {
        lua_rawgeti(L, -1, static_cast<int>(j + 1));
        answers.values[j] = static_cast<std::uint64_t>(lua_tonumber(L, -1));
        lua_pop(L, 1);
    }
    lua_pop(L, 1);
}

int SetAnswers(lua_State* L)
{
    luaL_checktype(L, 1, LUA_TTABLE);
    driver::Answers answers;
    answers.opens = Number(L, "opens", 1) != 0;
    answers.set_status = static_cast<int>(Number(L, "set_status", 0));
    answers.get_status = static_cast<int>(Number(L, "get_status", 0));
    answers.counters = static_cast<std::uint32_t>(Number(L, "counters", VXI_SCAN_COUNTERS));
    answers.entries = static_cast<std::uint32_t>(Number(L, "entries", 1));
    lua_getfield(L, 1, "error");
    answers.error = luaL_optstring(L, -1, "");
    lua_pop(L, 1);
    ReadValues(L, answers);
    driver::SetAnswers(answers);
    return 0;
}

int SetClock(lua_State* L)
{
    driver::SetClock(static_cast<std::uint64_t>(luaL_checknumber(L, 1)));
    return 0;
}

int HasTraceHandler(lua_State* L)
{
    lua_pushboolean(L, driver::InstalledTraceHandler() != nullptr);
    return 1;
}

// emit(number, text, place, place_number, message) as the driver library would.
int Emit(lua_State* L)
{
    char message[256];
    std::snprintf(message, sizeof message, "%s", luaL_checkstring(L, 5));
    const int result = driver::InstalledTraceHandler()(
        static_cast<int>(luaL_checkinteger(L, 1)), luaL_checkstring(L, 2), luaL_checkstring(L, 3),
        static_cast<int>(luaL_checkinteger(L, 4)), message);
    lua_pushinteger(L, result);
    lua_pushstring(L, message);
    return 2;
}

int ProfilerInstallations(lua_State* L)
{
    lua_pushinteger(L, driver::ProfilerInstallations());
    lua_pushinteger(L, driver::ProfilerCalls());
    return 2;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_recorder(lua_State* L)
{
    const luaL_Reg functions[] = {
        {"calls", TakeCalls}, {"answer", SetAnswers},
        {"clock", SetClock},  {"has_trace_handler", HasTraceHandler},
        {"emit", Emit},       {"profiler_installations", ProfilerInstallations},
        {nullptr, nullptr}};
    luaL_newlib(L, functions);
    return 1;
}
