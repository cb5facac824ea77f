#include "RecordingDriver.h"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
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
    std::map<std::string, std::size_t> made;  // since the answers were set
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

struct Reply : Answers {
    int status;
    std::size_t nth;  // call of this name, from 0
};

Reply Record(const char* name, const vxi_handle_ops_s* handle, const void* bytes = nullptr,
             std::size_t size = 0, long number = 0, const void* extra = nullptr)
{
    const std::lock_guard<std::mutex> lock(state().mutex);
    const std::string record(static_cast<const char*>(bytes), size);
    state().calls.push_back({name, record, number, handle == nullptr, bytes, extra});
    const std::size_t nth = state().made[name]++;
    const auto statuses = state().answers.statuses.find(name);
    const bool told = statuses != state().answers.statuses.end() && nth < statuses->second.size();
    return {state().answers, told ? statuses->second[nth] : 0, nth};
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
    state().made.clear();
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
    try {
        Record("close", handle);
    } catch (const std::bad_alloc&) {
        // Closing never fails.
    }
}

int vxi_get_error(vxi_handle_ops_s* handle, char* buffer, unsigned int size)
{
    const driver::Answers answers = Record("get_error", handle, buffer, size, size);
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

int vxi_driver_available(vxi_handle_ops_s* handle)
{
    const driver::Reply reply = Record("driver_available", handle);
    return reply.statuses.count("driver_available") != 0 ? reply.status : reply.available;
}

int vxi_get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size)
{
    const driver::Reply reply = Record("get_stats", handle, stats, sizeof *stats, size);
    for (int i = 0; i < VXA_STATS_AREA1_COUNT; ++i) stats->area1[i] = 1000 + i;
    for (int i = 0; i < VXA_STATS_AREA2_COUNT; ++i) stats->area2[i] = 2000 + i;
    for (int i = 0; i < VXA_STATS_AREA3_COUNT; ++i) stats->area3[i] = 3000 + i;
    for (const auto& [offset, word] : reply.stats_words)
        std::memcpy(reinterpret_cast<char*>(stats) + offset, &word, sizeof word);
    return reply.status;
}

int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                      unsigned int* extra)
{
    const driver::Reply reply =
        Record("get_conntrack", handle, section, sizeof *section, size, extra);
    const std::uint8_t protocol = section->protocol;
    section->entry_ct = protocol == 0    ? reply.flows
                        : protocol == 17 ? reply.udp_flows
                                         : reply.tcp_flows;
    // What a caller is not given must not be written; what it is given must be its own.
    std::memset(section + 1, protocol, size - sizeof *section);
    return reply.status;
}

int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    const driver::Reply reply = Record("get_blacklist", handle, list, sizeof *list);
    if (reply.nth > 0) std::memset(list + 1, 1, list->entries_size);
    list->entries_size = reply.list_sizes[reply.nth > 0 ? 1 : 0];
    list->snapshot = 77;
    return reply.status;
}

int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states)
{
    const driver::Reply reply = Record("get_conn_states", handle);
    std::memset(states, 1, sizeof *states);
    return reply.status;
}

int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    const driver::Reply reply =
        Record("get_varv", handle, variable, sizeof *variable, variable->number);
    variable->value = variable->number * 3;
    return reply.status;
}

int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number, vxa_filter_variable_s* variable)
{
    const driver::Reply reply = Record("get_var", handle, variable, sizeof *variable, number);
    *variable = {number, reply.profiling};
    return reply.status;
}

int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    return Record("set_var", handle, &value, sizeof value, number).status;
}

// The payload counts up from 1.
int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    const driver::Reply reply = Record("get_profile_stats", handle, record, sizeof(std::uint32_t));
    std::uint32_t size = 0;
    std::memcpy(&size, record, sizeof size);
    auto* const payload = static_cast<unsigned char*>(record) + sizeof size;
    for (std::uint32_t i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>(i + 1);
    std::memcpy(record, &reply.profile_sizes[size != 0 ? 1 : 0], sizeof size);
    return reply.status;
}

void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats)
{
    const driver::Reply reply = Record("dump_stats", nullptr, stats, sizeof *stats);
    sink->print(sink, "%d %d %d %d %d %d\n", static_cast<int>(stats->body1[0]),
                static_cast<int>(stats->body1[VXA_STATS_AREA1_COUNT - 1]),
                static_cast<int>(stats->body2[0]),
                static_cast<int>(stats->body2[VXA_STATS_AREA2_COUNT - 1]),
                static_cast<int>(stats->body3[0]),
                static_cast<int>(stats->body3[VXA_STATS_AREA3_COUNT - 1]));
    sink->print(sink, "%s", reply.text.c_str());
}

// Every byte of the entries is read: what a header claims beyond its block shows.
static const char* DumpSection(tb_dump_s* sink, const char* bytes)
{
    vxa_dump_conntrack_s section;
    std::memcpy(&section, bytes, sizeof section);
    const char* const entries = bytes + sizeof section;
    const char* const end = entries + section.entry_ct * sizeof(vxa_conntrack_entry_s);
    const auto whole = std::count(entries, end, static_cast<char>(section.protocol));
    sink->print(sink, "%d: %d entries, %d bytes\n", section.protocol, section.entry_ct,
                static_cast<int>(whole));
    return end;
}

void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table)
{
    const driver::Reply reply = Record("dump_all_conn_track", nullptr, table, sizeof *table);
    DumpSection(sink, DumpSection(sink, reinterpret_cast<const char*>(table)));
    sink->print(sink, "%s", reply.text.c_str());
}

void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list)
{
    const driver::Reply reply = Record("dump_blacklist", nullptr, list, sizeof *list);
    const char* const entries = reinterpret_cast<const char*>(list + 1);
    sink->print(sink, "%u bytes, %d filled\n", list->entries_size,
                static_cast<int>(std::count(entries, entries + list->entries_size, 1)));
    sink->print(sink, "%s", reply.text.c_str());
}

void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states)
{
    const driver::Reply reply = Record("dump_conn_states", nullptr, states, sizeof *states);
    sink->print(sink, "%x %x\n", states->version, static_cast<unsigned int>(states->udp6));
    sink->print(sink, "%s", reply.text.c_str());
}

void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int style)
{
    const driver::Reply reply =
        Record("dump_filter_variable", nullptr, variable, sizeof *variable, style);
    sink->print(sink, "%u %u %d\n", variable->number, variable->value, style);
    sink->print(sink, "%s", reply.text.c_str());
}

int vsnprintf_safe(char* buffer, size_t size, const char* format, va_list arguments)
{
    if (std::vsnprintf(buffer, size, format, arguments) < 0) *buffer = '\0';
    return static_cast<int>(std::strlen(buffer));
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

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
