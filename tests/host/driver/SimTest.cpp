// The simulated machine repeats itself, behaves as its scenario says and stays inside the caller's
// buffers.
#include <algorithm>
#include <array>

#include "Fixture.h"
#include "api/Profiler.h"

namespace {

using Counters = std::vector<double>;

class Sim : public SimulatedMachine {
protected:
    std::vector<Counters> Run(const std::string& settings, unsigned ticks)
    {
        Configure(settings);
        EXPECT_EQ(0, MonitorPort(Driver(), kPort));
        std::vector<Counters> history;
        for (unsigned i = 0; i < ticks; ++i) {
            scan_metrics_request request = ScanRequest(kPort);
            EXPECT_EQ(0, vxi_get_scan_metrics(Driver(), &request, sizeof request));
            history.emplace_back(request.counter, request.counter + VXI_SCAN_COUNTERS);
        }
        return history;
    }
};

TEST_F(Sim, ASeedRepeatsItsHistory)
{
    const std::string settings = "scenario=busy:5/overloaded:5/recovering,seed=";
    const auto first = Run(settings + "7", 60);
    EXPECT_NE(first, Run(settings + "8", 60));
    EXPECT_EQ(first, Run(settings + "7", 60));
}

TEST_F(Sim, ScenariosBehaveLikeTheirNames)
{
    // Opened per CPU and second, percent refused, run queue, percent of memory free.
    const std::pair<const char*, std::array<double, 4>> cases[] = {
        {"idle", {0.5, 0, 0.4, 80}},           {"busy", {40, 1, 5.6, 45}},
        {"overloaded", {300, 35, 40, 4}},      {"closing", {40, 100, 5.6, 45}},
        {"recovering:100", {16, 31, 0.4, 80}},  // idle at the end
    };
    for (const auto& [scenario, expected] : cases) {
        const auto last = Run(std::string("interval_s=5,cpus=8,scenario=") + scenario, 300).back();
        const double opened = last[VXI_SCAN_NEW];
        vxi_sim_machine_s now;
        vxi_sim_machine(&now);
        const double free_mb = static_cast<double>(now.memory_free_kb) / 1024;
        const double actual[] = {opened / (300 * 5 * 8),
                                 last[VXI_SCAN_HALF_OPEN_CLOSED] / opened * 100,
                                 now.run_queue_length, free_mb / 8192 * 100};
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_NEAR(expected[i], actual[i], 0.12 * expected[i]) << scenario << i;
        }
    }
}

TEST_F(Sim, CountersRestart)
{
    const auto history = Run("scenario=restarting,restart_ticks=4", 20);
    for (unsigned i = 1; i < history.size(); ++i) {
        EXPECT_EQ(i % 4 == 0, history[i][VXI_SCAN_NEW] < history[i - 1][VXI_SCAN_NEW]) << i;
    }
}

TEST_F(Sim, FlowsStayInsideTheBuffer)
{
    struct {
        vxa_dump_conntrack_s header;
        vxa_conntrack_entry_s entries[3];
        unsigned char beyond[72];
    } block;
    std::memset(&block, 0xee, sizeof block);
    Configure("flows=1000000");
    block.header = ConntrackRequest();
    ASSERT_EQ(0, vxi_get_conntrack(Driver(), &block.header, 16, nullptr));
    EXPECT_EQ(65535, block.header.entry_ct);
    for (const std::uint8_t protocol : {6, 17}) {
        block.header = ConntrackRequest(protocol);
        block.header.entry_ct = 65535;  // more than the size, which ends inside an entry
        ASSERT_EQ(0, vxi_get_conntrack(Driver(), &block.header, 16 + 72 * 3 + 71, nullptr));
        EXPECT_EQ(3, block.header.entry_ct);
        EXPECT_EQ(protocol == 6 ? 800000U : 200000U, block.header.total);
        EXPECT_EQ(0xee, *std::min_element(std::begin(block.beyond), std::end(block.beyond)));
    }
}

TEST(Profiler, PausesNestAndEndWithTheLast)
{
    vxi_set_profiler(profiler_blockfilter, profiler_running);
    EXPECT_FALSE(vxi::SwitchProfiling(true));
    EXPECT_TRUE(vxi::ProfilingRuns());
    {
        const vxi::ProfilingPause pause;
        EXPECT_EQ(1, profiler_blockfilter(1)) << "suspended before";
        EXPECT_EQ(1, profiler_blockfilter(0));
        EXPECT_FALSE(vxi::ProfilingRuns());
        // Removing the hooks in between must not leave profiling suspended.
        vxi_set_profiler(nullptr, nullptr);
    }
    EXPECT_EQ(1, profiler_running());
    EXPECT_EQ(0, profiler_blockfilter(0)) << "resumed without a suspend";
    EXPECT_EQ(0, profiler_blockfilter(1));
    EXPECT_EQ(0, profiler_running());
    EXPECT_TRUE(vxi::ProfilingRuns()) << "no hook to ask";
    EXPECT_EQ(1, profiler_blockfilter(0));
    EXPECT_TRUE(vxi::SwitchProfiling(false));
    EXPECT_EQ(0, profiler_running());
}

}  // namespace
