// Every native function, with each allocation failing in turn, Lua's or the process's, and with
// each query of the host's trace log failing: nothing leaks, no lock stays held, nothing crashes,
// no C++ exception escapes, and a cycle of the health monitor ends.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>
#include <thread>
#include <vector>

#include "AllocationLimit.h"
#include "FakeMachine.h"
#include "LuaHost.h"
#include "RecordingDriver.h"
#include "VxaCore/LogTrace.h"

namespace {

constexpr long kMaxAllocations = 5000;

// Queries of the trace log that succeed before one throws; -1: all. This program's trace log comes
// before that of the core library.
thread_local int s_queries_left = -1;

// Each chunk returns a function that does all its work. That of a cycle begins with monitoring
// disabled and notes whether an action was lost, or a lack of memory taken for a lack of settings.
const std::map<std::string, std::string> kCalls = {
    {"EnableNativeFirewall", "return filter.EnableNativeFirewall"},
    {"DisableNativeFirewall", "return filter.DisableNativeFirewall"},
    {"AddDriverDiagnostics",
     "local zip = vxa.ZipOutputStream('/dev/null') "
     "return function() filter.AddDriverDiagnostics(doc, handle, zip) end"},
    {"setup_tbtrace", "return function() filter.setup_tbtrace(handle) end"},
    {"AddToConnMetrics",
     "local key = tostring({}) "
     "return function() filter.AddToConnMetrics(key, 'name\\tvalue', 1) end"},
    {"UpdateConnMetrics", "return filter.UpdateConnMetrics"},
    {"GetConnMetrics", "return filter.GetConnMetrics"},
    {"CheckSystemHealthMetrics",
     R"(filter.CheckSystemHealthMetrics(doc, 'Deactivated', '{}')
        return function()
            local ok, result = pcall(filter.CheckSystemHealthMetrics, doc, 'Deactivated',
                '{"SYS_CONF_CONN_REFUSAL_PORT": 80, "SYS_THR_CONN_REFUSAL_PCT": {"value": 50}}')
            local counted = filter.GetSysHealthEnabled()
            if ok then broken = not counted or result.action == 2
            else broken = counted and lua_memory error(result, 0) end
        end)"},
    {"GetSysHealthMetrics", "return filter.GetSysHealthMetrics"},
    {"GetSysHealthEnabled", "return filter.GetSysHealthEnabled"},
    {"GetScanMetricPort", "return filter.GetScanMetricPort"},
};

class Sweep : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(
            m_other.Run(std::string(kLoadModules) + "vxa.log_to('/dev/null') vxa.verbose(true)"),
            "");
        // A lock that stays held would hang this program.
        alarm(60);
    }
    void TearDown() override { alarm(0); }

    // Uses everything that the module locks from another thread.
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

    const FakeMachine m_machine;
    LuaHost m_other;
};

// The parameter: whether all memory from malloc runs out, or only Lua's.
class AllocatorSweep : public Sweep, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        if (GetParam() && !allocations::AllowMalloc(-1)) GTEST_SKIP() << "not beside a sanitizer";
        Sweep::SetUp();
    }

    // Runs the function on the stack with the n-th allocation and all later ones failing. Returns
    // whether one did.
    static bool FailFromNth(LuaHost& host, long n)
    {
        GetParam() ? (void)allocations::AllowMalloc(n) : host.FailAfter(n);
        const int status = lua_pcall(host.l, 0, 0, 0);
        host.FailAfter(-1);
        const bool failed = GetParam() ? allocations::LiftLimit() : host.HasFailed();
        const std::string error = status != LUA_OK ? lua_tostring(host.l, -1) : "";
        EXPECT_TRUE(status == LUA_OK ||
                    (failed && (error.find("not enough memory") != std::string::npos ||
                                error.find("std::bad_alloc") != std::string::npos)))
            << error;
        lua_settop(host.l, 0);
        return failed;
    }

    // The same in a child, which may crash and leaves the state as it was.
    bool FailInChild(LuaHost& host, long n)
    {
        const pid_t child = fork();
        if (child == 0) {
            const bool failed = FailFromNth(host, n);
            EXPECT_EQ(host.Run("assert(not broken)"), "");
            ExpectUsable();
            EXPECT_EQ(host.Close(), 0u);
            std::fflush(nullptr);
            _exit(HasFailure() ? 1 : failed ? 2 : 0);
        }
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        const bool ended = WIFEXITED(status) && WEXITSTATUS(status) != 1;
        EXPECT_TRUE(ended) << "allocation " << n << ", status " << status;
        return ended && WEXITSTATUS(status) == 2;
    }
};

