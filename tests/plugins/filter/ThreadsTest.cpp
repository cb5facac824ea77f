// Two Lua states on two threads: cycles and queries at once.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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
            assert(ok and #metrics == 7 and metrics[7].cpu_count == 4)
            -- Both thresholds stem from one policy, or from none.
            local runq, free = metrics[1].threshold, metrics[5].threshold
            assert(runq == free or runq == 50 and free == 100, runq .. ' ' .. free)
        end
        filter.setup_tbtrace(handle)
    end
)";

TEST(Threads, CyclesAndQueriesAtOnce)
{
    const FakeMachine machine;
    LuaHost cycles;
    LuaHost more_cycles;
    LuaHost queries;
    for (LuaHost* host : {&cycles, &more_cycles, &queries})
        ASSERT_EQ(
            host->Run(std::string(kLoadModules) + "vxa.log_to('/dev/null') vxa.trace('*', true)"),
            "");
    // While fetches fail, every cycle configures the port again and switches thresholds off. The
    // moments in which a lock is missed are short: fewer rounds often see none.
    for (int round = 0; round < 16; ++round) {
        driver::Answers answers;
        answers.statuses["get_scan_metrics"] = {round < 12 ? -5 : 0};
        driver::SetAnswers(answers);
        std::string errors[3];
        std::thread first([&] { errors[0] = cycles.Run(kCycles); });
        std::thread second([&] { errors[1] = more_cycles.Run(kCycles); });
        std::thread third([&] { errors[2] = queries.Run(kQueries); });
        first.join();
        second.join();
        third.join();
        for (const std::string& error : errors) EXPECT_EQ(error, "");
    }
}

}  // namespace
