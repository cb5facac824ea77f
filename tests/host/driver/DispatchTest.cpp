// What holds for every engine: null handles, bad arguments, settings, scripted failures, texts,
// traces, clamped counts, and that no exception escapes.
#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <thread>

#include "Fixture.h"
#include "api/Engine.h"

namespace {

class Dispatch : public SimulatedMachine {
protected:
    static void Script(const std::string& text)
    {
        ASSERT_EQ(0, vxi_fault_script(text.c_str(), nullptr)) << text;
    }
    int States()
    {
        vxa_get_conn_states_s record;
        return vxi_get_conn_states(Driver(), &record);
    }
};

TEST_F(Dispatch, EveryCallSurvivesANullHandleAndCanFail)
{
    std::string text;
    int status = -41;
    for (const auto& call : kCalls) {
        EXPECT_EQ(-EBADF, call.Make(nullptr)) << call.name;
        text += std::string(call.name) + "=" + std::to_string(status--) + ",";
    }
    vxi_close(nullptr);
    vxi_set_trace_level(nullptr, 3);
    vxi_set_trace_handler(nullptr, nullptr);
    Script(text);
    status = -41;
    for (const auto& call : kCalls) {
        EXPECT_EQ(status--, call.Make(Driver())) << call.name;
    }
}

int AskConntrack(Handle handle, std::uint32_t kind, std::uint8_t protocol, unsigned size = 16)
{
    vxa_dump_conntrack_s section = ConntrackRequest(protocol);
    section.request = kind;
    return vxi_get_conntrack(handle, &section, size, nullptr);
}

int AskScan(Handle handle, std::uint32_t version, std::uint32_t direction, unsigned length)
{
    scan_metrics_request request = ScanRequest(8080, direction);
    request.version = version;
    return vxi_get_scan_metrics(handle, &request, length);
}

TEST_F(Dispatch, BadArgumentsAreNamed)
{
    scan_monitor_config two_ports = ScanConfig(1);
    two_ports.outbound[7] = 4;
    scan_monitor_config no_port{1, 0, {}, {}};
    vxa_stats_v2_s no_areas{};
    vxa_filter_variable_s unknown{173, 0};
    const Handle h = Driver();
    const struct {
        std::function<int()> call;
        int status;
        const char* text;
    } cases[] = {
        {[&] { return vxi_get_stats(h, &no_areas, 6408); }, -EINVAL, "get_stats: no record given"},
        {[&] { return vxi_get_stats(h, &no_areas, 6407); }, -EINVAL, "size 6407 is less"},
        {[&] { return vxi_get_conntrack(h, nullptr, 16, nullptr); }, -EINVAL, "conntrack: no rec"},
        {[&] { return vxi_get_blacklist(h, nullptr); }, -EINVAL, "vxi_get_blacklist: no record"},
        {[&] { return vxi_get_conn_states(h, nullptr); }, -EINVAL, "conn_states: no record"},
        {[&] { return vxi_get_varv(h, nullptr); }, -EINVAL, "vxi_get_varv: no record"},
        {[&] { return vxi_get_var(h, 1, nullptr); }, -EINVAL, "vxi_get_var: no record"},
        {[&] { return vxi_get_profile_stats(h, nullptr); }, -EINVAL, "profile_stats: no record"},
        {[&] { return vxi_set_scan_monitoring(h, nullptr); }, -EINVAL, "monitoring: no record"},
        {[&] { return AskConntrack(h, 3, 0, 15); }, -EINVAL, "size 15"},
        {[&] { return AskConntrack(h, 4, 0); }, -EINVAL, "request kind 4"},
        {[&] { return AskConntrack(h, 3, 132); }, -EINVAL, "protocol 132"},
        {[&] { return AskConntrack(h, 3, 6); }, -ENODATA, "ask for the count"},
        {[&] { return vxi_get_varv(h, &unknown); }, VXI_E_UNKNOWN_VARIABLE, "variable 173 is unk"},
        {[&] { return vxi_set_var(h, 64, 0); }, -EROFS, "vxi_set_var: variable 64"},
        {[&] { return vxi_set_scan_monitoring(h, &two_ports); }, -EINVAL, "exactly one port"},
        {[&] { return vxi_set_scan_monitoring(h, &no_port); }, -EINVAL, "exactly one port"},
        {[&] { return AskScan(h, 1, 1, 71); }, -EINVAL, "length 71"},
        {[&] { return AskScan(h, 9, 1, 192); }, -EINVAL, "version 9"},
        {[&] { return AskScan(h, 1, 3, 192); }, -EINVAL, "direction 3"},
        {[&] { return AskScan(h, 1, 2, 192); }, -ENOENT, "port 8080 is not monitored"},
    };
    ASSERT_EQ(0, MonitorPort(Driver(), kPort));
    for (const auto& each : cases) {
        EXPECT_EQ(each.status, each.call()) << each.text;
        const std::string text = ErrorText(h);
        EXPECT_EQ(0U, text.find("engine sim: vxi_")) << text;
        EXPECT_NE(std::string::npos, text.find(each.text)) << text;
    }
}

TEST_F(Dispatch, ErrorTextIsCutToTheBufferAndKept)
{
    char text[12];
    vxi_set_var(Driver(), 64, 0);
    EXPECT_EQ(0, vxi_set_var(Driver(), 62, 0)) << "a success, which must not take the text away";
    EXPECT_EQ(0, vxi_get_error(Driver(), text, sizeof text));
    EXPECT_STREQ("engine sim:", text);
    EXPECT_EQ(-EINVAL, vxi_get_error(Driver(), text, 0));
    EXPECT_EQ(-EBADF, vxi_get_error(nullptr, text, sizeof text));
}

TEST_F(Dispatch, EveryPortCanBeMonitored)
{
    for (const std::uint16_t each : {0, 31, 32, 65535}) {
        scan_metrics_request request = ScanRequest(each, VXI_SCAN_OUTBOUND);
        EXPECT_EQ(0, MonitorPort(Driver(), each, VXI_SCAN_OUTBOUND));
        EXPECT_EQ(0, vxi_get_scan_metrics(Driver(), &request, sizeof request)) << each;
    }
}

// The counts of a request are wishes: what is written stays inside its length.
TEST_F(Dispatch, ScanCountersStayInsideTheRequest)
{
    const struct {
        std::uint32_t counters, entries;
        unsigned length, delivered;
    } cases[] = {
        {4000000000U, 4000000000U, 192, 10}, {10, 1, 96, 3}, {10, 1, 79, 0}, {10, 0, 192, 0}};
    ASSERT_EQ(0, MonitorPort(Driver(), kPort));
    for (const auto& each : cases) {
        scan_metrics_request request = ScanRequest(kPort);
        std::memset(request.counter, 0xee, sizeof request.counter);
        request.counters = each.counters;
        request.entries = each.entries;
        ASSERT_EQ(0, vxi_get_scan_metrics(Driver(), &request, each.length));
        EXPECT_EQ(each.delivered, request.counters);
        EXPECT_EQ(each.entries != 0, request.entries);
        for (unsigned i = 0; i < 15; ++i) {
            EXPECT_EQ(i >= each.delivered, request.counter[i] == 0xeeeeeeeeeeeeeeeeU) << i;
        }
    }
}

// The caller allocates for what the size request said. When that was nothing and entries
// have come since, the fill must not take the zero for another size request.
TEST_F(Dispatch, FillingAnEmptyBlacklistStaysEmpty)
{
    Configure("blacklist=0");
    vxa_blacklist_get_addrs_s list{};
    ASSERT_EQ(0, vxi_get_blacklist(Driver(), &list));
    ASSERT_EQ(0U, list.entries_size);
    Configure("blacklist=5");
    ASSERT_EQ(0, vxi_get_blacklist(Driver(), &list));
    EXPECT_EQ(0U, list.entries_size);
}

int traces;

TEST_F(Dispatch, TracesByLevel)
{
    const struct {
        int level, success, failure;
    } cases[] = {{0, 0, 0}, {1, 0, 1}, {2, 0, 1}, {3, 1, 1}, {99, 1, 1}, {-1, 0, 0}};
    vxi_set_trace_handler(Driver(),
                          [](int, const char*, const char*, int, char*) { return ++traces; });
    for (const auto& each : cases) {
        vxi_set_trace_level(Driver(), each.level);
        traces = 0;
        vxi_driver_available(Driver());
        EXPECT_EQ(each.success, traces) << each.level;
        vxi_set_var(Driver(), 64, 0);
        EXPECT_EQ(each.success + each.failure, traces) << each.level;
    }
}

int FormatInto(std::size_t size, const char* format, ...)
{
    char text[] = "untouched";
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_safe(size ? text : nullptr, size, format, arguments);
    va_end(arguments);
    EXPECT_EQ(size ? static_cast<unsigned>(length) : 9U, std::strlen(text));
    return length;
}

TEST(BoundedFormatting, AlwaysLeavesAText)
{
    EXPECT_EQ(7, FormatInto(8, "%s", "0123456789"));
    EXPECT_EQ(0, FormatInto(1, "%d", 5));
    EXPECT_EQ(0, FormatInto(0, "%d", 5));
    // A wide character that the C locale cannot write makes the formatting itself fail.
    EXPECT_EQ(0, FormatInto(8, "ab%lc", static_cast<wint_t>(0x20ac)));
}

TEST_F(Dispatch, FaultsLastAsLongAsTheScriptSays)
{
    const struct {
        const char* script;
        std::vector<int> statuses;
    } cases[] = {
        {"vxi_get_conn_states=-5", {-5, -5, -5, -5}},
        {"vxi_get_conn_states=-5:once", {-5, 0, 0}},
        {"vxi_get_conn_states=-5:times=2", {-5, -5, 0, 0}},
        {"vxi_get_conn_states=-5:after=1:once", {0, -5, 0, 0}},
        {"vxi_get_conn_states=-5:once , vxi_get_conn_states = -110:after=1", {-5, 0, -110, -110}},
        {"vxi_get_stats=-5,vxi_open=-1", {0, 0}},
    };
    for (const auto& each : cases) {
        Script(each.script);
        for (std::size_t call = 0; call < each.statuses.size(); ++call) {
            EXPECT_EQ(each.statuses[call], States()) << each.script << ", call " << call;
        }
    }
}

TEST_F(Dispatch, FaultsNameEngineAndOperation)
{
    const std::pair<const char*, const char*> cases[] = {
        {"-10017", "unknown variable"},
        {R"(-5:a\, b\: c\\ 100%s:once)", R"(a, b: c\x5c 100%s)"},
        {"-5:caf\xc3\xa9", R"(caf\xc3\xa9)"},
    };
    for (const auto& [fault, text] : cases) {
        Script(std::string("vxi_get_conn_states=") + fault);
        EXPECT_NE(0, States());
        EXPECT_EQ(std::string("engine sim: vxi_get_conn_states: ") + text, ErrorText(Driver()));
    }
}

TEST_F(Dispatch, TheLatestFailuresAreRemembered)
{
    vxi_failure_s rows[VXI_FAILURES_KEPT];
    vxa_filter_variable_s variable{};
    EXPECT_EQ(0u, vxi_failures(nullptr, rows, 1) + vxi_failures(Driver(), rows, 1));
    Script("vxi_get_conn_states=-5:times=150,vxi_driver_available=0");
    for (int call = 0; call < 160; ++call) {
        States();
    }
    EXPECT_EQ(VXI_E_UNKNOWN_VARIABLE, vxi_get_var(Driver(), 173, &variable));
    EXPECT_EQ(0, vxi_driver_available(Driver()));
    EXPECT_EQ(151u, vxi_failures(Driver(), rows, 2));
    EXPECT_STREQ("vxi_driver_available", rows[1].call);
    EXPECT_EQ(151u, vxi_failures(Driver(), rows, 1000));
    EXPECT_STREQ("vxi_get_conn_states", rows[0].call);
    EXPECT_EQ(-5, rows[98].status);
    EXPECT_STREQ("engine sim: vxi_get_conn_states: Input/output error", rows[98].message);
    EXPECT_EQ(0, rows[99].status);
}

using Read = int (*)(const char* text, unsigned* position);

TEST_F(Dispatch, MalformedSettingsChangeNothing)
{
    Script("vxi_get_conn_states=-5");
    Configure("cpus=3");
    const struct {
        Read read;
        const char* text;
        unsigned position;
    } cases[] = {
        {vxi_fault_script, "x", 0},
        {vxi_fault_script, "vxi_get_conn_states", 19},
        {vxi_fault_script, "vxi_get_conn_states=99999999999", 20},
        {vxi_fault_script, "vxi_get_conn_states=-5x", 22},
        {vxi_fault_script, "vxi_get_conn_states=-5:times=-1", 29},
        {vxi_fault_script, "vxi_get_conn_states=-5:once:no answer, really=1", 39},
        {vxi_fault_script, "vxi_get_conn_states=-5:one:two", 27},
        {vxi_sim_configure, "cpus", 4},
        {vxi_sim_configure, "cpus=4097", 5},
        {vxi_sim_configure, "seed=1,,cpus=2", 7},
        {vxi_sim_configure, "seed=18446744073709551616", 5},
        {vxi_sim_configure, "scenario=busy:0", 14},
        {vxi_sim_configure, "scenario=busy:3/melting", 16},
    };
    for (const auto& each : cases) {
        unsigned position = 999;
        EXPECT_EQ(-EINVAL, each.read(each.text, &position)) << each.text;
        EXPECT_EQ(each.position, position) << each.text;
        EXPECT_EQ(-EINVAL, each.read(each.text, nullptr)) << each.text;
    }
    EXPECT_EQ(-5, States());
    vxi_sim_machine_s machine;
    vxi_sim_machine(&machine);
    EXPECT_EQ(3U, machine.cpu_count);
}

TEST_F(Dispatch, OpeningAndAvailabilityCanFail)
{
    Script("vxi_open=-1:once,vxi_driver_available=0:after=1");
    EXPECT_FALSE(vxi_open());
    EXPECT_STREQ("engine sim: vxi_open: Operation not permitted", vxi_open_error());
    EXPECT_TRUE(OpenHandle(vxi_open()));
    EXPECT_STREQ("", vxi_open_error());
    EXPECT_EQ(1, vxi_driver_available(Driver()));
    EXPECT_EQ(0, vxi_driver_available(Driver()));
    EXPECT_EQ(-EINVAL, vxi_engine_select("fault"));
    EXPECT_EQ(-EINVAL, vxi_engine_select(nullptr));
    EXPECT_STREQ("sim", vxi_engine_name());
}

// The environment is read once a process, so each case is a process of its own.
// Writes to standard error which engine opened, or why none did, and what the check finds.
[[noreturn]] void OpenWith(const char* engine, const char* sim, const char* fault)
{
    setenv("VXI_ENGINE", engine, 1);
    setenv("VXI_SIM", sim, 1);
    setenv("VXI_FAULT", fault, 1);
    const OpenHandle handle(vxi_open());
    std::fprintf(stderr, "%s %s %s|%s\n", handle ? "opened" : "failed", vxi_engine_name(),
                 vxi_open_error(), vxi_check_environment());
    std::_Exit(0);
}

TEST(EnvironmentDeathTest, ChoosesEngineSettingsAndFaults)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const struct {
        const char *engine, *sim, *fault, *said;
    } cases[] = {
        {"", "", "", "^opened linux [|]\n"},
        {"sim", "seed=4,scenario=idle", "", "^opened sim [|]\n"},
        {"no\xc3\xa4", "", "",
         "^failed .* VXI_ENGINE: unknown engine 'no.xc3.xa4'; known are: linux, sim"
         "[|]VXI_ENGINE: unknown .*sim\n"},
        {"sim", "cpus=0", "",
         "^failed sim engine sim: vxi_open: VXI_SIM cannot .*[|]VXI_SIM cannot be read at "
         "character 6: expected a number from 1 to 4096\n"},
        {"sim", "", "vxi_get=1",
         "^failed sim VXI_FAULT cannot .*[|]VXI_FAULT cannot be read at character 1: expected one "
         "of vxi_open, .*, vxi_capabilities\n"},
        {"sim", "", "vxi_open=-13", "^failed sim engine sim: vxi_open: Permission denied[|]\n"},
    };
    for (const auto& each : cases) {
        EXPECT_EXIT(OpenWith(each.engine, each.sim, each.fault), testing::ExitedWithCode(0),
                    each.said);
    }
}

