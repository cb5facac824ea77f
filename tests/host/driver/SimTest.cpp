// The simulated machine repeats itself, follows its scenario and respects the caller's buffers.
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
    const struct {
        const char* scenario;
        double opened, refused_percent, run_queue;  // opened per CPU and second
    } cases[] = {{"idle", 0.5, 0, 0.4},
                 {"busy", 40, 1, 5.6},
                 {"overloaded", 300, 35, 40},
                 {"closing", 40, 100, 5.6},
                 {"recovering:100", 16, 31, 0.4}};  // idle at the end
    for (const auto& [scenario, opened, refused_percent, run_queue] : cases) {
        const auto last = Run(std::string("interval_s=5,cpus=8,scenario=") + scenario, 300).back();
        const double refused = last[VXI_SCAN_HALF_OPEN_CLOSED] / last[VXI_SCAN_NEW];
        vxi_sim_machine_s now;
        vxi_sim_machine(&now);
        EXPECT_NEAR(1, last[VXI_SCAN_NEW] / (300 * 5 * 8) / opened, 0.12) << scenario;
        EXPECT_NEAR(refused_percent, refused * 100, refused_percent * 0.12) << scenario;
        EXPECT_NEAR(1, now.run_queue_length / run_queue, 0.12) << scenario;
    }
}

TEST_F(Sim, CountersRestart)
{
    const auto history = Run("scenario=restarting,restart_ticks=4", 20);
    for (unsigned i = 1; i < history.size(); ++i) {
        EXPECT_EQ(i % 4 == 0, history[i][VXI_SCAN_NEW] < history[i - 1][VXI_SCAN_NEW]) << i;
    }
}

TEST_F(Sim, StatisticsHaveWhatIsNotCounted)
{
    Run("uncounted=7", 3);
    Statistics stats;
    EXPECT_EQ(0, vxi_get_stats(Driver(), &stats, sizeof stats));
    EXPECT_EQ(21u, stats.area2[11]);
}

TEST_F(Sim, FlowsStayInsideTheBuffer)
{
    struct {
        vxa_dump_conntrack_s header = ConntrackRequest();
        vxa_conntrack_entry_s entries[3];
        vxa_conntrack_entry_s beyond{};
    } block;
    Configure("flows=1000000");
    ASSERT_EQ(0, vxi_get_conntrack(Driver(), &block.header, 16, nullptr));
    EXPECT_EQ(65535, block.header.entry_ct);
    block.header = ConntrackRequest(6);
    block.header.entry_ct = 65535;  // more than the size, which ends inside an entry
    ASSERT_EQ(0, vxi_get_conntrack(Driver(), &block.header, 16 + 72 * 3 + 71, nullptr));
    EXPECT_EQ(3, block.header.entry_ct);
    EXPECT_EQ(800000U, block.header.total);
    EXPECT_EQ(0, block.beyond.family);
}

TEST(Profiler, PausesNestAndEndWithTheLast)
{
    vxi_set_profiler(profiler_blockfilter, profiler_running);
    EXPECT_FALSE(vxi::SetProfiling(true));
    {
        const vxi::ProfilingPause pause;
        EXPECT_EQ(1, profiler_blockfilter(1)) << "suspended before";
        EXPECT_EQ(1, profiler_blockfilter(0));
        EXPECT_EQ(0, profiler_running());
        // Removing the hooks in between must not leave profiling suspended.
        vxi_set_profiler(nullptr, nullptr);
    }
    EXPECT_EQ(1, profiler_running());
    EXPECT_EQ(0, profiler_blockfilter(0)) << "resumed without a suspend";
    EXPECT_EQ(0, profiler_blockfilter(1));
    EXPECT_EQ(0, profiler_running());
    EXPECT_EQ(1, profiler_blockfilter(0));
    EXPECT_TRUE(vxi::SetProfiling(false));
}

}  // namespace
