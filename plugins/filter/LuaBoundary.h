// What crosses between Lua and C++.
//
// The same module runs under an interpreter that raises errors with longjmp, which
// skips destructors, and under one that throws its own objects. Hence three zones in
// every native function: check arguments into plain locals; run a body that knows no
// lua_State inside Guarded; push results. No object with a destructor lives where Lua
// can raise.
#pragma once

#include <cstdint>
#include <cstdio>
#include <exception>

#include <lua.hpp>

namespace fc {

// Runs `body` and turns a C++ exception into a Lua error with its text. [-0, +0, v]
// Only std::exception is caught: in the C++ build of Lua a catch-all would swallow
// Lua's own errors. The text is copied out before the handler ends, so that nothing
// is alive when Lua jumps.
template <typename Body>
void Guarded(lua_State* L, Body&& body)
{
    char message[256];
    try {
        body();
        return;
    } catch (const std::exception& e) {
        std::snprintf(message, sizeof message, "%s", e.what());
    }
    luaL_error(L, "%s", message);
}

// Truncation toward zero for every double. C++ leaves NaN and values out of range
// undefined; here they give what this platform's conversion instruction yields.
inline std::int64_t TruncateToInt64(double value)
{
    constexpr double kLimit = 9223372036854775808.0;  // 2^63
    return value >= -kLimit && value < kLimit ? static_cast<std::int64_t>(value) : INT64_MIN;
}

}  // namespace fc
