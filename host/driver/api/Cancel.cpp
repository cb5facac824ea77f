// Keeps the host's cancel check.
#include "api/Cancel.h"

#include <atomic>
#include <cerrno>

#include "api/Error.h"
#include "vxi/engine.h"

namespace vxi {

namespace {

std::atomic<int (*)(void)> cancel_check{nullptr};

}  // namespace

void ThrowIfCancelled(const char* source)
{
    const auto check = cancel_check.load(std::memory_order_relaxed);
    if (check && check() != 0) {
        ThrowError(-ECANCELED, "%s: %s", source, DescribeStatus(-ECANCELED).c_str());
    }
}

}  // namespace vxi

void vxi_set_cancel_check(int (*check)(void))
{
    vxi::cancel_check.store(check);
}