int (*answer)();  // of the engine below

struct PartialOperations : vxi::DefaultOperations {
    static int GetConnStates(Handle, vxa_get_conn_states_s*) { return answer(); }
};

// Whatever an engine lacks or throws, the caller gets a status and a message that belongs to it.
TEST(OwnEngine, NothingIsMissingAndNothingEscapes)
{
    static constexpr vxi::Engine kEngine = {"made", vxi::MakeOperations<PartialOperations>(),
                                            nullptr};
    vxi_handle_ops_s handle{};
    handle.operations = &kEngine.operations;
    handle.engine = &kEngine;
    const struct {
        int (*answer)();
        int status;
        std::string text;
    } cases[] = {
        {[]() -> int { throw std::bad_alloc(); }, -ENOMEM, "out of memory"},
        {[]() -> int { throw std::runtime_error("p\xc3\xa9rdu"); }, -EIO, R"(p\xc3\xa9rdu)"},
        {[]() -> int { throw vxi::Error(-EPERM, std::string(600, 'x')); }, -EPERM,
         std::string(221, 'x')},
    };
    for (const auto& each : cases) {
        answer = each.answer;
        vxa_get_conn_states_s states;
        EXPECT_EQ(each.status, vxi_get_conn_states(&handle, &states));
        EXPECT_EQ("engine made: vxi_get_conn_states: " + each.text, ErrorText(&handle));
    }
    answer = [] { return 0; };
    for (const auto& call : kCalls) {
        const std::string name = call.name;
        const int status = call.Make(&handle);
        if (name == "vxi_get_conn_states" || name == "vxi_driver_available") {
            EXPECT_EQ(0, status);
        } else if (name != "vxi_capabilities") {
            EXPECT_EQ(-EOPNOTSUPP, status) << name;
            EXPECT_EQ("engine made: " + name + ": not supported by this engine",
                      ErrorText(&handle));
        }
    }
    vxi_capability_s rows[7];
    ASSERT_EQ(7, vxi_capabilities(&handle, rows, 7));
    EXPECT_STREQ("not supported by this engine", rows[6].detail);
}

