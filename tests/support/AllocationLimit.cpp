// The failing allocator; see AllocationLimit.h.
#include "AllocationLimit.h"

#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local long s_left = -1;
thread_local bool s_failed = false;
thread_local bool s_limits_malloc = false;
thread_local std::size_t s_refused_from = SIZE_MAX;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMallocIsOurs = false;
#else
constexpr bool kMallocIsOurs = true;
#endif

bool IsRefused(std::size_t size, bool limited)
{
    const bool refused = (limited && s_left == 0) || size >= s_refused_from;
    s_failed |= limited && s_left == 0;
    if (limited && s_left > 0) --s_left;
    if (refused) errno = ENOMEM;
    return refused;
}

}  // namespace

void allocations::Allow(long count)
{
    s_left = count;
    s_failed = false;
    s_limits_malloc = false;
}

bool allocations::AllowMalloc(long count)
{
    Allow(count);
    s_limits_malloc = kMallocIsOurs;
    return kMallocIsOurs;
}

bool allocations::LiftLimit()
{
    s_left = -1;
    return s_failed;
}

bool allocations::RefuseFrom(std::size_t size)
{
    if (kMallocIsOurs) s_refused_from = size != 0 ? size : SIZE_MAX;
    return kMallocIsOurs;
}

// Inlined, the pairs look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block =
        IsRefused(0, !s_limits_malloc) ? nullptr : std::malloc(size != 0 ? size : 1);
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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

static bool IsMallocRefused(std::size_t size)
{
    return IsRefused(size, s_limits_malloc);
}

extern "C" {

void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

void* malloc(std::size_t size)
{
    return IsMallocRefused(size) ? nullptr : __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    return IsMallocRefused(count * size) ? nullptr : __libc_calloc(count, size);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return IsMallocRefused(size) ? nullptr : __libc_memalign(alignment, size);
}

// Lua relies on shrinking a block never failing.
void* realloc(void* block, std::size_t size)
{
    const bool fits = block && malloc_usable_size(block) >= size;
    return !fits && IsMallocRefused(size) ? nullptr : __libc_realloc(block, size);
}

}  // extern "C"

#endif
