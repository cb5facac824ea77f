// The simulated machine: the same for a seed, true to its scenario, inside the caller's room.
#include "Fixture.h"
#include "api/Profiler.h"

namespace {

using Counters = std::vector<std::uint64_t>;

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

TEST_F(Sim, SameSeedSameHistory)
{
    const std::string settings = "scenario=busy:5/overloaded:5/recovering,seed=";
    const auto first = Run(settings + "7", 60);
    EXPECT_NE(first, Run(settings + "8", 60));
    EXPECT_EQ(first, Run(settings + "7", 60));
}

// Per CPU and second over many ticks, and the machine's own figures, lie where each
// scenario is meant to lie against the usual thresholds.
TEST_F(Sim, ScenariosLookLikeTheirNames)
{
    constexpr unsigned kTicks = 300;
    const struct {
        const char* scenario;
        // least and most of: opened, percent refused, run queue, percent of free memory
        double ranges[4][2];
    } cases[] = {
        {"idle", {{0.4, 0.6}, {0, 0}, {0.1, 1}, {70, 90}}},
        {"busy", {{38, 42}, {0.5, 2}, {4, 8}, {40, 50}}},
        {"overloaded", {{290, 310}, {34, 36}, {35, 50}, {3, 5}}},
        {"closing", {{38, 42}, {100, 100}, {4, 8}, {40, 50}}},
        {"recovering:100", {{10, 25}, {25, 35}, {0.1, 1}, {70, 90}}},  // recovered at the end
    };
    for (const auto& each : cases) {
        const std::string settings = std::string("interval_s=5,cpus=8,scenario=") + each.scenario;
        const Counters last = Run(settings, kTicks).back();
        vxi_sim_machine_s now;
        vxi_sim_machine(&now);
        const auto count = static_cast<double>(last[VXI_SCAN_NEW]);
        const double figures[] = {
            count / (kTicks * 5.0 * 8),
            static_cast<double>(last[VXI_SCAN_HALF_OPEN_CLOSED]) / count * 100,
            now.run_queue_length,
            static_cast<double>(now.memory_free_kb) / static_cast<double>(now.memory_total_kb) *
                100};
        for (unsigned i = 0; i < 4; ++i) {
            EXPECT_GE(figures[i], each.ranges[i][0]) << each.scenario << i;
            EXPECT_LE(figures[i], each.ranges[i][1]) << each.scenario << i;
        }
    }
}

TEST_F(Sim, CountersRestart)
{
    const auto history = Run("scenario=restarting,restart_ticks=4", 20);
    for (unsigned i = 1; i < history.size(); ++i) {
        const auto opened = history[i][VXI_SCAN_NEW];
        EXPECT_EQ(i % 4 == 0, opened < history[i - 1][VXI_SCAN_NEW]) << i;
    }
}

// Asks for more than there is room for, by a part of an entry.
TEST_F(Sim, FlowTablesStayInsideTheirRoom)
{
    const struct {
        unsigned flows;
        std::uint8_t protocol;
        std::uint16_t room, delivered;
        std::uint32_t total;
    } cases[] = {{0, 6, 3, 0, 0},
                 {50, 6, 3, 3, 40},
                 {50, 17, 60, 10, 10},
                 {1000000, 6, 32768, 32768, 800000}};
    for (const auto& each : cases) {
        Configure("flows=" + std::to_string(each.flows));
        vxa_dump_conntrack_s header = ConntrackRequest();
        ASSERT_EQ(0, vxi_get_conntrack(Driver(), &header, sizeof header, nullptr));
        std::vector<std::uint64_t> block(2 + 9 * (each.room + 1U), 0xeeeeeeeeeeeeeeeeU);
        auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
        *section = ConntrackRequest(each.protocol);
        section->entry_ct = 65535;
        const unsigned size = 16 + 72 * each.room + 71;
        ASSERT_EQ(0, vxi_get_conntrack(Driver(), section, size, nullptr)) << ErrorText(Driver());
        EXPECT_EQ(each.delivered, section->entry_ct);
        EXPECT_EQ(each.total, section->total);
        for (std::size_t i = 2 + 9U * section->entry_ct; i < block.size(); ++i) {
            ASSERT_EQ(0xeeeeeeeeeeeeeeeeU, block[i]);
        }
    }
}

TEST(Profiler, PausesNestAndEndWithTheLast)
{
    vxi_set_profiler(profiler_blockfilter, profiler_running);
    EXPECT_FALSE(vxi::SwitchProfiling(true));
    EXPECT_TRUE(vxi::ProfilingRuns());
    {
        const vxi::ProfilingPause outer;
        EXPECT_EQ(1, profiler_blockfilter(1)) << "suspended before";
        EXPECT_EQ(1, profiler_blockfilter(0));
        EXPECT_FALSE(vxi::ProfilingRuns());
        // Taking the hooks away in between must not leave profiling suspended for good.
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
