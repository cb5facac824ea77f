// What the benchmarks of native functions share: one Lua state with both modules, and
// chunks measured in it.
#pragma once

#include <benchmark/benchmark.h>

#include <lua.hpp>

namespace lua_bench {

// Ends the program with the reason on standard error.
[[noreturn]] void Die(const char* what);

// Makes the state: `vxa`, `filter` (the table of native functions), `doc` and `empty`, a C
// function that does nothing.
void Open(lua_State* state = luaL_newstate());
void Close();

lua_State* State();

void Run(const char* chunk);

// Compiles a chunk, to be called with Call.
int Compile(const char* chunk);
void Call(int compiled);

// Runs a chunk once per iteration; its own loop makes so many calls.
void Measure(benchmark::State& state, const char* chunk, long calls_per_chunk = 1);

// The same, but `prepare` runs before each, untimed.
void MeasureAfter(benchmark::State& state, const char* prepare, const char* chunk,
                  long calls_per_chunk = 1);

}  // namespace lua_bench
