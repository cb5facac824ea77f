// Speed of the connection feedback under Lua beside the same work in plain Lua, and how
// long its lock is held.

#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <string>

#include "LuaBench.h"
#include "Observations.h"

namespace {

using lua_bench::Call;
using lua_bench::Compile;

using Clock = std::chrono::steady_clock;

// Seconds that time(2) of this program is ahead.
std::atomic<std::time_t> s_ahead_s{0};

// While on, this thread's longest hold of a mutex.
struct Watch {
    bool on;
    int held;
    Clock::time_point since;
    Clock::duration longest;
};
thread_local Watch s_watch;

int Advance(lua_State*)
{
    s_ahead_s += 61;
    return 0;
}

// ---- feeding ---------------------------------------------------------------------------

// The store knows the keys up to `known`; keys `first` to `last` are fed. A script makes the
// key of an observation from what it saw: so it is a new string each time, made untimed.
void Feed(benchmark::State& state, const char* add, int known, int first, int last)
{
    const std::string function = add;
    const std::string range = std::to_string(first) + ", " + std::to_string(last);
    lua_bench::Run(("empty_stores() feed(" + function + ", keys(1, " + std::to_string(known) +
                    "), short_texts) collectgarbage()")
                       .c_str());
    lua_bench::MeasureAfter(state, ("fresh = keys(" + range + ")").c_str(),
                            ("local add, keys, texts = " + function +
                             ", fresh, short_texts "
                             "for i = 1, #keys do add(keys[i], texts[i], 1) end")
                                .c_str(),
                            last - first + 1);
}

constexpr const char* kModule = "filter.AddToConnMetrics";
constexpr const char* kPlain = "plain_add";

void AddFew(benchmark::State& state)
{
    Feed(state, kModule, 1000, 1, 1000);
}

void PlainAddFew(benchmark::State& state)
{
    Feed(state, kPlain, 1000, 1, 1000);
}

void AddMany(benchmark::State& state)
{
    Feed(state, kModule, 10000, 1, 10000);
}

void PlainAddMany(benchmark::State& state)
{
    Feed(state, kPlain, 10000, 1, 10000);
}

void AddRefused(benchmark::State& state)
{
    Feed(state, kModule, 10000, 20001, 21000);
}

void PlainAddRefused(benchmark::State& state)
{
    Feed(state, kPlain, 10000, 20001, 21000);
}

// ---- the report ------------------------------------------------------------------------

void Report(benchmark::State& state)
{
    lua_bench::MeasureAfter(state,
                            "rows = nil empty_stores() "
                            "feed(filter.AddToConnMetrics, all_keys, long_texts) publish() "
                            "collectgarbage()",
                            "rows = filter.GetConnMetrics()");
    lua_bench::Run("assert(#rows == 10000 and rows[10000].flags) rows = nil");
}

void PlainReport(benchmark::State& state)
{
    lua_bench::Run(
        "empty_stores() entries = {} "
        "for i = 1, #all_keys do entries[i] = {text = long_texts[i], count = 1} end");
    lua_bench::MeasureAfter(state, "rows = nil collectgarbage()", "rows = plain_rows(entries)");
    lua_bench::Run("assert(#rows == 10000 and rows[10000].flags) rows, entries = nil");
}

// ---- the lock --------------------------------------------------------------------------

// The longest hold during `chunk`, which begins with `prepare` done.
void MeasureHold(benchmark::State& state, const char* prepare, const char* chunk)
{
    const int prepared = Compile(prepare);
    const int compiled = Compile(chunk);
    for (auto _ : state) {
        Call(prepared);
        s_watch = {true, 0, {}, {}};
        Call(compiled);
        s_watch.on = false;
        if (s_watch.longest == Clock::duration::zero()) lua_bench::Die("no lock was seen");
        state.SetIterationTime(std::chrono::duration<double>(s_watch.longest).count());
    }
    luaL_unref(lua_bench::State(), LUA_REGISTRYINDEX, prepared);
    luaL_unref(lua_bench::State(), LUA_REGISTRYINDEX, compiled);
}

void PublishHold(benchmark::State& state)
{
    MeasureHold(state,
                "empty_stores() feed(filter.AddToConnMetrics, all_keys, short_texts) advance()",
                "filter.UpdateConnMetrics()");
}

void TakeHold(benchmark::State& state)
{
    MeasureHold(state,
                "empty_stores() feed(filter.AddToConnMetrics, all_keys, short_texts) publish()",
                "assert(#filter.GetConnMetrics() == 10000)");
}

BENCHMARK(AddFew)->UseManualTime()->Iterations(10);
BENCHMARK(PlainAddFew)->UseManualTime()->Iterations(10);
BENCHMARK(AddMany)->UseManualTime()->Iterations(1);
BENCHMARK(PlainAddMany)->UseManualTime()->Iterations(1);
BENCHMARK(AddRefused)->UseManualTime()->Iterations(10);
BENCHMARK(PlainAddRefused)->UseManualTime()->Iterations(10);
BENCHMARK(Report)->UseManualTime()->Iterations(1);
BENCHMARK(PlainReport)->UseManualTime()->Iterations(1);
BENCHMARK(PublishHold)->UseManualTime()->Iterations(1);
BENCHMARK(TakeHold)->UseManualTime()->Iterations(1);

}  // namespace

#define BENCH_EXPORT extern "C" __attribute__((visibility("default")))

BENCH_EXPORT std::time_t time(std::time_t* result) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += s_ahead_s;
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}

BENCH_EXPORT int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto next =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int status = next(mutex);
    if (s_watch.on && s_watch.held++ == 0) s_watch.since = Clock::now();
    return status;
}

BENCH_EXPORT int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto next =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    if (s_watch.on && --s_watch.held == 0)
        s_watch.longest = std::max(s_watch.longest, Clock::now() - s_watch.since);
    return next(mutex);
}

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    lua_bench::Open();
    lua_register(lua_bench::State(), "advance", Advance);
    lua_bench::Run(kObservations);
    benchmark::RunSpecifiedBenchmarks();
    lua_bench::Close();
    return 0;
}
