// Heap memory of connection feedback: one full store, and the peak while it is published and
// reported. Lua's own allocations are not counted. Prints one JSON object.

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "Clock.h"
#include "Interpose.h"
#include "LuaBench.h"

namespace {

std::atomic<long> s_live{0};
std::atomic<long> s_peak{0};

void* Count(void* block)
{
    if (!block) return nullptr;
    const long live = s_live += static_cast<long>(malloc_usable_size(block));
    if (live > s_peak) s_peak = live;
    return block;
}

void Discount(void* block)
{
    if (block) s_live -= static_cast<long>(malloc_usable_size(block));
}

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

BENCH_INTERPOSE void* malloc(std::size_t size)
{
    return Count(__libc_malloc(size));
}

BENCH_INTERPOSE void* calloc(std::size_t count, std::size_t size)
{
    return Count(__libc_calloc(count, size));
}

BENCH_INTERPOSE void* realloc(void* block, std::size_t size)
{
    Discount(block);
    void* const moved = __libc_realloc(block, size);
    return Count(moved || size == 0 ? moved : block) == moved ? moved : nullptr;
}

BENCH_INTERPOSE void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return Count(__libc_memalign(alignment, size));
}

BENCH_INTERPOSE void free(void* block)
{
    Discount(block);
    __libc_free(block);
}

namespace {

// Allocator for Lua.
void* AllocateUncounted(void*, void* block, std::size_t, std::size_t size)
{
    if (size != 0) return __libc_realloc(block, size);
    __libc_free(block);
    return nullptr;
}

}  // namespace

int main()
{
    lua_bench::Open(lua_newstate(AllocateUncounted, nullptr));
    lua_register(lua_bench::State(), "advance", AdvanceClock);
    lua_bench::Run(
        "o = require 'observations' "
        "function fill() o.feed(filter.AddToConnMetrics, o.all_keys, o.long_texts) end");
    // A first round makes the allocations that stay.
    lua_bench::Run("o.empty_stores() fill() o.empty_stores()");
    const long before = s_live;
    lua_bench::Run("fill()");
    const long store = s_live - before;
    s_peak = s_live.load();
    lua_bench::Run("o.publish() assert(#filter.GetConnMetrics() == 10000)");
    std::printf("{\"store\": %ld, \"peak\": %ld, \"left\": %ld}\n", store, s_peak - before,
                s_live - before);
    return 0;
}
