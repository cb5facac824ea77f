// Every allocation fails in turn, and all that follow it: no exception reaches a caller of
// the C interface, and what failed says so.
#include <cerrno>
#include <cstdlib>
#include <new>

#include "Fixture.h"

namespace {

constexpr long unlimited = -1;
long allocations_left = unlimited;
bool exhausted = false;

}  // namespace

// Inlined, the pairs look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    if (allocations_left == 0) {
        exhausted = true;
        throw std::bad_alloc();
    }
    allocations_left -= allocations_left > 0;
    void* const block = std::malloc(size ? size : 1);
    return block ? block : throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

namespace {

void drop(tb_dump_s*, const char*, ...) {}

struct Results {
    bool opened = false;
    char open_error[256] = "";
    int statuses[8] = {};
    char errors[8][256] = {};
};

void use_everything(vxa_stats_v2_s* stats, scan_monitor_config* config, Results& results)
{
    vxi_handle_ops_s* const handle = vxi_open();
    results.opened = handle != nullptr;
    std::strcpy(results.open_error, vxi_open_error());
    tb_dump_s sink{drop, nullptr};
    vxa_dump_conntrack_s section{};
    section.request = VXA_CONNTRACK_REQUEST_TABLE;
    vxa_blacklist_get_addrs_s list{};
    std::uint32_t profile = 0;
    scan_metrics_request request = scan_request(80);
    int call = 0;
    const auto note = [&](int status) {
        results.statuses[call] = status;
        vxi_get_error(handle, results.errors[call++], sizeof results.errors[0]);
    };
    note(vxi_get_stats(handle, stats, sizeof *stats));
    tb_dump_stats(&sink, stats);
    note(vxi_get_conntrack(handle, &section, sizeof section, nullptr));
    note(vxi_get_blacklist(handle, &list));
    note(vxi_get_profile_stats(handle, &profile));
    note(vxi_set_scan_monitoring(handle, config));
    note(vxi_get_scan_metrics(handle, &request, sizeof request));
    results.statuses[call++] =
        vxi_fault_script("vxi_open=-1:after=999:a text for the heap", nullptr);
    results.statuses[call++] = vxi_sim_configure("scenario=busy:3/idle", nullptr);
    vxi_close(handle);
}

TEST(Allocation, FailuresAreToldByStatusAndText)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    ASSERT_TRUE(OpenHandle(vxi_open()));
    const auto stats = stats_record();
    const auto config = scan_config(80);
    long allowed = 0;
    for (exhausted = true; exhausted && allowed < 5000; ++allowed) {
        auto results = std::make_unique<Results>();
        exhausted = false;
        allocations_left = allowed;
        use_everything(stats.get(), config.get(), *results);
        allocations_left = unlimited;
        ASSERT_EQ(0, vxi_fault_script("", nullptr));
        if (!results->opened) {
            EXPECT_STREQ("std::bad_alloc", results->open_error);
            continue;
        }
        for (int call = 0; call < 8; ++call) {
            const int status = results->statuses[call];
            EXPECT_TRUE(status == 0 || status == -ENOMEM) << call << ": " << status;
            const bool told = std::strstr(results->errors[call], ": out of memory") != nullptr;
            EXPECT_TRUE(call >= 6 || status == 0 || told) << results->errors[call];
        }
    }
    EXPECT_FALSE(exhausted);
    EXPECT_GT(allowed, 20) << "the sweep met no allocations";
}

}  // namespace
