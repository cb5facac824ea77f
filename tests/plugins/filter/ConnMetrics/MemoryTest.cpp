// The two stores and memory: what a call allocates, what becomes of it when memory runs out at
// any moment, and that a report frees what it took. Nothing is lost, counted twice or leaked.
// Under both builds of Lua.

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

// feed() makes rows that take every way there is: numbers, flags, long and non-ASCII values, new
// names. check(rows, sum) takes a report of them, whole() the next report in a line.
constexpr const char* kScript = R"(
    assert(os.setlocale 'C.UTF-8')
    long = ('x'):rep(700)
    function feed()
        filter.AddToConnMetrics('a', 'flags\t257\ndst_port\t443\nname\t' .. long, 1)
        filter.AddToConnMetrics('b', 'a\t1\nb\t2\nc\t3\nd\t4\ne\t5\n' .. long .. '\t\xc3\xbc', 20)
        for i = 1, 20 do filter.AddToConnMetrics('c' .. i, 'name' .. i .. '\tv', 300) end
        filter.AddToConnMetrics('z', '', 4000)
    end
    function sum(rows)
        local sum = 0
        for _, row in ipairs(rows) do sum = sum + row.count end
        return sum
    end
    function check(count, expected)
        local rows = filter.GetConnMetrics()
        assert(#rows == count and sum(rows) == expected, #rows .. ' rows, sum ' .. sum(rows))
        assert(rows[1].cf_start_tls == 1 and rows[1].dst_port == 443 and #rows[1].name == 700)
        assert(rows[2].e == '5' and rows[2][long] == '\xc3\xbc')
        assert(#filter.GetConnMetrics() == 0)
    end
    function whole()
        local list = {}
        for i, row in ipairs(filter.GetConnMetrics()) do list[i] = row.v .. ' x ' .. row.count end
        return table.concat(list, ', ')
    end
)";

constexpr int kRows = 23;
constexpr int kSum = 1 + 20 + 20 * 300 + 4000;
constexpr int kMoreSum = 20;

class StoreMemory : public ::testing::Test {
protected:
    void SetUp() override
    {
        Load(m_host);
        // The C library loads a locale's conversion at its first use, and does without it for
        // good when that fails.
        Run("feed()");
        Publish();
        Run("filter.GetConnMetrics()");
    }
    void TearDown() override
    {
        Run("os.setlocale 'C'");
        driver::SetClock(0);
    }

    static void Load(LuaHost& host)
    {
        ASSERT_EQ(host.Run(kLoadModules), "");
        ASSERT_EQ(host.Run(kScript), "");
    }

    void Run(const std::string& chunk) { ASSERT_EQ(m_host.Run(chunk), ""); }

    void Publish()
    {
        PassAMinute();
        Run("filter.UpdateConnMetrics()");
    }

    // Runs a chunk with all allocations of the thread failing after n. Whether it succeeded.
    bool RunLimited(LuaHost& host, const char* chunk, long n)
    {
        EXPECT_EQ(luaL_loadstring(host.l, chunk), 0);
        allocations::AllowMalloc(n);
        const int status = lua_pcall(host.l, 0, 0, 0);
        m_failed = allocations::LiftLimit();
        const std::string error = status != LUA_OK ? lua_tostring(host.l, -1) : "";
        lua_settop(host.l, 0);
        EXPECT_TRUE(status == LUA_OK || m_failed) << error;
        return status == LUA_OK;
    }

    LuaHost m_host;
    bool m_failed = false;  // an allocation in RunLimited
};

enum class Limited { kLua, kLuaAndAPublication, kEverything };

class ReportMemory : public StoreMemory, public ::testing::WithParamInterface<Limited> {
protected:
    // Known keys, whose later texts lose against those not reported yet, and a new one.
    void FeedMore()
    {
        Run("for _, key in ipairs {'a', 'b', 'z', 'zz'} do "
            "filter.AddToConnMetrics(key, 'late\\t1', 5) end");
        Publish();
    }

    // A report with all allocations after n failing: the sum of its counts, or -1.
    int Report(LuaHost& host, long n)
    {
        constexpr const char* kReport = "rows = filter.GetConnMetrics()";
        if (GetParam() == Limited::kEverything) {
            if (!RunLimited(host, kReport, n)) return -1;
        } else {
            EXPECT_EQ(luaL_loadstring(host.l, kReport), 0);
            const bool raised = !host.CallFailing(0, n).empty();
            m_failed = host.HasFailed();
            if (raised) return -1;
        }
        EXPECT_EQ(host.Run("total = sum(rows)"), "");
        lua_getglobal(host.l, "total");
        const int total = static_cast<int>(lua_tointeger(host.l, -1));
        lua_settop(host.l, 0);
        return total;
    }

    // What the next report must bring, to another state and another thread.
    void ExpectRest(int delivered, bool published)
    {
        const int rows = published ? kRows + 1 : kRows;
        const int total = published ? kSum + kMoreSum : kSum;
        const std::string chunk =
            delivered < 0
                ? "check(" + std::to_string(rows) + ", " + std::to_string(total) + ")"
                : "assert(sum(filter.GetConnMetrics()) == " + std::to_string(total - delivered) +
                      ")";
        std::thread([&] { Run(chunk); }).join();
    }
};

TEST_P(ReportMemory, FailedReportsLoseAndRepeatNothing)
{
    if (GetParam() == Limited::kEverything && !allocations::AllowMalloc(-1))
        GTEST_SKIP() << "not beside a sanitizer";
    m_failed = true;
    for (long n = 0; m_failed && !HasFailure(); ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, kMaxAllocations);
        Run("feed()");
        Publish();
        LuaHost host;
        Load(host);
        const bool publishes = GetParam() == Limited::kLuaAndAPublication;
        if (publishes) host.on_failure = [this] { FeedMore(); };
        const int delivered = Report(host, n);
        EXPECT_TRUE(m_failed || delivered >= 0);
        ExpectRest(delivered, m_failed && publishes);
        EXPECT_EQ(host.Close(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(, ReportMemory,
                         ::testing::Values(Limited::kLua, Limited::kLuaAndAPublication,
                                           Limited::kEverything));

class FeedingMemory : public StoreMemory {
protected:
    void SetUp() override
    {
        if (!allocations::AllowMalloc(-1)) GTEST_SKIP() << "not beside a sanitizer";
        StoreMemory::SetUp();
    }
};

constexpr const char* kFeed = "filter.AddToConnMetrics(key, text, 7)";

TEST_F(FeedingMemory, FeedingCountsWholeOrNotAtAll)
{
    const std::pair<const char*, const char*> cases[] = {{"'plain'", "'first'"},
                                                         {"'\xc3\xbc key'", "'\xc3\xbc'"},
                                                         {"''", "'nothing'"},
                                                         {"('k'):rep(4000)", "('x'):rep(5000)"},
                                                         {"'plain\\0x'", "'cut'"}};
    for (const auto& [key, text] : cases)
        for (const bool known : {false, true}) {
            SCOPED_TRACE(key + std::string(known ? ", known" : ", new"));
            Run("first = " + std::string(text) + " key, text = " + key + ", 'v\\t' .. first");
            m_failed = true;
            for (long n = 0; m_failed && !HasFailure(); ++n) {
                Publish();
                Run("filter.GetConnMetrics()");
                if (known) Run(kFeed);
                const bool counted = RunLimited(m_host, kFeed, n);
                // Feeding goes on as if nothing had been.
                Run("filter.AddToConnMetrics(key, 'v\\tsecond', 7)");
                Publish();
                Run(std::string("expected = ") + (known || counted ? "first" : "'second'") +
                    " .. ' x " + std::to_string(7 + 7 * known + 7 * counted) +
                    "' local found = whole() assert(found == expected, found)");
            }
        }
}

// Otherwise the index in front of the store has not found it.
TEST_F(FeedingMemory, KnownPlainKeysNeedNone)
{
    for (const char* key : {"'plain'", "('k'):rep(56)", "('k'):rep(57)", "('k'):rep(5000)"}) {
        SCOPED_TRACE(key);
        Run("key, text = " + std::string(key) + ", 'v\\t1'");
        Run(kFeed);
        EXPECT_TRUE(RunLimited(m_host, kFeed, 0));
        EXPECT_FALSE(m_failed);
    }
}

// Into an empty store, and into one that knows the keys and others.
TEST_F(FeedingMemory, PublicationsNeedNone)
{
    for (const char* more : {"first", "then"}) {
        Run("feed() filter.AddToConnMetrics('only " + std::string(more) + "', '', 1)");
        PassAMinute();
        EXPECT_TRUE(RunLimited(m_host, "filter.UpdateConnMetrics()", 0) && !m_failed);
    }
    Run("assert(#filter.GetConnMetrics() == 25)");
}

long HeapBytes()
{
    const struct mallinfo2 info = mallinfo2();
    return static_cast<long>(info.uordblks + info.hblkhd);
}

// A store of some three megabytes, and not left to the collector.
TEST_F(FeedingMemory, ReportsFreeTheStoreThatTheyTook)
{
    for (int round = 0; round < 2; ++round) {
        const long before = HeapBytes();
        const std::size_t lua_before = m_host.Bytes();
        Run("collectgarbage 'stop' "
            "for i = 1, 1000 do filter.AddToConnMetrics('k' .. i, 'v\\t' .. long, 1) end");
        EXPECT_GT(HeapBytes() - before, 2000000);
        Publish();
        Run("filter.GetConnMetrics()");
        const long in_lua = static_cast<long>(m_host.Bytes() - lua_before);
        // Allocators round up.
        EXPECT_LT(HeapBytes() - before - in_lua, 500000) << "round " << round;
        Run("collectgarbage 'restart' collectgarbage()");
    }
}

// What is fed is reported once, whichever thread comes first.
TEST_F(StoreMemory, ReportsAndPublicationsAtOnce)
{
    LuaHost reporter;
    Load(reporter);
    std::thread feeding([&] {
        for (int round = 0; round < 300 && !HasFailure(); ++round) {
            PassAMinute();
            Run("for i = 1, 50 do filter.AddToConnMetrics('key ' .. i, 'a\\t' .. i, 1) end "
                "filter.UpdateConnMetrics()");
        }
    });
    EXPECT_EQ(reporter.Run(
                  "total = 0 for i = 1, 500 do total = total + sum(filter.GetConnMetrics()) end"),
              "");
    feeding.join();
    EXPECT_EQ(reporter.Run("assert(total + sum(filter.GetConnMetrics()) == 300 * 50)"), "");
}

}  // namespace
