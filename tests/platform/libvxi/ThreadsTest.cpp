// Handles on several threads while faults, engine and settings change under them. What can
// be asserted is little; the run under ThreadSanitizer is the point.
#include <atomic>
#include <thread>

#include "Fixture.h"

namespace {

void use_one_handle()
{
    const OpenHandle handle(vxi_open());
    if (!handle) {
        return;
    }
    for (const auto& call : calls) {
        const int status = call.make(handle.get());
        // New settings take the monitored port away.
        EXPECT_TRUE(status >= 0 || status == -5 || status == -ENOENT) << error_text(handle.get());
    }
    Statistics stats;
    tb_dump_s sink{drop, nullptr};
    tb_dump_stats(&sink, &stats);
}

TEST(Threads, HandlesWorkWhileFaultsAndSettingsChange)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    std::atomic<bool> done{false};
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([&done] {
            do {
                use_one_handle();
            } while (!done);
        });
    }
    for (int i = 0; i < 200; ++i) {
        vxi_fault_script(i % 2 ? "vxi_get_conn_states=-5:after=3,vxi_open=-1:once" : "", nullptr);
        vxi_sim_configure(i % 3 ? "flows=10" : "flows=20,blacklist=3", nullptr);
        vxi_set_profiler(i % 2 ? profiler_blockfilter : nullptr, profiler_running);
    }
    done = true;
    for (std::thread& user : users) {
        user.join();
    }
    vxi_set_profiler(nullptr, nullptr);
    vxi_fault_script(nullptr, nullptr);
}

}  // namespace
