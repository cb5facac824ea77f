#include "api/Cancel.h"

#include <atomic>

#include "vxi/engine.h"

namespace vxi {

namespace {

std::atomic<int (*)(void)> cancel_check{nullptr};

}  // namespace

bool IsCancelled()
{
    const auto check = cancel_check.load(std::memory_order_relaxed);
    return check && check() != 0;
}

}  // namespace vxi

void vxi_set_cancel_check(int (*check)(void))
{
    vxi::cancel_check.store(check);
}