void PushCall(LuaHost& host, const std::string& function)
{
    EXPECT_EQ(luaL_dostring(host.l, kCalls.at(function).c_str()), 0) << lua_tostring(host.l, -1);
}

TEST_P(AllocatorSweep, EveryFunction)
{
    ASSERT_EQ(m_other.Run("for name in pairs(filter) do names = (names or 0) + 1 end "
                          "assert(names == 11)"),
              "");
    for (const auto& call : kCalls) {
        SCOPED_TRACE(call.first);
        LuaHost host;
        ASSERT_EQ(host.Run(kLoadModules), "");
        host.Run(GetParam() ? "" : "lua_memory = true");
        PushCall(host, call.first);
        for (long n = 0; FailInChild(host, n); ++n) ASSERT_LT(n, kMaxAllocations);
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(Sweep, ExceptionsBecomeErrors)
{
    LuaHost host;
    ASSERT_EQ(host.Run(kLoadModules), "");
    int thrown = 0;
    for (const auto& call : kCalls) {
        SCOPED_TRACE(call.first);
        int status = LUA_ERRRUN;
        for (int query = 0; status != LUA_OK; ++query, ++thrown) {
            ASSERT_LT(query, 1000);
            PushCall(host, call.first);
            s_queries_left = query;
            status = lua_pcall(host.l, 0, 0, 0);
            s_queries_left = -1;
            if (status == LUA_OK) break;
            const std::string text = lua_tostring(host.l, -1);
            EXPECT_NE(text.find("the trace log fails"), std::string::npos) << text;
            lua_settop(host.l, 0);
            ExpectUsable();
            // A cycle that raised has ended as well.
            if (call.first == "CheckSystemHealthMetrics") {
                EXPECT_EQ(host.Run("assert(filter.GetSysHealthEnabled())"), "");
            }
        }
    }
    EXPECT_GE(thrown, 10);
}

TEST_F(Sweep, NoExceptionReachesTheDriverLibrary)
{
    ASSERT_EQ(m_other.Run("filter.setup_tbtrace(handle)"), "");
    char message[] = "M";
    s_queries_left = 0;
    EXPECT_EQ(driver::installed_trace_handler.load()(2, "A", "B", 10, message), 0);
    EXPECT_EQ(s_queries_left, -1) << "was not queried";
}

// Only with Lua's memory: the dynamic loader needs the process's.
TEST_F(Sweep, ModuleEntry)
{
    bool failed = true;
    for (long n = 0; failed; ++n) {
        ASSERT_LT(n, kMaxAllocations);
        LuaHost host;
        ASSERT_EQ(luaL_dostring(host.l, "return assert(package.loadlib('" LIBRARY_DIR
                                        "/fc.so', 'luaopen_fc'))"),
                  0);
        const std::string error = host.CallFailing(0, n);
        failed = host.HasFailed();
        EXPECT_EQ(error.find("not enough memory") != std::string::npos, failed) << error;
        // The next attempt finds the whole module.
        EXPECT_EQ(host.Run("require 'fc'; assert(SLB.filter.EnableNativeFirewall() == 0)"), "");
        ExpectUsable();
        EXPECT_EQ(host.Close(), 0u) << "allocation " << n;
    }
}

INSTANTIATE_TEST_SUITE_P(, AllocatorSweep, ::testing::Bool());

}  // namespace

namespace VxaCore {

bool LogTraceIsEnabled(const wxString&)
{
    if (s_queries_left >= 0 && s_queries_left-- == 0)
        throw std::runtime_error("the trace log fails");
    return true;
}

void LogTrace(const wxString&, const char*, int, const char*, const wxString&) {}

}  // namespace VxaCore
