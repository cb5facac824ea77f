// What holds for every engine: null handles, bad arguments, texts, traces, clamped counts.
#include <functional>

#include "Fixture.h"

namespace {

using Dispatch = SimulatedMachine;

TEST_F(Dispatch, EveryCallSurvivesANullHandle)
{
    for (const auto& call : calls) {
        EXPECT_EQ(-EBADF, call.make(nullptr)) << call.name;
    }
    char text[16];
    EXPECT_EQ(-EBADF, vxi_get_error(nullptr, text, sizeof text));
    vxi_close(nullptr);
    vxi_set_trace_level(nullptr, 3);
    vxi_set_trace_handler(nullptr, nullptr);
}

int ask_conntrack(Handle handle, std::uint32_t kind, std::uint8_t protocol, unsigned size = 16)
{
    vxa_dump_conntrack_s section = conntrack_request(protocol);
    section.request = kind;
    return vxi_get_conntrack(handle, &section, size, nullptr);
}

int ask_scan(Handle handle, std::uint32_t version, std::uint32_t direction, unsigned length)
{
    scan_metrics_request request = scan_request(8080, direction);
    request.version = version;
    return vxi_get_scan_metrics(handle, &request, length);
}

TEST_F(Dispatch, BadArgumentsAreNamed)
{
    scan_monitor_config two_ports = scan_config(1);
    two_ports.outbound[7] = 4;
    scan_monitor_config no_port{1, 0, {}, {}};
    scan_monitor_config other_version = scan_config(1);
    other_version.version = 2;
    vxa_stats_v2_s no_areas{};
    vxa_filter_variable_s unknown{173, 0};
    const Handle h = handle();
    const struct {
        std::function<int()> call;
        int status;
        const char* text;
    } cases[] = {
        {[&] { return vxi_get_stats(h, nullptr, 6408); }, -EINVAL, "get_stats: no record given"},
        {[&] { return vxi_get_stats(h, &no_areas, 6408); }, -EINVAL, "get_stats: no record given"},
        {[&] { return vxi_get_stats(h, &no_areas, 6407); }, -EINVAL, "size 6407 is less"},
        {[&] { return vxi_get_conntrack(h, nullptr, 16, nullptr); }, -EINVAL, "conntrack: no rec"},
        {[&] { return vxi_get_blacklist(h, nullptr); }, -EINVAL, "vxi_get_blacklist: no record"},
        {[&] { return vxi_get_conn_states(h, nullptr); }, -EINVAL, "conn_states: no record"},
        {[&] { return vxi_get_varv(h, nullptr); }, -EINVAL, "vxi_get_varv: no record"},
        {[&] { return vxi_get_var(h, 1, nullptr); }, -EINVAL, "vxi_get_var: no record"},
        {[&] { return vxi_get_profile_stats(h, nullptr); }, -EINVAL, "profile_stats: no record"},
        {[&] { return vxi_set_scan_monitoring(h, nullptr); }, -EINVAL, "monitoring: no record"},
        {[&] { return vxi_get_scan_metrics(h, nullptr, 192); }, -EINVAL, "metrics: no record"},
        {[&] { return ask_conntrack(h, 3, 0, 15); }, -EINVAL, "size 15"},
        {[&] { return ask_conntrack(h, 4, 0); }, -EINVAL, "request kind 4"},
        {[&] { return ask_conntrack(h, 3, 132); }, -EINVAL, "protocol 132"},
        {[&] { return ask_conntrack(h, 3, 6); }, -ENODATA, "ask for the count"},
        {[&] { return vxi_get_varv(h, &unknown); }, VXI_E_UNKNOWN_VARIABLE, "variable 173 is unk"},
        {[&] { return vxi_set_var(h, 173, 0); }, VXI_E_UNKNOWN_VARIABLE, "variable 173"},
        {[&] { return vxi_set_var(h, 64, 0); }, -EROFS, "vxi_set_var: variable 64"},
        {[&] { return vxi_set_scan_monitoring(h, &two_ports); }, -EINVAL, "exactly one port"},
        {[&] { return vxi_set_scan_monitoring(h, &no_port); }, -EINVAL, "exactly one port"},
        {[&] { return vxi_set_scan_monitoring(h, &other_version); }, -EINVAL, "version 2"},
        {[&] { return ask_scan(h, 1, 1, 71); }, -EINVAL, "length 71"},
        {[&] { return ask_scan(h, 9, 1, 192); }, -EINVAL, "version 9"},
        {[&] { return ask_scan(h, 1, 3, 192); }, -EINVAL, "direction 3"},
        {[&] { return ask_scan(h, 1, 2, 192); }, -ENOENT, "port 8080 is not monitored"},
    };
    monitor();
    for (const auto& each : cases) {
        EXPECT_EQ(each.status, each.call()) << each.text;
        const std::string text = error_text(h);
        EXPECT_EQ(0U, text.find("engine sim: vxi_")) << text;
        EXPECT_NE(std::string::npos, text.find(each.text)) << text;
    }
}

TEST_F(Dispatch, ErrorTextIsCutToTheBufferAndKept)
{
    char text[12];
    EXPECT_EQ(0, vxi_get_error(handle(), text, sizeof text));
    EXPECT_STREQ("", text);
    vxi_set_var(handle(), 64, 0);
    EXPECT_EQ(0, vxi_get_error(handle(), text, sizeof text));
    EXPECT_STREQ("engine sim:", text);
    EXPECT_EQ(0, vxi_set_var(handle(), 62, 0));
    EXPECT_NE("", error_text(handle())) << "a success must not take the text away";
    EXPECT_EQ(-EINVAL, vxi_get_error(handle(), text, 0));
    EXPECT_EQ(-EINVAL, vxi_get_error(handle(), nullptr, 5));
}

TEST_F(Dispatch, EveryPortCanBeMonitored)
{
    for (const std::uint32_t direction : {VXI_SCAN_INBOUND, VXI_SCAN_OUTBOUND}) {
        for (const std::uint16_t each : {0, 31, 32, 65535}) {
            ASSERT_EQ(0, monitor_port(handle(), each, direction));
            scan_metrics_request request = scan_request(each, direction);
            EXPECT_EQ(0, vxi_get_scan_metrics(handle(), &request, sizeof request)) << each;
        }
    }
}

// The counts of a request are wishes: what is written stays inside its length.
TEST_F(Dispatch, ScanCountersStayInsideTheRequest)
{
    const struct {
        std::uint32_t counters, entries;
        unsigned length;
        std::uint32_t delivered, delivered_entries;
    } cases[] = {
        {10, 1, 192, 10, 1},
        {4000000000U, 1, 192, 10, 1},
        {10, 4000000000U, 192, 10, 1},
        {10, 1, 96, 3, 1},
        {10, 1, 79, 0, 1},
        {10, 0, 192, 0, 0},
        {0, 1, 192, 0, 1},
    };
    monitor();
    for (const auto& each : cases) {
        scan_metrics_request request = scan_request(port);
        std::memset(request.counter, 0xee, sizeof request.counter);
        request.counters = each.counters;
        request.entries = each.entries;
        ASSERT_EQ(0, vxi_get_scan_metrics(handle(), &request, each.length));
        EXPECT_EQ(each.delivered, request.counters);
        EXPECT_EQ(each.delivered_entries, request.entries);
        for (unsigned i = 0; i < 15; ++i) {
            EXPECT_EQ(i >= each.delivered, request.counter[i] == 0xeeeeeeeeeeeeeeeeU) << i;
        }
    }
}

// The caller allocates for what the size request said. When that was nothing and entries
// have come since, the fill must not take the zero for another size request.
TEST_F(Dispatch, FillingAnEmptyBlacklistStaysEmpty)
{
    configure("blacklist=0");
    vxa_blacklist_get_addrs_s list{};
    ASSERT_EQ(0, vxi_get_blacklist(handle(), &list));
    ASSERT_EQ(0U, list.entries_size);
    configure("blacklist=5");
    ASSERT_EQ(0, vxi_get_blacklist(handle(), &list));
    EXPECT_EQ(0U, list.entries_size);

    vxa_blacklist_get_addrs_s next{};
    ASSERT_EQ(0, vxi_get_blacklist(handle(), &next));
    EXPECT_EQ(5 * sizeof(vxa_blacklist_entry_s), next.entries_size);
}

std::vector<std::string> traced;

int record_trace(int level, const char*, const char* function, int, char* message)
{
    traced.push_back(std::to_string(level) + " " + function + ": " + message);
    return 0;
}

TEST_F(Dispatch, TracesByLevel)
{
    const struct {
        int level;
        std::size_t success, failure;
    } cases[] = {{0, 0, 0}, {1, 0, 1}, {2, 0, 1}, {3, 1, 1}, {99, 1, 1}, {-1, 0, 0}};
    vxi_set_trace_handler(handle(), record_trace);
    for (const auto& each : cases) {
        vxi_set_trace_level(handle(), each.level);
        traced.clear();
        vxi_driver_available(handle());
        EXPECT_EQ(each.success, traced.size()) << each.level;
        traced.clear();
        vxi_set_var(handle(), 64, 0);
        ASSERT_EQ(each.failure, traced.size()) << each.level;
        for (const std::string& trace : traced) {
            EXPECT_EQ(0U, trace.find("1 vxi_set_var: status -30")) << trace;
        }
    }
    vxi_set_trace_handler(handle(), nullptr);
    vxi_driver_available(handle());
}

int format_into(char* buffer, std::size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

int format_into(char* buffer, std::size_t size, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_safe(buffer, size, format, arguments);
    va_end(arguments);
    return length;
}

TEST(BoundedFormatting, AlwaysLeavesAText)
{
    char text[8];
    EXPECT_EQ(7, format_into(text, sizeof text, "%s", "0123456789"));
    EXPECT_STREQ("0123456", text);
    EXPECT_EQ(0, format_into(text, 1, "%d", 5));
    EXPECT_STREQ("", text);
    EXPECT_EQ(0, format_into(text, 0, "%d", 5));
    EXPECT_EQ(0, format_into(nullptr, 5, "%d", 5));
    // A wide character that the C locale cannot write makes the formatting itself fail.
    EXPECT_EQ(0, format_into(text, sizeof text, "ab%lc", static_cast<wint_t>(0x20ac)));
    EXPECT_STREQ("", text);
}

}  // namespace
