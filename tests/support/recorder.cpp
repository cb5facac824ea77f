// The Lua module "recorder": the recording driver for scripts. Preloaded, it takes the
// place of libvxi; required, it tells what was recorded.

#include <cstdio>

#include <lua.hpp>

#include "RecordingDriver.h"

namespace {

// Plain data only beside the Lua calls that can raise: scripts own the process here, and a
// memory error ends it.
int TakeCalls(lua_State* L)
{
    lua_newtable(L);
    int index = 0;
    for (const driver::Call& call : driver::TakeCalls()) {
        lua_newtable(L);
        lua_pushlstring(L, call.name.data(), call.name.size());
        lua_setfield(L, -2, "name");
        lua_pushlstring(L, call.bytes.data(), call.bytes.size());
        lua_setfield(L, -2, "bytes");
        lua_pushnumber(L, static_cast<lua_Number>(call.number));
        lua_setfield(L, -2, "number");
        lua_pushboolean(L, call.null_handle);
        lua_setfield(L, -2, "null_handle");
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

int SetAnswers(lua_State* L)
{
    const auto number = [L](const char* field, double otherwise) {
        lua_getfield(L, 1, field);
        return luaL_optnumber(L, -1, otherwise);
    };
    driver::Answers answers;
    answers.statuses["open"] = {static_cast<int>(number("opens", 1))};
    answers.statuses["set_scan_monitoring"] = {static_cast<int>(number("set_status", 0))};
    answers.statuses["get_scan_metrics"] = {static_cast<int>(number("get_status", 0))};
    answers.counters = static_cast<std::uint32_t>(number("counters", VXI_SCAN_COUNTERS));
    answers.entries = static_cast<std::uint32_t>(number("entries", 1));
    lua_getfield(L, 1, "error");
    answers.error = luaL_optstring(L, -1, "");
    lua_getfield(L, 1, "values");
    for (std::size_t j = 0; j < answers.values.size() && lua_istable(L, -1); ++j) {
        lua_rawgeti(L, -1, static_cast<int>(j + 1));
        answers.values[j] = static_cast<std::uint64_t>(lua_tonumber(L, -1));
        lua_pop(L, 1);
    }
    driver::SetAnswers(answers);
    return 0;
}

int SetClock(lua_State* L)
{
    driver::SetClock(static_cast<std::uint64_t>(luaL_checknumber(L, 1)));
    return 0;
}

// emit(number, text, place, place_number, message) as the driver library would.
int Emit(lua_State* L)
{
    char message[256];
    std::snprintf(message, sizeof message, "%s", luaL_checkstring(L, 5));
    const int result = driver::installed_trace_handler.load()(
        static_cast<int>(luaL_checkinteger(L, 1)), luaL_checkstring(L, 2), luaL_checkstring(L, 3),
        static_cast<int>(luaL_checkinteger(L, 4)), message);
    lua_pushinteger(L, result);
    lua_pushstring(L, message);
    return 2;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int luaopen_recorder(lua_State* L)
{
    const luaL_Reg functions[] = {{"calls", TakeCalls},
                                  {"answer", SetAnswers},
                                  {"clock", SetClock},
                                  {"emit", Emit},
                                  {nullptr, nullptr}};
    luaL_newlib(L, functions);
    return 1;
}
