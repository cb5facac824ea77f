// Heap of the connection feedback: one full store, and the peak over its publication and
// report. What Lua allocates is not counted. Prints one JSON object.

#include <malloc.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "LuaBench.h"
#include "Observations.h"

namespace {

std::atomic<long> s_live{0};
std::atomic<long> s_peak{0};
std::time_t s_ahead_s = 0;

void* Count(void* block)
{
    if (block == nullptr) return nullptr;
    const long live = s_live += static_cast<long>(malloc_usable_size(block));
    if (live > s_peak) s_peak = live;
    return block;
}

void Discount(void* block)
{
    if (block != nullptr) s_live -= static_cast<long>(malloc_usable_size(block));
}

int Advance(lua_State*)
{
    s_ahead_s += 61;
    return 0;
}

}  // namespace

#define BENCH_EXPORT extern "C" __attribute__((visibility("default")))

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

BENCH_EXPORT void* malloc(std::size_t size)
{
    return Count(__libc_malloc(size));
}

BENCH_EXPORT void* calloc(std::size_t count, std::size_t size)
{
    return Count(__libc_calloc(count, size));
}

BENCH_EXPORT void* realloc(void* block, std::size_t size)
{
    Discount(block);
    void* const moved = __libc_realloc(block, size);
    return Count(moved != nullptr || size == 0 ? moved : block) == moved ? moved : nullptr;
}

BENCH_EXPORT void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return Count(__libc_memalign(alignment, size));
}

BENCH_EXPORT void free(void* block)
{
    Discount(block);
    __libc_free(block);
}

BENCH_EXPORT std::time_t time(std::time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += s_ahead_s;
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

namespace {

void* Uncounted(void*, void* block, std::size_t, std::size_t size)
{
    if (size != 0) return __libc_realloc(block, size);
    __libc_free(block);
    return nullptr;
}

}  // namespace

int main()
{
    lua_bench::Open(lua_newstate(Uncounted, nullptr));
    lua_register(lua_bench::State(), "advance", Advance);
    lua_bench::Run(kObservations);
    // Once before, so that what is allocated for good is there.
    lua_bench::Run(
        "empty_stores() feed(filter.AddToConnMetrics, all_keys, long_texts) "
        "empty_stores()");
    const long before = s_live;
    lua_bench::Run("feed(filter.AddToConnMetrics, all_keys, long_texts)");
    const long store = s_live - before;
    s_peak = s_live.load();
    lua_bench::Run("publish() assert(#filter.GetConnMetrics() == 10000)");
    std::printf("{\"store\": %ld, \"peak\": %ld, \"left\": %ld}\n", store, s_peak - before,
                s_live - before);
    return 0;
}
