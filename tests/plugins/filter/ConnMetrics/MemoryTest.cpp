// The stores of connection feedback and memory: what calls allocate, and that nothing is lost,
// counted twice or leaked when memory runs out at any moment. Under both builds of Lua.

#include <gtest/gtest.h>
#include <malloc.h>

#include <string>
#include <thread>

#include "AllocationLimit.h"
#include "LuaHost.h"
#include "RecordingDriver.h"

namespace {

constexpr long kMaxAllocations = 5000;

// The module remembers the last publication for the life of the process.
std::uint64_t s_now_s = 3000000000;

void PassAMinute()
{
    s_now_s += 61;
    driver::SetClock(s_now_s * 1000000);
}

// feed() adds 23 observations with every kind of field; feed_more() adds known keys, whose text
// comes too late, and a new one. check_rest() checks the report after one that delivered a sum of
// counts, or failed.
const std::string kScript = std::string(kLoadModules) + R"(
    assert(os.setlocale 'C.UTF-8')
    add, report, long = filter.AddToConnMetrics, filter.GetConnMetrics, ('x'):rep(700)
    function feed()
        add('a', 'flags\t257\ndst_port\t443\nname\t' .. long, 1)
        add('b', 'a\t1\nb\t2\nc\t3\nd\t4\ne\t5\n' .. long .. '\t\xc3\xbc', 20)
        for i = 1, 20 do add('c' .. i, 'name' .. i .. '\tv', 300) end
        add('z', '', 4000)
    end
    function feed_more()
        for _, key in ipairs {'a', 'b', 'z', 'zz'} do add(key, 'late\t1', 5) end
    end
    function sum(rows)
        local sum = 0
        for _, row in ipairs(rows) do sum = sum + row.count end
        return sum
    end
    function check_rest(delivered, more)
        local rows = report()
        assert(sum(rows) == (more and 10041 or 10021) - (delivered or 0), sum(rows))
        if delivered then return end
        assert(#rows == (more and 24 or 23), #rows)
        assert(rows[1].cf_start_tls == 1 and rows[1].dst_port == 443 and #rows[1].name == 700)
        assert(rows[2].e == '5' and rows[2][long] == '\xc3\xbc')
        assert(#report() == 0)
    end
)";

// What happens at the first allocation that fails.
enum class Meanwhile { kNothing, kPublication, kMemoryIsFreed };

class StoreMemory : public ::testing::Test {
protected:
    void SetUp() override
    {
        Run(kScript);
        // The C library loads a locale's conversion when it is first used. If that fails, it does
        // without it for good.
        Run("feed()");
        Publish();
        Run("report()");
    }
    void TearDown() override
    {
        Run("os.setlocale 'C'");
        driver::SetClock(0);
    }

    void Run(const std::string& chunk) { ASSERT_EQ(m_host.Run(chunk), ""); }

    void Publish()
    {
        PassAMinute();
        Run("filter.UpdateConnMetrics()");
    }

    // Runs a chunk with all allocations after n failing, in the process or only in Lua. Returns
    // whether it succeeded.
    bool RunLimited(const char* chunk, long n) { return RunLimited(chunk, n, m_host, false); }
    bool RunLimited(const char* chunk, long n, LuaHost& host, bool only_lua)
    {
        EXPECT_EQ(luaL_loadstring(host.l, chunk), 0);
        only_lua ? host.FailAfter(n) : (void)allocations::AllowMalloc(n);
        const int status = lua_pcall(host.l, 0, 0, 0);
        host.FailAfter(-1);
        m_failed = only_lua ? host.HasFailed() : allocations::LiftLimit();
        const std::string error = status != LUA_OK ? lua_tostring(host.l, -1) : "";
        lua_settop(host.l, 0);
        EXPECT_TRUE(status == LUA_OK || m_failed) << error;
        return status == LUA_OK;
    }

    // Lets a report fail at every allocation, then checks the next one on another thread.
    void FailReports(bool only_lua, Meanwhile meanwhile)
    {
        m_failed = true;
        for (long n = 0; m_failed && !HasFailure(); ++n) {
            SCOPED_TRACE(n);
            ASSERT_LT(n, kMaxAllocations);
            Run("feed()");
            Publish();
            LuaHost host;
            ASSERT_EQ(host.Run(kScript), "");
            host.on_failure = [&] {
                if (meanwhile == Meanwhile::kMemoryIsFreed) host.FailAfter(-1);
                if (meanwhile == Meanwhile::kPublication) {
                    Run("feed_more()");
                    Publish();
                }
            };
            const bool reported = RunLimited("rows = report()", n, host, only_lua);
            EXPECT_EQ(reported, host.Run("assert(rows)").empty());
            EXPECT_TRUE(reported || meanwhile != Meanwhile::kMemoryIsFreed);
            const std::string more =
                m_failed && meanwhile == Meanwhile::kPublication ? "true" : "false";
            std::thread([&] {
                EXPECT_EQ(host.Run("check_rest(rows and sum(rows), " + more + ")"), "");
            }).join();
        }
    }

    LuaHost m_host;
    bool m_failed = false;  // an allocation in RunLimited
};

TEST_F(StoreMemory, FailedReportsLoseAndRepeatNothing)
{
    FailReports(true, Meanwhile::kNothing);
    FailReports(true, Meanwhile::kPublication);
    FailReports(true, Meanwhile::kMemoryIsFreed);
    if (allocations::AllowMalloc(-1)) FailReports(false, Meanwhile::kNothing);
}

// What is fed is reported once, whichever thread comes first.
TEST_F(StoreMemory, ReportsAndPublicationsAtOnce)
{
    LuaHost reporter;
    ASSERT_EQ(reporter.Run(kScript), "");
    std::thread feeding([&] {
        for (int round = 0; round < 300 && !HasFailure(); ++round) {
            PassAMinute();
            Run("for i = 1, 50 do add('key ' .. i, 'a\\t' .. i, 1) end "
                "filter.UpdateConnMetrics()");
        }
    });
    EXPECT_EQ(reporter.Run("total = 0 for i = 1, 500 do total = total + sum(report()) end"), "");
    feeding.join();
    EXPECT_EQ(reporter.Run("assert(total + sum(report()) == 300 * 50)"), "");
}

// With the process's own malloc failing.
class ProcessMemory : public StoreMemory {
protected:
    void SetUp() override
    {
        if (!allocations::AllowMalloc(-1)) GTEST_SKIP() << "a sanitizer's malloc never fails";
        StoreMemory::SetUp();
        // It frees what Lua keeps for its next call, at moments that differ from run to run.
        Run("collectgarbage 'stop'");
    }
};

TEST_F(ProcessMemory, FeedingCountsWholeOrNotAtAll)
{
    const std::pair<const char*, const char*> cases[] = {{"'plain'", "'first'"},
                                                         {"'\xc3\xbc key'", "'\xc3\xbc'"},
                                                         {"''", "'nothing'"},
                                                         {"('k'):rep(4000)", "('x'):rep(5000)"},
                                                         {"'plain\\0x'", "'cut'"}};
    for (const auto& [key, value] : cases)
        for (const bool known : {false, true}) {
            SCOPED_TRACE(key + std::string(known ? ", known" : ", new"));
            Run("key, first = " + std::string(key) + ", " + value);
            m_failed = true;
            for (long n = 0; m_failed && !HasFailure(); ++n) {
                Run(known ? "add(key, 'v\\t' .. first, 7)" : "");
                Run("text = 'v\\t' .. first");
                const bool counted = RunLimited("add(key, text, 7)", n);
                Run("add(key, 'v\\tsecond', 7)");
                Publish();
                Run("local rows = report() assert(#rows == 1 and rows[1].v == " +
                    std::string(known || counted ? "first" : "'second'") +
                    " and rows[1].count == " + std::to_string(7 + 7 * known + 7 * counted) + ")");
            }
        }
}

// Neither known keys nor those that a full store refuses: the index knows them all.
TEST_F(ProcessMemory, PlainKeysNeedNone)
{
    Run("collectgarbage 'stop'");  // it can free what the next Lua call would allocate again
    for (const char* key : {"'plain'", "('k'):rep(56)", "('k'):rep(57)", "('k'):rep(5000)"}) {
        Run("key = " + std::string(key) + " add(key, 'v\\t1', 7)");
        EXPECT_TRUE(RunLimited("add(key, 'v', 7)", 0) && !m_failed) << key;
    }
    Run("for i = 1, 10000 do add('key ' .. i, '', 1) end key = long");
    EXPECT_TRUE(RunLimited("add(key, 'v', 7)", 0) && !m_failed) << "refused";
}

// Into an empty store, and into one that knows the keys and others.
TEST_F(ProcessMemory, PublicationsNeedNone)
{
    for (const char* more : {"first", "then"}) {
        Run("feed() add('only " + std::string(more) + "', '', 1)");
        PassAMinute();
        EXPECT_TRUE(RunLimited("filter.UpdateConnMetrics()", 0) && !m_failed);
    }
    Run("assert(#report() == 25)");
}

long HeapBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

// The store takes some three megabytes and is not left to the collector.
TEST_F(ProcessMemory, ReportsFreeTheStoreThatTheyTook)
{
    for (int round = 0; round < 2; ++round) {
        const long before = HeapBytes();
        const std::size_t lua_before = m_host.Bytes();
        Run("collectgarbage 'stop' for i = 1, 1000 do add('k' .. i, 'v\\t' .. long, 1) end");
        EXPECT_GT(HeapBytes() - before, 2000000);
        Publish();
        Run("report()");
        const long in_lua = static_cast<long>(m_host.Bytes() - lua_before);
        // Allocators round up.
        EXPECT_LT(HeapBytes() - before - in_lua, 500000) << "round " << round;
        Run("collectgarbage 'restart' collectgarbage()");
    }
}

}  // namespace
