// Every native function, with every single allocation of Lua failing in its turn: nothing
// leaks, no lock stays held, nothing crashes.

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>
#include <vector>

#include "LuaHost.h"
#include "RecordingDriver.h"
#include "Sandbox.h"

namespace {

constexpr long kMaxAllocations = 5000;

class AllocatorSweep : public ::testing::TestWithParam<bool> {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        FakeMachine();
        ASSERT_EQ(m_other.Run(kLoadModules), "");
        // A lock that stays held would hang this program: it is ended then.
        alarm(100);
    }
    void TearDown() override { alarm(0); }

    // Another thread's use of everything that the module locks.
    void ExpectUsable()
    {
        std::string error;
        std::thread([&] {
            error = m_other.Run(
                "filter.GetSysHealthEnabled() filter.GetScanMetricPort() "
                "package.loaded.fc = nil require 'fc'");
        }).join();
        EXPECT_EQ(error, "");
    }

    LuaHost m_other;
};

void ExpectMemoryError(LuaHost& host, int status)
{
    EXPECT_TRUE(host.HasFailed());
    ASSERT_EQ(lua_type(host.L, -1), LUA_TSTRING);
    EXPECT_NE(std::string(lua_tostring(host.L, -1)).find("not enough memory"), std::string::npos)
        << "status " << status << ": " << lua_tostring(host.L, -1);
}

// Runs what stands on the stack with the n-th allocation failing. False when the call needs
// fewer than n.
bool FailNth(LuaHost& host, int arguments, long n, bool for_good)
{
    lua_gc(host.L, LUA_GCSTOP, 0);
    host.FailAfter(n, for_good);
    const int status = lua_pcall(host.L, arguments, LUA_MULTRET, 0);
    host.StopFailing();
    if (status != LUA_OK) ExpectMemoryError(host, status);
    return host.HasFailed();
}

std::vector<std::string> FunctionNames(LuaHost& host)
{
    std::vector<std::string> names;
    lua_getglobal(host.L, "filter");
    for (lua_pushnil(host.L); lua_next(host.L, -2) != 0; lua_pop(host.L, 1))
        if (lua_iscfunction(host.L, -1)) names.emplace_back(lua_tostring(host.L, -2));
    lua_settop(host.L, 0);
    return names;
}

// The function and its arguments onto the stack; the number of arguments.
int PushCall(LuaHost& host, const std::string& function)
{
    lua_getglobal(host.L, "filter");
    lua_getfield(host.L, -1, function.c_str());
    lua_remove(host.L, -2);
    const int before = lua_gettop(host.L);
    EXPECT_EQ(luaL_dostring(host.L, ArgumentsFor(function).c_str()), 0);
    return lua_gettop(host.L) - before;
}

TEST_P(AllocatorSweep, EveryFunction)
{
    const std::vector<std::string> functions = FunctionNames(m_other);
    ASSERT_GE(functions.size(), 7u);
    for (const std::string& function : functions) {
        SCOPED_TRACE(function);
        ASSERT_NE(ArgumentsFor(function), "") << "unknown here: tell what to call it with";
        bool failed = true;
        for (long n = 0; failed; ++n) {
            ASSERT_LT(n, kMaxAllocations);
            LuaHost host;
            ASSERT_EQ(host.Run(kLoadModules), "");
            failed = FailNth(host, PushCall(host, function), n, GetParam());
            ExpectUsable();
            EXPECT_EQ(host.Close(), 0u) << "allocation " << n;
        }
    }
}

TEST_P(AllocatorSweep, ModuleEntry)
{
    bool failed = true;
    for (long n = 0; failed; ++n) {
        ASSERT_LT(n, kMaxAllocations);
        LuaHost host;
        ASSERT_EQ(luaL_dostring(host.L, "return assert(package.loadlib('" LIBRARY_DIR
                                        "/fc.so', 'luaopen_fc'))"),
                  0);
        failed = FailNth(host, 0, n, GetParam());
        // Whatever was reached: the next attempt finds the whole module.
        EXPECT_EQ(host.Run("require 'fc'; assert(SLB.filter.GetScanMetricPort() == false)"), "");
        ExpectUsable();
        EXPECT_EQ(host.Close(), 0u) << "allocation " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(, AllocatorSweep, ::testing::Bool(), [](const auto& mode) {
    return mode.param ? "FromTheNthOn" : "TheNthAlone";
});

}  // namespace
