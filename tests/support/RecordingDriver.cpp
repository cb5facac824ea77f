#include "RecordingDriver.h"

#include <sys/time.h>

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
    vxi_handle_ops_s handle{};
};

State& GlobalState()
{
    static State* const kState = new State;
    return *kState;
}

std::atomic<std::uint64_t> s_now_us{0};

struct Reply {
    int status;
    std::uint32_t count;
    std::size_t nth;  // call of this name, from 0
};

template <typename T>
T Nth(const std::map<std::string, std::vector<T>>& replies, const char* name, std::size_t nth,
      T otherwise)
{
    const auto found = replies.find(name);
    if (found == replies.end() || found->second.empty()) return otherwise;
    return found->second[std::min(nth, found->second.size() - 1)];
}

Reply Record(const char* name, const vxi_handle_ops_s* handle, const void* bytes = nullptr,
             std::size_t size = 0, long number = 0, const void* extra = nullptr, int status = 0)
{
    const std::lock_guard<std::mutex> lock(GlobalState().mutex);
    const std::string record(static_cast<const char*>(bytes), size);
    GlobalState().calls.push_back({name, record, number, handle == nullptr, bytes, extra});
    const std::size_t nth = GlobalState().made[name]++;
    return {Nth(GlobalState().answers.statuses, name, nth, status),
            Nth(GlobalState().answers.counts, name, nth, 0u), nth};
}

}  // namespace

void SetAnswers(const Answers& answers)
{
    const std::lock_guard<std::mutex> lock(GlobalState().mutex);
    GlobalState().answers = answers;
    GlobalState().made.clear();
}

std::vector<Call> TakeCalls()
{
    const std::lock_guard<std::mutex> lock(GlobalState().mutex);
    return std::exchange(GlobalState().calls, {});
}

void SetClock(std::uint64_t now_us)
{
    s_now_us = now_us;
}

}  // namespace driver

using driver::GlobalState;
using driver::Record;
using driver::Reply;
using driver::State;

vxi_handle_ops_s* vxi_open(void)
{
    return Record("open", &GlobalState().handle, nullptr, 0, 0, nullptr, 1).status != 0
               ? &GlobalState().handle
               : nullptr;
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
    Record("get_error", handle, buffer, size, size);
    const std::lock_guard<std::mutex> lock(GlobalState().mutex);
    std::snprintf(buffer, size, "%s", GlobalState().answers.error.c_str());
    return 0;
}

int vxi_set_scan_monitoring(vxi_handle_ops_s* handle, scan_monitor_config* config)
{
    return Record("set_scan_monitoring", handle, config, sizeof *config).status;
}

int vxi_get_scan_metrics(vxi_handle_ops_s* handle, scan_metrics_request* request,
                         unsigned int length)
{
    const Reply reply = Record("get_scan_metrics", handle, request, sizeof *request, length);
    const std::lock_guard<std::mutex> lock(GlobalState().mutex);
    const driver::Answers& answers = GlobalState().answers;
    request->counters = answers.counters;
    request->entries = answers.entries;
    std::copy(answers.values.begin(), answers.values.end(), request->counter);
    return reply.status;
}

int vxi_driver_available(vxi_handle_ops_s* handle)
{
    return Record("driver_available", handle, nullptr, 0, 0, nullptr, 1).status;
}

int vxi_get_stats(vxi_handle_ops_s* handle, vxa_stats_v2_s* stats, unsigned int size)
{
    const Reply reply = Record("get_stats", handle, stats, sizeof *stats, size);
    for (int i = 0; i < VXA_STATS_AREA1_COUNT; ++i) stats->area1[i] = 1000 + i;
    for (int i = 0; i < VXA_STATS_AREA2_COUNT; ++i) stats->area2[i] = 2000 + i;
    for (int i = 0; i < VXA_STATS_AREA3_COUNT; ++i) stats->area3[i] = 3000 + i;
    if (reply.count != 0)
        std::memcpy(reinterpret_cast<char*>(stats) + (reply.count >> 16), &reply.count, 2);
    return reply.status;
}

int vxi_get_conntrack(vxi_handle_ops_s* handle, vxa_dump_conntrack_s* section, unsigned int size,
                      unsigned int* extra)
{
    const Reply reply = Record("get_conntrack", handle, section, sizeof *section, size, extra);
    section->entry_ct = static_cast<std::uint16_t>(reply.count);
    // What a caller is not given must not be written; what it is given must be its own.
    std::memset(section + 1, section->protocol, size - sizeof *section);
    return reply.status;
}

int vxi_get_blacklist(vxi_handle_ops_s* handle, vxa_blacklist_get_addrs_s* list)
{
    const Reply reply = Record("get_blacklist", handle, list, sizeof *list);
    if (reply.nth > 0) std::memset(list + 1, 1, list->entries_size);
    list->entries_size = reply.count;
    list->snapshot = 77;
    return reply.status;
}

