// Lua states on several threads: cycles and queries at once.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "FakeMachine.h"
#include "LuaHost.h"
#include "RecordingDriver.h"

namespace {

// Alternates two policies that differ in every setting, so that a half-built table shows.
constexpr const char* kCycles = R"(
    local policies = {
        '{"SYS_CONF_CONN_REFUSAL_PORT": 1111, "SYS_THR_RUNQ": {"value": 11},' ..
            '"SYS_THR_FREE_MEM": {"value": 11}, "SYS_CONF_MIN_ACT_DURATION": 0}',
        '{"SYS_CONF_CONN_REFUSAL_PORT": 2222, "SYS_THR_RUNQ": {"value": 22},' ..
            '"SYS_THR_FREE_MEM": {"value": 22}, "SYS_CONF_MIN_ACT_DURATION": 0}',
        '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 1}}', '{', ''}
    local state, seen = 'Deactivated', {}
    for i = 1, 20 do
        local policy = policies[i % #policies + 1]
        local action = filter.CheckSystemHealthMetrics(doc, state, policy).action
        seen[action] = true
        assert(action == 0 or action == 1 or action == 2, action)
        state = action == 1 and 'Activated' or 'Deactivated'
    end
    assert(seen[0] and seen[2])
)";

constexpr const char* kQueries = R"(
    local ports, rows = {[0] = true, [1111] = true, [2222] = true}, {'rqpct', 'refusalpct'}
    for i = 1, 60 do
        local monitored, port = filter.GetScanMetricPort()
        assert(ports[port] and monitored == (port ~= 0), port)
        assert(type(filter.GetSysHealthEnabled()) == 'boolean')
        if i % 5 == 0 then
            local ok, metrics = filter.GetSysHealthMetrics()
            assert(ok and metrics[#metrics].cpu_count == 4)
            -- Both thresholds stem from one policy, or from none.
            local runq, free = metrics[1].threshold, metrics[5].threshold
            assert(runq == free or runq == 50 and free == 100, runq .. ' ' .. free)
        end
        filter.setup_tbtrace(handle)
    end
)";

// Each cycle makes the same calls of the driver, and `lead` moves this thread on against the other.
constexpr const char* kPairedCycles = R"(
    local function ask(count) for _ = 1, count do handle:available() end end
    ask(lead)
    for i = 1, 5 do
        filter.CheckSystemHealthMetrics(doc, 'Deactivated', '{"SYS_CONF_CONN_REFUSAL_PORT": 1111}')
    end
    ask(2 - lead)
)";

class Threads : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (LuaHost& host : m_hosts)
            ASSERT_EQ(host.Run(kLoadModules +
                               std::string("vxa.log_to('/dev/null') vxa.trace('*', true)")),
                      "");
    }

    // Runs each chunk on its own state and thread.
    void RunAtOnce(const std::vector<std::string>& chunks)
    {
        std::vector<std::string> errors(chunks.size());
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < chunks.size(); ++i)
            threads.emplace_back([&, i] { errors[i] = m_hosts[i].Run(chunks[i]); });
        for (std::thread& thread : threads) thread.join();
        for (const std::string& error : errors) EXPECT_EQ(error, "");
    }

    static void AnswerFetches(int status)
    {
        driver::Answers answers;
        answers.statuses["get_scan_metrics"] = {status};
        driver::SetAnswers(answers);
    }

    const FakeMachine m_machine;
    LuaHost m_hosts[3];
};

// While fetches fail, every cycle configures the port again and switches thresholds off.
TEST_F(Threads, CyclesAndQueriesAtOnce)
{
    for (int round = 0; round < 8; ++round) {
        AnswerFetches(round < 6 ? -5 : 0);
        RunAtOnce({kCycles, kCycles, kQueries});
    }
}

// Whatever a cycle does between two calls of the driver, it does at the same time as whatever
// another does: a race detector finds each lock that is missing there.
TEST_F(Threads, EachPartOfACycleBesideEachOther)
{
    driver::CallInPairs(true);
    for (const int status : {-5, 0})
        for (const char* lead : {"lead = 0 ", "lead = 1 ", "lead = 2 "}) {
            AnswerFetches(status);
            RunAtOnce(
                {std::string("lead = 0 ") + kPairedCycles, lead + std::string(kPairedCycles)});
        }
    driver::CallInPairs(false);
}

}  // namespace
