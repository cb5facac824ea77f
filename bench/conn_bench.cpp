// Benchmarks of connection feedback: its functions against the same work in plain Lua, and how long
// its lock is held.

#include <dlfcn.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "Clock.h"
#include "Interpose.h"
#include "LuaBench.h"

namespace {

using lua_bench::Call;
using lua_bench::Compile;

using Clock = std::chrono::steady_clock;

// The longest time for which this thread held a mutex while `on`.
struct LockWatch {
    bool on;
    int held;
    Clock::time_point since;
    Clock::duration longest;
};
thread_local LockWatch s_watch;

// ---- feeding ---------------------------------------------------------------------------

// Measures feeding the keys `first` to `last` where the store has the keys 1 to `known`. Makes new
// strings for the keys each time, untimed, as a script does for each observation.
void Feed(benchmark::State& state, const char* add, int known, int first, int last)
{
    const std::string function = add;
    const std::string range = std::to_string(first) + ", " + std::to_string(last);
    const std::string setup = "o.empty_stores() o.feed(" + function + ", o.keys(1, " +
                              std::to_string(known) + "), o.short_texts) collectgarbage()";
    const std::string prepare = "keys = o.keys(" + range + ")";
    const std::string chunk = "o.feed(" + function + ", keys, o.short_texts)";
    lua_bench::Run(setup.c_str());
    lua_bench::MeasureAfter(state, prepare.c_str(), chunk.c_str(), last - first + 1);
}

constexpr const char* kModule = "filter.AddToConnMetrics";
constexpr const char* kPlain = "plain.add";

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
                            "rows = nil o.empty_stores() "
                            "o.feed(filter.AddToConnMetrics, o.all_keys, o.long_texts) "
                            "o.publish() collectgarbage()",
                            "rows = filter.GetConnMetrics()");
    lua_bench::Run("assert(#rows == 10000 and rows[10000].flags) rows = nil");
}

void PlainReport(benchmark::State& state)
{
    lua_bench::Run(
        "o.empty_stores() entries = {} "
        "for i = 1, #o.all_keys do entries[i] = {text = o.long_texts[i], count = 1} end");
    lua_bench::MeasureAfter(state, "rows = nil collectgarbage()", "rows = plain.rows(entries)");
    lua_bench::Run("assert(#rows == 10000 and rows[10000].flags) rows, entries = nil");
}

// ---- the lock --------------------------------------------------------------------------

// Measures the longest hold of a mutex during `chunk`, with `prepare` run before it.
void MeasureHold(benchmark::State& state, const char* prepare, const char* chunk)
{
    const int prepared = Compile(prepare);
    const int compiled = Compile(chunk);
    for (auto _ : state) {
        Call(prepared);
        s_watch = {true, 0, {}, {}};
        Call(compiled);
        s_watch.on = false;
        if (s_watch.longest == Clock::duration::zero()) lua_bench::Die("no mutex was locked");
        state.SetIterationTime(std::chrono::duration<double>(s_watch.longest).count());
    }
    luaL_unref(lua_bench::State(), LUA_REGISTRYINDEX, prepared);
    luaL_unref(lua_bench::State(), LUA_REGISTRYINDEX, compiled);
}

void PublishHold(benchmark::State& state)
{
    MeasureHold(state,
                "o.empty_stores() o.feed(filter.AddToConnMetrics, o.all_keys, o.short_texts) "
                "advance()",
                "filter.UpdateConnMetrics()");
}

void TakeHold(benchmark::State& state)
{
    MeasureHold(state,
                "o.empty_stores() o.feed(filter.AddToConnMetrics, o.all_keys, o.short_texts) "
                "o.publish()",
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

BENCH_INTERPOSE int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static const auto kNext =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
    const int status = kNext(mutex);
    if (s_watch.on && s_watch.held++ == 0) s_watch.since = Clock::now();
    return status;
}

BENCH_INTERPOSE int pthread_mutex_unlock(pthread_mutex_t* mutex) noexcept
{
    static const auto kNext =
        reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_unlock"));
    if (s_watch.on && --s_watch.held == 0)
        s_watch.longest = std::max(s_watch.longest, Clock::now() - s_watch.since);
    return kNext(mutex);
}

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    lua_bench::Open();
    lua_register(lua_bench::State(), "advance", AdvanceClock);
    lua_bench::Run("o, plain = require 'observations', require 'plain_feedback'");
    benchmark::RunSpecifiedBenchmarks();
    lua_bench::Close();
    return 0;
}
