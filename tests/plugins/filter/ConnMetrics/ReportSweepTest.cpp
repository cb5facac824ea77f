// Lua runs out of memory in the middle of a report: the next report brings everything, once,
// and nothing is left behind. Under both builds of Lua.

#include <gtest/gtest.h>

#include <string>
#include <thread>

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

// Rows that take every way there is: numbers, flags, long and non-ASCII values, new names.
constexpr const char* kFeed = R"(
    local long = ('x'):rep(700)
    filter.AddToConnMetrics('a', 'flags\t257\ndst_port\t443\nname\t' .. long, 1)
    filter.AddToConnMetrics('b', 'a\t1\nb\t2\nc\t3\nd\t4\ne\t5\n' .. long .. '\t\xc3\xbc', 20)
    for i = 1, 20 do filter.AddToConnMetrics('c' .. i, 'name' .. i .. '\tv', 300) end
    filter.AddToConnMetrics('z', '', 4000)
)";

// The rows' counts and some of their fields, told in one line.
constexpr const char* kExpect = R"(
    local rows, sum = filter.GetConnMetrics(), 0
    for _, row in ipairs(rows) do sum = sum + row.count end
    assert(#rows == %ROWS and sum == %SUM, #rows .. ' rows, sum ' .. sum)
    if #rows == 0 then return end
    assert(rows[1].cf_start_tls == 1 and rows[1].dst_port == 443 and #rows[1].name == 700)
    assert(rows[2].e == '5' and rows[2][('x'):rep(700)] == '\xc3\xbc')
    assert(#filter.GetConnMetrics() == 0)
)";

std::string Expect(int rows, int sum)
{
    std::string chunk = kExpect;
    chunk.replace(chunk.find("%ROWS"), 5, std::to_string(rows));
    chunk.replace(chunk.find("%SUM"), 4, std::to_string(sum));
    return chunk;
}

constexpr int kRows = 23;
constexpr int kSum = 1 + 20 + 20 * 300 + 4000;
constexpr int kMoreSum = 20;

struct Mode {
    bool for_good;
    bool publishes;  // while the report is made
};

class ReportSweep : public ::testing::TestWithParam<Mode> {
protected:
    void SetUp() override
    {
        ASSERT_EQ(m_feeder.Run(kLoadModules), "");
        ASSERT_EQ(m_feeder.Run("assert(os.setlocale('C.UTF-8'))"), "");
        Publish();
        ASSERT_EQ(m_feeder.Run("filter.GetConnMetrics()"), "");
    }
    void TearDown() override
    {
        m_feeder.Run("os.setlocale('C')");
        driver::SetClock(0);
    }

    void Publish()
    {
        PassAMinute();
        ASSERT_EQ(m_feeder.Run("filter.UpdateConnMetrics()"), "");
    }

    // Known keys, whose later texts lose against those not reported yet, and a new one.
    void FeedMore()
    {
        ASSERT_EQ(m_feeder.Run("for _, key in ipairs {'a', 'b', 'z', 'zz'} do "
                               "filter.AddToConnMetrics(key, 'late\\t1', 5) end"),
                  "");
        Publish();
    }

    // A report with the n-th allocation failing: the sum of its counts; -1 when it raises.
    static int FailNth(LuaHost& host, long n, bool for_good)
    {
        EXPECT_EQ(luaL_loadstring(host.L, "rows = filter.GetConnMetrics()"), 0);
        const bool raised = !host.CallFailing(0, n, for_good).empty();
        return raised ? -1 : Sum(host);
    }

    static int Sum(LuaHost& host)
    {
        EXPECT_EQ(host.Run("sum = 0 for _, row in ipairs(rows) do sum = sum + row.count end"), "");
        lua_getglobal(host.L, "sum");
        const int sum = static_cast<int>(lua_tointeger(host.L, -1));
        lua_settop(host.L, 0);
        return sum;
    }

    // What the next report must bring, to another state and another thread.
    void ExpectRest(int delivered, bool published)
    {
        const int rows = published ? kRows + 1 : kRows;
        const int sum = published ? kSum + kMoreSum : kSum;
        if (delivered >= 0) {
            ASSERT_EQ(m_feeder.Run("rows = filter.GetConnMetrics()"), "");
            EXPECT_EQ(delivered + Sum(m_feeder), sum);
            return;
        }
        std::string error;
        std::thread([&] { error = m_feeder.Run(Expect(rows, sum)); }).join();
        EXPECT_EQ(error, "");
    }

    LuaHost m_feeder;
};

TEST_P(ReportSweep, LosesAndRepeatsNothing)
{
    bool failed = true;
    for (long n = 0; failed && !HasFailure(); ++n) {
        SCOPED_TRACE(n);
        ASSERT_LT(n, kMaxAllocations);
        ASSERT_EQ(m_feeder.Run(kFeed), "");
        Publish();
        LuaHost host;
        ASSERT_EQ(host.Run(kLoadModules), "");
        if (GetParam().publishes) host.on_failure = [this] { FeedMore(); };
        const int delivered = FailNth(host, n, GetParam().for_good);
        failed = host.HasFailed();
        EXPECT_TRUE(failed || delivered >= 0);
        ExpectRest(delivered, failed && GetParam().publishes);
        EXPECT_EQ(host.Close(), 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(, ReportSweep,
                         ::testing::Values(Mode{false, false}, Mode{true, false}, Mode{false, true},
                                           Mode{true, true}),
                         [](const auto& mode) {
                             return std::string(mode.param.for_good ? "FromTheNthOn"
                                                                    : "TheNthAlone") +
                                    (mode.param.publishes ? "AndAPublication" : "");
                         });

// Report and publication on two threads: what is fed is reported once, whoever comes first.
TEST(ReportThreads, ReportsAndPublicationsAtOnce)
{
    LuaHost feeder;
    LuaHost reporter;
    for (LuaHost* host : {&feeder, &reporter}) ASSERT_EQ(host->Run(kLoadModules), "");
    PassAMinute();
    ASSERT_EQ(feeder.Run("filter.UpdateConnMetrics() filter.GetConnMetrics()"), "");
    constexpr int rounds = 300;
    std::string errors[2];
    std::thread feeding([&] {
        for (int round = 0; round < rounds; ++round) {
            errors[0] += feeder.Run(
                "for i = 1, 50 do filter.AddToConnMetrics('key ' .. i, 'a\\t' .. i, 1) end");
            PassAMinute();
            errors[0] += feeder.Run("filter.UpdateConnMetrics()");
        }
    });
    std::thread reporting([&] {
        errors[1] = reporter.Run(
            "sum = 0 function take() for _, row in ipairs(filter.GetConnMetrics()) do "
            "sum = sum + row.count end end for i = 1, 500 do take() end");
    });
    feeding.join();
    reporting.join();
    for (const std::string& error : errors) EXPECT_EQ(error, "");
    EXPECT_EQ(reporter.Run("take() assert(sum == 300 * 50, sum)"), "");
    driver::SetClock(0);
}

}  // namespace
