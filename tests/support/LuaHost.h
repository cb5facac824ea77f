// A Lua state that counts what it allocates and can run out of memory at a given allocation, for
// programs that host the modules. See add_lua_host in LuaTest.cmake.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <lua.hpp>

class LuaHost {
public:
    LuaHost();  // with the standard libraries, and the modules' directory in package.cpath
    ~LuaHost() { Close(); }
    LuaHost(const LuaHost&) = delete;
    LuaHost& operator=(const LuaHost&) = delete;

    lua_State* l = nullptr;

    // Runs a chunk. Returns the error message, or empty.
    std::string Run(const std::string& chunk);

    // From now on `allowed` allocations succeed and all later ones fail; -1 lifts that.
    void FailAfter(long allowed);
    bool HasFailed() const { return m_failed; }  // since FailAfter

    // Called during the first allocation that fails. It must not use this state.
    std::function<void()> on_failure;

    // Calls the function on the stack under FailAfter. Returns the error message, or empty.
    std::string CallFailing(int arguments, long allowed);

    std::size_t Bytes() const { return m_bytes; }  // allocated at the moment

    // Closes the state. Returns how many bytes it still held.
    std::size_t Close();

private:
    static void* Allocate(void* self, void* block, std::size_t old_size, std::size_t size);
    bool Refuses();

    std::size_t m_bytes = 0;
    bool m_failed = false;
    long m_allowed = -1;
};

// Loads the modules and makes `doc`, a document, `handle`, an open driver handle, and
// `filter`, the function table.
inline constexpr const char* kLoadModules =
    "require 'fc'\n"
    "vxa = require 'vxa'\n"
    "filter, doc, handle = SLB.filter, vxa.Dom(), assert(vxa.open())\n";
