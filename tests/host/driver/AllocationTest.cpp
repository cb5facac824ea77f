// Every allocation fails in turn, and all that follow it: no exception reaches a caller of
// the C interface, and what failed says so.
#include <thread>

#include "AllocationLimit.h"
#include "Fixture.h"

namespace {

struct Results {
    char open_error[256] = "";
    int statuses[std::size(kCalls) + 2] = {};
    char errors[std::size(kCalls) + 2][256] = {};
};

void Drop(tb_dump_s*, const char*, ...) {}

bool UseEverything(Results& results)
{
    vxi_handle_ops_s* const handle = vxi_open();
    std::strcpy(results.open_error, vxi_open_error());
    unsigned i = 0;
    for (const Call& call : kCalls) {
        results.statuses[i] = call.Make(handle);
        vxi_get_error(handle, results.errors[i++], sizeof results.errors[0]);
    }
    Statistics stats;
    tb_dump_s sink{Drop, nullptr};
    tb_dump_stats(&sink, &stats);
    results.statuses[i++] = vxi_fault_script("vxi_open=-1:after=999:a text of the heap", nullptr);
    results.statuses[i] = vxi_sim_configure("scenario=busy:3/idle", nullptr);
    vxi_close(handle);
    return handle != nullptr;
}

TEST(Allocation, FailuresAreToldByStatusAndText)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    ASSERT_TRUE(OpenHandle(vxi_open()));
    long allowed = 0;
    for (bool failed = true; failed && allowed < 5000; ++allowed) {
        const auto results = std::make_unique<Results>();
        bool opened = false;
        std::thread([&] {  // a new one: what a thread's first calls need can be missing
            static_cast<void>(allocations::AllowMalloc(allowed));
            opened = UseEverything(*results);
            failed = allocations::LiftLimit();
        })
            .join();
        ASSERT_EQ(0, vxi_fault_script("", nullptr));
        EXPECT_STREQ(opened ? "" : "std::bad_alloc", results->open_error);
        for (unsigned i = 0; opened && i < std::size(results->statuses); ++i) {
            const int status = results->statuses[i];
            EXPECT_TRUE(status >= 0 || status == -ENOMEM) << i << ": " << status;
            EXPECT_TRUE(status >= 0 || i >= std::size(kCalls) ||
                        std::strstr(results->errors[i], ": out of memory"))
                << kCalls[i].name << results->errors[i];
        }
    }
    EXPECT_LT(allowed, 5000);
    EXPECT_GT(allowed, 20) << "the sweep met no allocations";
}

}  // namespace
