// How often each call has failed in this process.
#include "api/Failures.h"

#include <atomic>

using namespace vxi;

namespace {

constexpr unsigned int kCalls = std::size(kCallNames);
std::atomic<std::uint64_t> s_counts[kCalls];

}  // namespace

void vxi::CountFailure(Call call)
{
    ++s_counts[static_cast<unsigned>(call)];
}

unsigned int vxi_failure_counts(vxi_failure_count_s* rows, unsigned int count)
{
    for (unsigned int i = 0; rows && i < std::min(count, kCalls); ++i) {
        rows[i] = {kCallNames[i], s_counts[i].load()};
    }
    return kCalls;
}
