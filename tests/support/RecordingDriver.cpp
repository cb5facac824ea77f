// The recording driver; see RecordingDriver.h.
#include "RecordingDriver.h"

#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <thread>
#include <utility>

#include <lua.hpp>

struct vxi_handle_ops_s {
    int unused;
};

namespace driver {
namespace {

struct Recorder {
    std::mutex mutex;
    Answers answers;
    std::map<std::string, std::size_t> made;  // calls since the answers were set
    std::vector<Call> calls;
    vxi_handle_ops_s handle{};
};

// Never destroyed: the plugin may still call while the process exits.
Recorder& s_recorder = *new Recorder;

std::atomic<std::uint64_t> s_now_us{0};
std::atomic<bool> s_in_pairs{false};
std::atomic<unsigned int> s_arrivals{0};

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

// The second thread of a pair goes on a little later than the first: one does all its work up to
// its next call before the other begins. Spins: a mutex would order what follows. A thread whose
// partner has ended goes on after a while.
void AwaitPartner()
{
    using namespace std::chrono_literals;
    if (!s_in_pairs) return;
    const unsigned int arrival = s_arrivals++;
    const auto limit = std::chrono::steady_clock::now() + 200ms;
    while (s_arrivals <= (arrival | 1u) && std::chrono::steady_clock::now() < limit)
        std::this_thread::yield();
    if (arrival % 2 == 1) std::this_thread::sleep_for(10ms);
}

Reply Record(const char* name, const vxi_handle_ops_s* handle, const void* bytes = nullptr,
             std::size_t size = 0, long number = 0, const void* extra = nullptr, int status = 0)
{
    AwaitPartner();
    const std::lock_guard<std::mutex> lock(s_recorder.mutex);
    const std::string record(static_cast<const char*>(bytes), size);
    s_recorder.calls.push_back({name, record, number, handle == nullptr, bytes, extra});
    const std::size_t nth = s_recorder.made[name]++;
    return {Nth(s_recorder.answers.statuses, name, nth, status),
            Nth(s_recorder.answers.counts, name, nth, 0u), nth};
}

}  // namespace

void SetAnswers(const Answers& answers)
{
    const std::lock_guard<std::mutex> lock(s_recorder.mutex);
    s_recorder.answers = answers;
    s_recorder.made.clear();
}

std::vector<Call> TakeCalls()
{
    const std::lock_guard<std::mutex> lock(s_recorder.mutex);
    return std::exchange(s_recorder.calls, {});
}

void SetClock(std::uint64_t now_us)
{
    s_now_us = now_us;
}

void CallInPairs(bool on)
{
    s_in_pairs = on;
}

}  // namespace driver

using driver::Record;
using driver::Reply;
using driver::s_recorder;

vxi_handle_ops_s* vxi_open(void)
{
    auto* const handle = &s_recorder.handle;
    const bool opened = Record("open", handle, nullptr, 0, 0, nullptr, 1).status != 0;
    return opened ? handle : nullptr;
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
    const std::lock_guard<std::mutex> lock(s_recorder.mutex);
    std::snprintf(buffer, size, "%s", s_recorder.answers.error.c_str());
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
    const std::lock_guard<std::mutex> lock(s_recorder.mutex);
    const driver::Answers& answers = s_recorder.answers;
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

#pragma GCC visibility push(default)

extern "C" int gettimeofday(struct timeval* now, void*) noexcept
{
    timespec real{};
    clock_gettime(CLOCK_REALTIME, &real);
    const std::uint64_t set_us = driver::s_now_us;
    *now = {real.tv_sec, static_cast<suseconds_t>(real.tv_nsec / 1000)};
    if (set_us != 0)
        *now = {static_cast<time_t>(set_us / 1000000), static_cast<suseconds_t>(set_us % 1000000)};
    return 0;
}

extern "C" time_t time(time_t* result) noexcept
{
    timeval now{};
    gettimeofday(&now, nullptr);
    if (result) *result = now.tv_sec;
    return now.tv_sec;
}

// ---- the Lua module ----------------------------------------------------------------------

namespace {

int TakeCalls(lua_State* L)
{
    lua_newtable(L);
    int index = 0;
    for (const driver::Call& call : driver::TakeCalls()) {
        lua_newtable(L);
        lua_pushlstring(L, call.name.data(), call.name.size());
        lua_setfield(L, -2, "name");
        lua_pushlstring(L, call.bytes.data(), call.bytes.size());
        lua_setfield(L, -2, "bytes");
        lua_pushnumber(L, static_cast<lua_Number>(call.number));
        lua_setfield(L, -2, "number");
        lua_pushboolean(L, call.null_handle);
        lua_setfield(L, -2, "null_handle");
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

// answer {error =, values =, counters =, entries =, CALL = STATUS...}
int SetAnswers(lua_State* L)
{
    driver::Answers answers;
    for (lua_pushnil(L); lua_next(L, 1) != 0; lua_pop(L, 1)) {
        const std::string name = lua_tostring(L, -2);
        if (name == "error")
            answers.error = lua_tostring(L, -1);
        else if (name == "counters")
            answers.counters = static_cast<std::uint32_t>(lua_tonumber(L, -1));
        else if (name == "entries")
            answers.entries = static_cast<std::uint32_t>(lua_tonumber(L, -1));
        else if (name != "values")
            answers.statuses[name] = {static_cast<int>(lua_tointeger(L, -1))};
        for (int j = 1; name == "values" && j <= VXI_SCAN_COUNTERS; ++j) {
            lua_rawgeti(L, -1, j);
            answers.values[j - 1] = static_cast<std::uint64_t>(lua_tonumber(L, -1));
            lua_pop(L, 1);
        }
    }
    driver::SetAnswers(answers);
    return 0;
}

int SetClock(lua_State* L)
{
    driver::SetClock(static_cast<std::uint64_t>(luaL_checknumber(L, 1)));
    return 0;
}

// emit(number, text, place, place_number, message) as the driver library would.
int Emit(lua_State* L)
{
    char message[256];
    std::snprintf(message, sizeof message, "%s", luaL_checkstring(L, 5));
    const int result = driver::installed_trace_handler.load()(
        static_cast<int>(luaL_checkinteger(L, 1)), luaL_checkstring(L, 2), luaL_checkstring(L, 3),
        static_cast<int>(luaL_checkinteger(L, 4)), message);
    lua_pushinteger(L, result);
    lua_pushstring(L, message);
    return 2;
}

}  // namespace

extern "C" int luaopen_recorder(lua_State* L)
{
    const luaL_Reg functions[] = {{"calls", TakeCalls},
                                  {"answer", SetAnswers},
                                  {"clock", SetClock},
                                  {"emit", Emit},
                                  {nullptr, nullptr}};
    luaL_newlib(L, functions);
    return 1;
}
