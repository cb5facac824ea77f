#include "AllocationLimit.h"

#include <malloc.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

struct Limit {
    long left = -1;
    bool failed = false;

    bool Refuses()
    {
        failed |= left == 0;
        if (left > 0) return left-- == 0;
        return left == 0;
    }
};

Limit s_new;
Limit s_malloc;

bool Lift(Limit& limit)
{
    limit.left = -1;
    return limit.failed;
}

}  // namespace

void allocations::Allow(long count)
{
    s_new = {count, false};
}

bool allocations::LiftLimit()
{
    return Lift(s_new);
}

// Inlined, the pairs look mismatched to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = s_new.Refuses() ? nullptr : std::malloc(size != 0 ? size : 1);
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)

bool allocations::AllowMalloc(long)
{
    return false;  // the sanitizer's own must stay
}

bool allocations::LiftMallocLimit()
{
    return false;
}

bool allocations::RefuseFrom(std::size_t)
{
    return false;
}

#else

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

static std::size_t s_refused_from = 0;

static bool MallocFails(std::size_t size)
{
    const bool too_large = s_refused_from != 0 && size >= s_refused_from;
    if (!s_malloc.Refuses() && !too_large) return false;
    errno = ENOMEM;
    return true;
}

bool allocations::AllowMalloc(long count)
{
    s_malloc = {count, false};
    return true;
}

bool allocations::LiftMallocLimit()
{
    return Lift(s_malloc);
}

bool allocations::RefuseFrom(std::size_t size)
{
    s_refused_from = size;
    return true;
}

extern "C" void* malloc(std::size_t size)
{
    return MallocFails(size) ? nullptr : __libc_malloc(size);
}

extern "C" void* calloc(std::size_t count, std::size_t size)
{
    return MallocFails(count * size) ? nullptr : __libc_calloc(count, size);
}

// Lua relies on it that a block can be made smaller.
extern "C" void* realloc(void* block, std::size_t size)
{
    const bool fits = block != nullptr && malloc_usable_size(block) >= size;
    return !fits && MallocFails(size) ? nullptr : __libc_realloc(block, size);
}

#endif
