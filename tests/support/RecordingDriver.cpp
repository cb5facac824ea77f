#include "RecordingDriver.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <utility>

struct vxi_handle_ops_s {
    int unused;
};

namespace driver {
namespace {

// Never destroyed: the plugin may still call while the process exits.
struct State {
    std::mutex mutex;
    Answers answers;
    std::vector<Call> calls;
    TraceHandler handler = nullptr;
    int profiler_installations = 0;
    int profiler_calls = 0;
    vxi_handle_ops_s handle{};
};

State& state()
{
    static State* const state = new State;
    return *state;
}

std::atomic<std::uint64_t> s_now_us{0};

Answers Record(const char* name, const vxi_handle_ops_s* handle, const void* bytes = nullptr,
               std::size_t size = 0, long number = 0)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    const std::string record(static_cast<const char*>(bytes), size);
    state().calls.push_back({name, record, number, handle == nullptr});
    return state().answers;
}

void Fill(scan_metrics_request* request, const Answers& answers)
{
    request->counters = answers.counters;
    request->entries = answers.entries;
    std::copy(answers.values.begin(), answers.values.end(), request->counter);
}

}  // namespace

void SetAnswers(const Answers& answers)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().answers = answers;
}

std::vector<Call> TakeCalls()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return std::exchange(state().calls, {});
}

void SetClock(std::uint64_t now_us)
{
    s_now_us = now_us;
}

TraceHandler InstalledTraceHandler()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().handler;
}

int ProfilerInstallations()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().profiler_installations;
}

int ProfilerCalls()
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().profiler_calls;
}

}  // namespace driver

using driver::Fill;
using driver::Record;
using driver::state;

vxi_handle_ops_s* vxi_open(void)
{
    return Record("open", &state().handle).opens ? &state().handle : nullptr;
}

void vxi_close(vxi_handle_ops_s* handle)
{
    Record("close", handle);
}

int vxi_get_error(vxi_handle_ops_s* handle, char* buffer, unsigned int size)
{
    const driver::Answers answers = Record("get_error", handle, nullptr, 0, size);
    std::snprintf(buffer, size, "%s", answers.error.c_str());
    return 0;
}

int vxi_set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config)
{
    return Record("set_scan_monitoring", handle, config, sizeof *config).set_status;
}

int vxi_get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                         unsigned int length)
{
    const driver::Answers answers =
        Record("get_scan_metrics", handle, request, sizeof *request, length);
    Fill(request, answers);
    return answers.get_status;
}

void vxi_set_trace_level(vxi_handle_ops_s* handle, int level)
{
    Record("set_trace_level", handle, nullptr, 0, level);
}

void vxi_set_trace_handler(vxi_handle_ops_s* handle, driver::TraceHandler handler)
{
    Record("set_trace_handler", handle);
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().handler = handler;
}

int profiler_blockfilter(int)
{
    return 0;
}

int profiler_running(void)
{
    return 0;
}

void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running running)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    ++state().profiler_calls;
    if (blockfilter == profiler_blockfilter && running == profiler_running)
        ++state().profiler_installations;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval* now,
                                                                   void*) noexcept
{
    const std::uint64_t fixed_us = driver::s_now_us;
    if (fixed_us != 0) {
        *now = {static_cast<time_t>(fixed_us / 1000000),
                static_cast<suseconds_t>(fixed_us % 1000000)};
        return 0;
    }
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    *now = {real.tv_sec, static_cast<suseconds_t>(real.tv_nsec / 1000)};
    return 0;
}
