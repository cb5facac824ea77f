// Every allocation fails in turn, with all that follow it: each call that fails returns -ENOMEM.
#include <thread>

#include "AllocationLimit.h"
#include "Fixture.h"

namespace {

void Discard(tb_dump_s*, const char*, ...) {}

// Returns the first call that failed without reporting that memory ran out. Allocates nothing.
const char* UseEverything()
{
    const OpenHandle handle(vxi_open());
    if (!handle) {
        return std::strcmp(vxi_open_error(), "std::bad_alloc") == 0 ? nullptr : "vxi_open";
    }
    for (const Call& call : kCalls) {
        char error[256];
        const int status = call.Make(handle.get());
        vxi_get_error(handle.get(), error, sizeof error);
        if (status < 0 && (status != -ENOMEM || !std::strstr(error, ": out of memory"))) {
            return call.name;
        }
    }
    tb_dump_stats(Pointer(tb_dump_s{Discard, nullptr}), Pointer(Statistics()));
    const int settings[] = {vxi_fault_script("vxi_open=-1:after=999:on the heap", nullptr),
                            vxi_sim_configure("scenario=busy:3/idle", nullptr)};
    return settings[0] % -ENOMEM || settings[1] % -ENOMEM ? "settings" : nullptr;
}

TEST(Allocation, FailuresAreReported)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    ASSERT_TRUE(OpenHandle(vxi_open()));
    long allowed = 0;
    for (bool failed = true; failed && allowed < 5000; ++allowed) {
        std::thread([&] {  // a new one: a thread's first calls allocate, too
            static_cast<void>(allocations::AllowMalloc(allowed));
            const char* const misreported = UseEverything();
            failed = allocations::LiftLimit();
            EXPECT_STREQ(nullptr, misreported) << allowed;
        })
            .join();
        ASSERT_EQ(0, vxi_fault_script("", nullptr));
    }
    EXPECT_LT(allowed, 5000);
    EXPECT_GT(allowed, 20) << "the sweep met no allocations";
}

}  // namespace
