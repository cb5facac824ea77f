#include "AllocationLimit.h"

#include <cstdlib>
#include <new>

namespace {

long s_left = -1;
bool s_failed = false;

}  // namespace

void allocations::Allow(long count)
{
    s_left = count;
    s_failed = false;
}

bool allocations::LiftLimit()
{
    s_left = -1;
    return s_failed;
}

// Inlined, the pairs look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    s_failed |= s_left == 0;
    void* const block = s_left == 0 ? nullptr : std::malloc(size != 0 ? size : 1);
    s_left -= s_left > 0;
    return block != nullptr ? block : throw std::bad_alloc();
}

// A sanitizer has array forms of its own.
[[gnu::noinline]] void* operator new[](std::size_t size)
{
    return operator new(size);
}

[[gnu::noinline]] void operator delete(void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block) noexcept
{
    std::free(block);
}

[[gnu::noinline]] void operator delete[](void* block, std::size_t) noexcept
{
    std::free(block);
}
