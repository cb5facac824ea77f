// Lua state for the benchmarks of native functions, and chunks measured in it.
#pragma once

#include <benchmark/benchmark.h>

#include <lua.hpp>

namespace lua_bench {

// Exits with 1 and the message on standard error.
[[noreturn]] void Die(const char* message);

// Makes the only state, with the globals `vxa`, `filter` (table of the native functions), `doc` (a
// document) and `empty` (a C function that does nothing).
void Open(lua_State* state = luaL_newstate());
void Close();

lua_State* State();

void Run(const char* chunk);

// Returns a reference to the chunk's function for Call.
int Compile(const char* chunk);
void Call(int compiled);

// Runs a chunk once per iteration. The time is reported per call: a chunk may loop.
void Measure(benchmark::State& state, const char* chunk, long calls_per_chunk = 1);

// Runs another chunk before each iteration, untimed.
void MeasureAfter(benchmark::State& state, const char* prepare, const char* chunk,
                  long calls_per_chunk = 1);

}  // namespace lua_bench
