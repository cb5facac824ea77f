// Lua state for the benchmarks of native functions.

#include "LuaBench.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace lua_bench {
namespace {

lua_State* s_lua = nullptr;

int Empty(lua_State*)
{
    return 0;
}

}  // namespace

void Die(const char* message)
{
    std::fprintf(stderr, "benchmark: %s\n", message);
    std::exit(1);
}

lua_State* State()
{
    return s_lua;
}

void Open(lua_State* state)
{
    if (!state) Die("no memory for Lua");
    s_lua = state;
    luaL_openlibs(s_lua);
    lua_register(s_lua, "empty", Empty);
    Run("package.cpath = '" LIBRARY_DIR "/?.so' package.path = '" SCRIPT_DIR "/?.lua;" BENCH_DIR
        "/?.lua;' .. package.path vxa = require 'vxa' require 'fc' doc, filter = vxa.Dom(), "
        "SLB.filter");
}

void Close()
{
    lua_close(s_lua);
    s_lua = nullptr;
}

void Run(const char* chunk)
{
    if (luaL_dostring(s_lua, chunk) != 0) Die(lua_tostring(s_lua, -1));
    lua_settop(s_lua, 0);
}

int Compile(const char* chunk)
{
    if (luaL_loadstring(s_lua, chunk) != 0) Die(lua_tostring(s_lua, -1));
    return luaL_ref(s_lua, LUA_REGISTRYINDEX);
}

void Call(int compiled)
{
    lua_rawgeti(s_lua, LUA_REGISTRYINDEX, compiled);
    if (lua_pcall(s_lua, 0, 0, 0) != 0) Die(lua_tostring(s_lua, -1));
}

void Measure(benchmark::State& state, const char* chunk, long calls_per_chunk)
{
    const int compiled = Compile(chunk);
    for (auto _ : state) Call(compiled);
    luaL_unref(s_lua, LUA_REGISTRYINDEX, compiled);
    state.SetItemsProcessed(state.iterations() * calls_per_chunk);
}

void MeasureAfter(benchmark::State& state, const char* prepare, const char* chunk,
                  long calls_per_chunk)
{
    using Clock = std::chrono::steady_clock;
    const int prepared = Compile(prepare);
    const int compiled = Compile(chunk);
    for (auto _ : state) {
        Call(prepared);
        const Clock::time_point start = Clock::now();
        Call(compiled);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    luaL_unref(s_lua, LUA_REGISTRYINDEX, prepared);
    luaL_unref(s_lua, LUA_REGISTRYINDEX, compiled);
    state.SetItemsProcessed(state.iterations() * calls_per_chunk);
}

}  // namespace lua_bench
