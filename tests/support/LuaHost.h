// A host program of the modules: Lua states that count what they allocate and can be made
// to run out of memory at a given allocation. See add_lua_host in LuaTest.cmake.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include <lua.hpp>

class LuaHost {
public:
    // With the standard libraries and both modules' folder in package.cpath.
    LuaHost();
    ~LuaHost();
    LuaHost(const LuaHost&) = delete;
    LuaHost& operator=(const LuaHost&) = delete;

    lua_State* l = nullptr;

    // Runs a chunk; the error's text, or empty.
    std::string Run(const std::string& chunk);

    // From now on `allowed` allocations succeed and all that follow fail.
    void FailAfter(long allowed);
    void StopFailing() { m_failing = false; }
    bool HasFailed() const { return m_failed; }

    // Called in the midst of the first allocation that fails; not for this state to be used.
    std::function<void()> on_failure;

    // Calls what stands on the stack under FailAfter; the error's text, or empty.
    std::string CallFailing(int arguments, long allowed);

    // What the state holds.
    std::size_t Bytes() const { return m_bytes; }

    // Closes the state and tells how many bytes it still held.
    std::size_t Close();

private:
    static void* Allocate(void* self, void* block, std::size_t old_size, std::size_t size);
    bool Refuses();

    std::size_t m_bytes = 0;
    bool m_failing = false;
    bool m_failed = false;
    long m_allowed = 0;
};

// Loads the modules and makes `doc`, a document, `handle`, an open driver handle, and
// `filter`, the function table.
extern const char* const kLoadModules;
