// The module in a process: several Lua states, closed ones.

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

#include "FakeMachine.h"
#include "LuaHost.h"
#include "RecordingDriver.h"

namespace {

// Exits with 0 if the module is still mapped and a reference to it is left.
[[noreturn]] void ExitByReferenceLeft()
{
    void* const module = dlopen(LIBRARY_DIR "/fc.so", RTLD_NOW | RTLD_NOLOAD);
    if (!module) std::_Exit(2);
    dlclose(module);
    std::_Exit(dlclose(module) == 0 ? 0 : 1);
}

// The module alone: nothing else may keep it in the process.
TEST(Host, StaysMappedWithItsStateWhenItsLuaStateCloses)
{
    const FakeMachine machine;
    ASSERT_EQ(dlopen(LIBRARY_DIR "/fc.so", RTLD_NOW | RTLD_NOLOAD), nullptr);
    {
        LuaHost host;
        ASSERT_EQ(host.Run("assert(require 'fc' == true)\n"
                           "assert(SLB.filter.GetSysHealthEnabled() == false)\n"
                           "assert(SLB.filter.CheckSystemHealthMetrics().action == 6)\n"
                           "assert(SLB.filter.GetSysHealthEnabled() == true)"),
                  "");
        EXPECT_EQ(host.Close(), 0u);
    }
    // Other libraries that bind to its symbols may keep it mapped too.
    EXPECT_EXIT(ExitByReferenceLeft(), testing::ExitedWithCode(0), "");
    LuaHost next;
    EXPECT_EQ(next.Run("require 'fc'; assert(SLB.filter.GetSysHealthEnabled() == true)"), "");
    EXPECT_EQ(driver::profiler_installations, 1);
}

TEST(Host, ProfilerHooksAreInstalledOnceForManyStatesAtOnce)
{
    const int before = driver::profiler_installations;
    // Mapped beforehand: the race detector does not see the loader's lock.
    ASSERT_NE(dlopen(LIBRARY_DIR "/fc.so", RTLD_NOW), nullptr) << dlerror();
    EXPECT_EQ(driver::profiler_installations, before) << "by loading alone";
    constexpr int kStates = 8;
    std::vector<std::string> errors(kStates);
    std::vector<std::thread> threads;
    threads.reserve(kStates);
    for (int i = 0; i < kStates; ++i)
        threads.emplace_back([&errors, i] {
            LuaHost host;
            errors[i] = host.Run(
                "require 'fc'; local n = 0 for _ in pairs(SLB.filter) do n = n + 1 end "
                "assert(n == 11 and SLB.filter.EnableNativeFirewall() == 0)");
        });
    for (std::thread& thread : threads) thread.join();
    for (const std::string& error : errors) EXPECT_EQ(error, "");
    EXPECT_EQ(driver::profiler_installations, 1);
}

}  // namespace