// Handles on several threads while faults, engine and settings change under them. What can
// be asserted is little; the run under ThreadSanitizer is the point.
void UseOneHandle()
{
    const OpenHandle handle(vxi_open());
    for (const auto& call : kCalls) {
        const int status = call.Make(handle.get());
        // New settings take the monitored port away.
        EXPECT_TRUE(!handle || status >= 0 || status == -5 || status == -ENOENT)
            << ErrorText(handle.get());
    }
    Statistics stats;
    TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats);
}

TEST(Threads, HandlesWorkWhileFaultsAndSettingsChange)
{
    ASSERT_EQ(0, vxi_engine_select("sim"));
    std::atomic<bool> done{false};
    std::vector<std::thread> users;
    for (int i = 0; i < 4; ++i) {
        users.emplace_back([&done] {
            do {
                UseOneHandle();
            } while (!done);
        });
    }
    for (int i = 0; i < 200; ++i) {
        vxi_fault_script(i % 2 ? "vxi_get_conn_states=-5:after=3,vxi_open=-1:once" : "", nullptr);
        vxi_sim_configure(i % 3 ? "flows=10" : "flows=20,blacklist=3", nullptr);
        vxi_set_profiler(i % 2 ? profiler_blockfilter : nullptr, profiler_running);
    }
    done = true;
    for (std::thread& user : users) {
        user.join();
    }
    vxi_set_profiler(nullptr, nullptr);
    vxi_fault_script(nullptr, nullptr);
}

}  // namespace
