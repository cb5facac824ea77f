// Every allocation of reading flows and sockets fails in turn, and all that follow it.
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "FlowTable.h"
#include "Network.h"
#include "Traffic.h"

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

// The sanitizer has an array form of its own.
[[gnu::noinline]] void* operator new[](std::size_t size)
{
    return operator new(size);
}

[[gnu::noinline]] void operator delete[](void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
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

int CountFlows(vxi_handle_ops_s* handle)
{
    vxa_dump_conntrack_s count = {};
    count.request = VXA_CONNTRACK_REQUEST_TABLE;
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
    for (exhausted = true; exhausted && allowed < 5000; ++allowed) {
        const driver::Handle handle = driver::Open();
        exhausted = false;
        allocations_left = allowed;
        const int status = call(handle.get());
        allocations_left = unlimited;
        EXPECT_EQ(status, exhausted ? -ENOMEM : 0) << allowed << ": " << driver::Error(handle);
        if (status != 0) {
            EXPECT_NE(driver::Error(handle).find(": out of memory"), std::string::npos);
            vxa_dump_conntrack_s head = {};
            head.request = VXA_CONNTRACK_REQUEST_TABLE;
            head.protocol = IPPROTO_TCP;
            EXPECT_EQ(vxi_get_conntrack(handle.get(), &head, sizeof head, nullptr), -ENODATA);
        }
        EXPECT_EQ(call(handle.get()), 0);
    }
    EXPECT_FALSE(exhausted);
    EXPECT_GT(allowed, 3) << "the sweep met no allocations";
}

TEST(FlowAllocation, FailuresAreTold)
{
    REQUIRE_NETWORK("conntrack");
    network::InOwn([] {
        const auto listener = traffic::Listen(traffic::Local(4, 8443));
        const auto clients = traffic::Attempt(traffic::Local(4, 8443), 20);
        Sweep(CountStates);
        Sweep(CountFlows);
        flows::Make("tcp", 300);
        Sweep(CountFlows);
    });
}

}  // namespace
