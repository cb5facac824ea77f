// What holds for every engine: null handles, bad arguments, texts, traces, clamped counts.
#include <cerrno>
#include <functional>

#include "Fixture.h"

namespace {

using Handle = vxi_handle_ops_s*;

class Dispatch : public SimulatedMachine {};

TEST_F(Dispatch, EveryCallSurvivesANullHandle)
{
    vxa_dump_conntrack_s section{};
    vxa_blacklist_get_addrs_s list{};
    vxa_get_conn_states_s states{};
    vxa_filter_variable_s variable{};
    scan_metrics_request request = scan_request(port);
    std::uint32_t profile = 0;
    char text[16];
    auto stats = std::make_unique<vxa_stats_v2_s>();
    const std::pair<const char*, int> results[] = {
        {"available", vxi_driver_available(nullptr)},
        {"error", vxi_get_error(nullptr, text, sizeof text)},
        {"stats", vxi_get_stats(nullptr, stats.get(), sizeof *stats)},
        {"conntrack", vxi_get_conntrack(nullptr, &section, sizeof section, nullptr)},
        {"blacklist", vxi_get_blacklist(nullptr, &list)},
        {"conn_states", vxi_get_conn_states(nullptr, &states)},
        {"varv", vxi_get_varv(nullptr, &variable)},
        {"var", vxi_get_var(nullptr, 1, &variable)},
        {"set_var", vxi_set_var(nullptr, 62, 1)},
        {"profile", vxi_get_profile_stats(nullptr, &profile)},
        {"set_scan", vxi_set_scan_monitoring(nullptr, scan_config(port).get())},
        {"get_scan", vxi_get_scan_metrics(nullptr, &request, sizeof request)},
        {"capabilities", vxi_capabilities(nullptr, nullptr, 0)},
    };
    for (const auto& [call, status] : results) {
        EXPECT_EQ(-EBADF, status) << call;
    }
    vxi_close(nullptr);
    vxi_set_trace_level(nullptr, 3);
    vxi_set_trace_handler(nullptr, nullptr);
}

TEST_F(Dispatch, BadArgumentsAreNamed)
{
    auto two_ports = scan_config(1);
    two_ports->outbound[7] = 4;
    auto no_port = scan_config(1);
    no_port->inbound[0] = 0;
    auto other_version = scan_config(1);
    other_version->version = 2;
    auto stats = std::make_unique<vxa_stats_v2_s>();
    const auto section = [](std::uint32_t kind, std::uint8_t protocol) {
        vxa_dump_conntrack_s made{};
        made.request = kind;
        made.protocol = protocol;
        return made;
    };
    const auto conntrack = [](Handle h, vxa_dump_conntrack_s made, unsigned size = 16) {
        return vxi_get_conntrack(h, &made, size, nullptr);
    };
    const auto scan = [](Handle h, std::uint32_t version, std::uint32_t direction,
                         unsigned length) {
        scan_metrics_request request = scan_request(port, direction);
        request.version = version;
        return vxi_get_scan_metrics(h, &request, length);
    };
    const struct {
        std::function<int(Handle)> call;
        int status;
        const char* text;
    } cases[] = {
        {[](Handle h) { return vxi_get_stats(h, nullptr, 6408); }, -EINVAL,
         "vxi_get_stats: no record given"},
        {[&](Handle h) { return vxi_get_stats(h, stats.get(), 6408); }, -EINVAL,
         "vxi_get_stats: no record given"},  // areas not set
        {[](Handle h) { return vxi_get_conntrack(h, nullptr, 16, nullptr); }, -EINVAL,
         "vxi_get_conntrack: no record given"},
        {[&](Handle h) { return conntrack(h, section(3, 0), 15); }, -EINVAL, "size 15"},
        {[&](Handle h) { return conntrack(h, section(4, 0)); }, -EINVAL, "request kind 4"},
        {[&](Handle h) { return conntrack(h, section(3, 132)); }, -EINVAL, "protocol 132"},
        {[&](Handle h) { return conntrack(h, section(3, 6)); }, -ENODATA, "ask for the count"},
        {[](Handle h) { return vxi_get_blacklist(h, nullptr); }, -EINVAL, "vxi_get_blacklist: no"},
        {[](Handle h) { return vxi_get_conn_states(h, nullptr); }, -EINVAL, "conn_states: no"},
        {[](Handle h) { return vxi_get_varv(h, nullptr); }, -EINVAL, "vxi_get_varv: no record"},
        {[](Handle h) {
             vxa_filter_variable_s variable{173, 0};
             return vxi_get_varv(h, &variable);
         },
         VXI_E_UNKNOWN_VARIABLE, "variable 173 is unknown"},
        {[](Handle h) { return vxi_set_var(h, 173, 0); }, VXI_E_UNKNOWN_VARIABLE, "variable 173"},
        {[](Handle h) { return vxi_set_var(h, 64, 0); }, -EROFS, "vxi_set_var: variable 64"},
        {[](Handle h) { return vxi_get_profile_stats(h, nullptr); }, -EINVAL, "profile_stats: no"},
        {[](Handle h) { return vxi_set_scan_monitoring(h, nullptr); }, -EINVAL, "monitoring: no"},
        {[&](Handle h) { return vxi_set_scan_monitoring(h, two_ports.get()); }, -EINVAL,
         "exactly one port"},
        {[&](Handle h) { return vxi_set_scan_monitoring(h, no_port.get()); }, -EINVAL,
         "exactly one port"},
        {[&](Handle h) { return vxi_set_scan_monitoring(h, other_version.get()); }, -EINVAL,
         "version 2"},
        {[](Handle h) { return vxi_get_scan_metrics(h, nullptr, 192); }, -EINVAL, "metrics: no"},
        {[&](Handle h) { return scan(h, 1, 1, 71); }, -EINVAL, "length 71"},
        {[&](Handle h) { return scan(h, 9, 1, 192); }, -EINVAL, "version 9"},
        {[&](Handle h) { return scan(h, 1, 3, 192); }, -EINVAL, "direction 3"},
        {[&](Handle h) { return scan(h, 1, 2, 192); }, -ENOENT, "port 8080 is not monitored"},
    };
    monitor();
    for (const auto& each : cases) {
        EXPECT_EQ(each.status, each.call(handle())) << each.text;
        const std::string text = error_text(handle());
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
        for (const std::uint16_t each : {0, 1, 31, 32, 8080, 65504, 65535}) {
            ASSERT_EQ(0, vxi_set_scan_monitoring(handle(), scan_config(each, direction).get()));
            scan_metrics_request request = scan_request(each, direction);
            EXPECT_EQ(0, vxi_get_scan_metrics(handle(), &request, sizeof request))
                << each << error_text(handle());
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
        {3, 1, 192, 3, 1},
        {4000000000U, 1, 192, 10, 1},
        {10, 4000000000U, 192, 10, 1},
        {10, 1, 96, 3, 1},
        {10, 1, 79, 0, 1},
        {10, 1, 72, 0, 1},
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

struct Traced {
    int level;
    std::string function, message;
};
std::vector<Traced> traced;

int record_trace(int level, const char*, const char* function, int, char* message)
{
    traced.push_back({level, function, message});
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
        if (each.failure) {
            EXPECT_EQ(1, traced[0].level);
            EXPECT_EQ("vxi_set_var", traced[0].function);
            EXPECT_NE(std::string::npos, traced[0].message.find("status -30")) << traced[0].message;
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
    EXPECT_EQ(7, format_into(text, sizeof text, "%s", "0123456"));
    EXPECT_STREQ("0123456", text);
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