int vxi_get_conn_states(vxi_handle_ops_s* handle, vxa_get_conn_states_s* states)
{
    std::memset(states, 1, sizeof *states);
    return Record("get_conn_states", handle).status;
}

int vxi_get_varv(vxi_handle_ops_s* handle, vxa_filter_variable_s* variable)
{
    variable->value = variable->number * 3;
    return Record("get_varv", handle, nullptr, 0, variable->number).status;
}

int vxi_get_var(vxi_handle_ops_s* handle, unsigned int number, vxa_filter_variable_s* variable)
{
    const Reply reply = Record("get_var", handle, variable, sizeof *variable, number);
    *variable = {number, reply.count};
    return reply.status;
}

int vxi_set_var(vxi_handle_ops_s* handle, unsigned int number, unsigned int value)
{
    return Record("set_var", handle, &value, sizeof value, number).status;
}

// The payload counts up from 1.
int vxi_get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    const Reply reply = Record("get_profile_stats", handle, record, sizeof(std::uint32_t));
    std::uint32_t size = 0;
    std::memcpy(&size, record, sizeof size);
    auto* const payload = static_cast<unsigned char*>(record) + sizeof size;
    for (std::uint32_t i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>(i + 1);
    std::memcpy(record, &reply.count, sizeof reply.count);
    return reply.status;
}

void tb_dump_stats(tb_dump_s* sink, vxa_stats_v2_s* stats)
{
    sink->print(sink, "%d %d %d %d %d %d\n", static_cast<int>(stats->body1[0]),
                static_cast<int>(stats->body1[VXA_STATS_AREA1_COUNT - 1]),
                static_cast<int>(stats->body2[0]),
                static_cast<int>(stats->body2[VXA_STATS_AREA2_COUNT - 1]),
                static_cast<int>(stats->body3[0]),
                static_cast<int>(stats->body3[VXA_STATS_AREA3_COUNT - 1]));
}

// Every byte of the entries is read: what a header claims beyond its block shows.
void tb_dump_all_conn_track(tb_dump_s* sink, vxa_dump_conntrack_s* table)
{
    const char* bytes = reinterpret_cast<const char*>(table);
    for (int i = 0; i < 2; ++i) {
        vxa_dump_conntrack_s section;
        std::memcpy(&section, bytes, sizeof section);
        const char* const entries = bytes + sizeof section;
        bytes = entries + section.entry_ct * sizeof(vxa_conntrack_entry_s);
        const auto own = std::count(entries, bytes, static_cast<char>(section.protocol));
        sink->print(sink, "%d: %d entries, %d bytes\n", section.protocol, section.entry_ct,
                    static_cast<int>(own));
    }
}

void tb_dump_blacklist(tb_dump_s* sink, vxa_blacklist_get_addrs_s* list)
{
    const char* const entries = reinterpret_cast<const char*>(list + 1);
    sink->print(sink, "%u bytes, %d filled\n", list->entries_size,
                static_cast<int>(std::count(entries, entries + list->entries_size, 1)));
}

void tb_dump_conn_states(tb_dump_s* sink, vxa_get_conn_states_s* states)
{
    sink->print(sink, "%x %x\n", states->version, static_cast<unsigned int>(states->udp6));
}

void tb_dump_filter_variable(tb_dump_s* sink, vxa_filter_variable_s* variable, int style)
{
    sink->print(sink, "%u %u %d\n", variable->number, variable->value, style);
}

void vxi_set_trace_level(vxi_handle_ops_s* handle, int level)
{
    Record("set_trace_level", handle, nullptr, 0, level);
}

void vxi_set_trace_handler(vxi_handle_ops_s* handle, driver::TraceHandler handler)
{
    Record("set_trace_handler", handle);
    driver::installed_trace_handler = handler;
}

void vxi_set_profiler(vxi_profiler_blockfilter blockfilter, vxi_profiler_running running)
{
    const bool own = blockfilter == profiler_blockfilter && running == profiler_running;
    driver::profiler_installations += own ? 1 : 100;
}

extern "C" __attribute__((visibility("default"))) int gettimeofday(struct timeval* now,
                                                                   void*) noexcept
{
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const std::uint64_t fixed_us = driver::s_now_us;
    *now = fixed_us == 0 ? timeval{real.tv_sec, static_cast<suseconds_t>(real.tv_nsec / 1000)}
                         : timeval{static_cast<time_t>(fixed_us / 1000000),
                                   static_cast<suseconds_t>(fixed_us % 1000000)};
    return 0;
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* result) noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    if (result != nullptr) *result = now.tv_sec;
    return now.tv_sec;
}
