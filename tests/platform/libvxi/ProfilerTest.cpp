#include "Profiler.h"

#include <gtest/gtest.h>

namespace {

TEST(Profiler, PausesNestAndEndWithTheLast)
{
    vxi_set_profiler(profiler_blockfilter, profiler_running);
    EXPECT_FALSE(vxi::switch_profiling(true));
    EXPECT_TRUE(vxi::profiling_runs());
    {
        const vxi::ProfilingPause outer;
        EXPECT_EQ(1, profiler_blockfilter(1)) << "suspended before";
        EXPECT_EQ(1, profiler_blockfilter(0));
        EXPECT_FALSE(vxi::profiling_runs());
        // Taking the hooks away in between must not leave profiling suspended for good.
        vxi_set_profiler(nullptr, nullptr);
    }
    EXPECT_EQ(1, profiler_running());
    EXPECT_EQ(0, profiler_blockfilter(0)) << "resumed without a suspend";
    EXPECT_EQ(0, profiler_blockfilter(1));
    EXPECT_EQ(0, profiler_running());
    EXPECT_TRUE(vxi::profiling_runs()) << "no hook to ask";
    EXPECT_EQ(1, profiler_blockfilter(0));
    EXPECT_TRUE(vxi::switch_profiling(false));
    EXPECT_EQ(0, profiler_running());
}

int never_running()
{
    return 0;
}

TEST(Profiler, InstalledHookDecides)
{
    vxi::switch_profiling(true);
    vxi_set_profiler(nullptr, never_running);
    EXPECT_FALSE(vxi::profiling_runs());
    const vxi::ProfilingPause without_a_hook;
    vxi_set_profiler(nullptr, nullptr);
    EXPECT_TRUE(vxi::profiling_runs());
    vxi::switch_profiling(false);
}

}  // namespace
