// Every allocation of reading flows and sockets fails in turn, and all that follow it.
#include <netinet/in.h>

#include "AllocationLimit.h"
#include "FlowTable.h"
#include "Network.h"
#include "Traffic.h"

namespace {

int CountFlows(vxi_handle_ops_s* handle)
{
    vxa_dump_conntrack_s count = conntrack_request();
    return vxi_get_conntrack(handle, &count, sizeof count, nullptr);
}

int CountStates(vxi_handle_ops_s* handle)
{
    vxa_get_conn_states_s states;
    return vxi_get_conn_states(handle, &states);
}

// A call fails with its cause or not at all, and leaves the handle usable.
void Sweep(int (*call)(vxi_handle_ops_s*))
{
    long allowed = 0;
    bool exhausted = true;
    for (; exhausted && allowed < 5000; ++allowed) {
        const driver::Handle handle = driver::Open();
        allocations::Allow(allowed);
        const int status = call(handle.get());
        exhausted = allocations::LiftLimit();
        EXPECT_EQ(status, exhausted ? -ENOMEM : 0) << allowed << ": " << driver::Error(handle);
        if (status != 0) {
            EXPECT_NE(driver::Error(handle).find(": out of memory"), std::string::npos);
            vxa_dump_conntrack_s head = conntrack_request(IPPROTO_TCP);
            EXPECT_EQ(vxi_get_conntrack(handle.get(), &head, sizeof head, nullptr), -ENODATA);
        }
        EXPECT_EQ(call(handle.get()), 0);
    }
    EXPECT_FALSE(exhausted);
    EXPECT_GT(allowed, 3) << "the sweep met no allocations";
}

NETWORK_TEST_WITH("conntrack", FlowAllocation, FailuresAreTold)
{
    const auto listener = traffic::Listen(traffic::Local(4, 8443));
    const auto clients = traffic::Attempt(traffic::Local(4, 8443), 20);
    Sweep(CountStates);
    Sweep(CountFlows);
    flows::Make("tcp", 300);
    Sweep(CountFlows);
}

}  // namespace
