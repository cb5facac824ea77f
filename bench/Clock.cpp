// Wall clock that a benchmark can set ahead.

#include "Clock.h"

#include <atomic>
#include <ctime>

#include "Interpose.h"

namespace {

std::atomic<std::time_t> s_ahead_s{0};

}  // namespace

int AdvanceClock(lua_State*)
{
    s_ahead_s += 61;
    return 0;
}

BENCH_INTERPOSE std::time_t time(std::time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += s_ahead_s;
    if (result) *result = now.tv_sec;
    return now.tv_sec;
}
