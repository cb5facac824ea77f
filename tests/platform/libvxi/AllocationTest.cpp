// Every allocation fails in turn, and all that follow it: no exception reaches a caller of
// the C interface, and what failed says so.
#include "AllocationLimit.h"
#include "Fixture.h"

namespace {

struct Results {
    bool opened = false;
    char open_error[256] = "";
    int statuses[std::size(calls)] = {};
    char errors[std::size(calls)][256] = {};
    int fault_status = 0;
    int sim_status = 0;
};

void use_everything(Results& results)
{
    vxi_handle_ops_s* const handle = vxi_open();
    results.opened = handle != nullptr;
    std::strcpy(results.open_error, vxi_open_error());
    for (unsigned i = 0; i < std::size(calls); ++i) {
        results.statuses[i] = calls[i].make(handle);
        vxi_get_error(handle, results.errors[i], sizeof results.errors[i]);
    }
    Statistics stats;
    tb_dump_s sink{drop, nullptr};
    tb_dump_stats(&sink, &stats);
    results.fault_status = vxi_fault_script("vxi_open=-1:after=999:a text for the heap", nullptr);
    results.sim_status = vxi_sim_configure("scenario=busy:3/idle", nullptr);
    vxi_close(handle);
}

void check(const Results& results)
{
    if (!results.opened) {
        EXPECT_STREQ("std::bad_alloc", results.open_error);
        return;
    }
    for (unsigned i = 0; i < std::size(calls); ++i) {
        const int status = results.statuses[i];
        EXPECT_TRUE(status >= 0 || status == -ENOMEM) << calls[i].name << status;
        const bool told = std::strstr(results.errors[i], ": out of memory") != nullptr;
        EXPECT_TRUE(status >= 0 || told) << calls[i].name << results.errors[i];
    }
    for (const int status : {results.fault_status, results.sim_status}) {
        EXPECT_TRUE(status == 0 || status == -ENOMEM) << status;
    }
}

TEST(Allocation, FailuresAreToldByStatusAndText)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    ASSERT_TRUE(OpenHandle(vxi_open()));
    long allowed = 0;
    for (bool failed = true; failed && allowed < 5000; ++allowed) {
        const auto results = std::make_unique<Results>();
        allocations::Allow(allowed);
        use_everything(*results);
        failed = allocations::LiftLimit();
        ASSERT_EQ(0, vxi_fault_script("", nullptr));
        check(*results);
    }
    EXPECT_LT(allowed, 5000);
    EXPECT_GT(allowed, 20) << "the sweep met no allocations";
}

}  // namespace
