// What holds for every engine: arguments, counts, scripted faults, errors, traces and threads.
#include <atomic>
#include <cstdlib>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "Fixture.h"
#include "api/Engine.h"

namespace {

class Dispatch : public SimulatedMachine {
protected:
    static void Script(const std::string& text) { vxi_fault_script(text.c_str(), nullptr); }
    int GetStates() { return vxi_get_conn_states(Driver(), Pointer(vxa_get_conn_states_s())); }

    void ExpectFailure(int expected, const std::string& message, int status)
    {
        EXPECT_EQ(expected, status) << message;
        EXPECT_EQ(0U, ErrorText(Driver()).find("engine sim: vxi_"));
        EXPECT_NE(std::string::npos, ErrorText(Driver()).find(message)) << ErrorText(Driver());
    }
};

TEST_F(Dispatch, EveryCallSurvivesANullHandleAndCanFail)
{
    std::string script;
    int status = -41;
    for (const auto& call : kCalls) {
        EXPECT_EQ(-EBADF, call.Make(nullptr)) << call.name;
        script += std::string(call.name) + "=" + std::to_string(status--) + ",";
    }
    vxi_close(nullptr);
    vxi_set_trace_level(nullptr, 3);
    vxi_set_trace_handler(nullptr, nullptr);
    Script(script);
    status = -41;
    for (const auto& call : kCalls) {
        ExpectFailure(status--, call.name, call.Make(Driver()));
    }
}

TEST_F(Dispatch, BadArgumentsAreNamed)
{
    const Handle h = Driver();
    const auto conntrack = [h](vxa_dump_conntrack_s section, unsigned size = 16) {
        return vxi_get_conntrack(h, &section, size, nullptr);
    };
    const auto scan = [h](std::uint32_t version, std::uint32_t direction, unsigned length = 192) {
        scan_metrics_request request = ScanRequest(kPort, direction);
        request.version = version;
        return vxi_get_scan_metrics(h, &request, length);
    };
    Statistics stats;
    stats.area3 = nullptr;
    scan_monitor_config config{1, 0, {}, {}};
    ExpectFailure(-EINVAL, "get_stats: no record given", vxi_get_stats(h, &stats, 6408));
    ExpectFailure(-EINVAL, "size 6407 is less", vxi_get_stats(h, &stats, 6407));
    ExpectFailure(-EINVAL, "conntrack: no record", vxi_get_conntrack(h, nullptr, 16, nullptr));
    ExpectFailure(-EINVAL, "var: no record", vxi_get_var(h, 1, nullptr));
    ExpectFailure(-EINVAL, "monitoring: no record", vxi_set_scan_monitoring(h, nullptr));
    ExpectFailure(-EINVAL, "size 15", conntrack(ConntrackRequest(), 15));
    ExpectFailure(-EINVAL, "protocol 132", conntrack(ConntrackRequest(132)));
    ExpectFailure(-ENODATA, "ask for the count", conntrack(ConntrackRequest(6)));
    ExpectFailure(VXI_E_UNKNOWN_VARIABLE, "variable 173 is unknown", vxi_set_var(h, 173, 0));
    ExpectFailure(-EROFS, "vxi_set_var: variable 64", vxi_set_var(h, 64, 0));
    config.inbound[7] = config.outbound[7] = 4;
    ExpectFailure(-EINVAL, "exactly one port", vxi_set_scan_monitoring(h, &config));
    ASSERT_EQ(0, MonitorPort(h, kPort));
    ExpectFailure(-EINVAL, "length 71", scan(1, VXI_SCAN_INBOUND, 71));
    ExpectFailure(-EINVAL, "version 9", scan(9, VXI_SCAN_INBOUND));
    ExpectFailure(-EINVAL, "direction 3", scan(1, 3));
    ExpectFailure(-ENOENT, "port 8080 is not monitored", scan(1, VXI_SCAN_OUTBOUND));
    EXPECT_EQ(0, vxi_set_var(h, 62, 0)) << "a success, which must keep the message";
    char text[12];
    EXPECT_EQ(0, vxi_get_error(h, text, sizeof text));
    EXPECT_STREQ("engine sim:", text);
    EXPECT_EQ(-EINVAL, vxi_get_error(h, text, 0));
    EXPECT_EQ(-EBADF, vxi_get_error(nullptr, text, sizeof text));
}

TEST_F(Dispatch, ScanCountersStayInsideTheRequest)
{
    const std::uint32_t cases[][5] = {{0, 4000000000U, 4000000000U, 192, 10},
                                      {31, 10, 1, 96, 3},
                                      {32, 10, 1, 79, 0},
                                      {65535, 10, 0, 192, 0}};
    for (const auto& [port, counters, entries, length, delivered] : cases) {
        scan_metrics_request request =
            ScanRequest(static_cast<std::uint16_t>(port), VXI_SCAN_OUTBOUND);
        ASSERT_EQ(0, MonitorPort(Driver(), request.port, request.direction));
        std::memset(request.counter, 0xee, sizeof request.counter);
        request.counters = counters;
        request.entries = entries;
        ASSERT_EQ(0, vxi_get_scan_metrics(Driver(), &request, length));
        EXPECT_EQ(delivered, request.counters);
        EXPECT_EQ(entries != 0, request.entries);
        for (unsigned i = 0; i < 15; ++i) {
            EXPECT_EQ(i >= delivered, request.counter[i] == 0xeeeeeeeeeeeeeeeeU) << i;
        }
    }
}

// The fill request for an empty list must not be taken for another size request.
TEST_F(Dispatch, FillingAnEmptyBlacklistStaysEmpty)
{
    vxa_blacklist_get_addrs_s list{};
    for (const char* const settings : {"blacklist=0", "blacklist=5"}) {
        Configure(settings);
        ASSERT_EQ(0, vxi_get_blacklist(Driver(), &list));
        EXPECT_EQ(0U, list.entries_size);
    }
}

TEST_F(Dispatch, TracesByLevel)
{
    static int traces;
    vxi_set_trace_handler(Driver(),
                          [](int, const char*, const char*, int, char*) { return ++traces; });
    for (const auto& [level, expected] : {std::pair(0, 0), {1, 1}, {2, 1}, {99, 2}, {-1, 0}}) {
        traces = 0;
        vxi_set_trace_level(Driver(), level);
        vxi_driver_available(Driver());
        vxi_set_var(Driver(), 64, 0);
        EXPECT_EQ(expected, traces) << level;
    }
}

TEST_F(Dispatch, FaultsApplyAsScripted)
{
    const std::tuple<std::string, std::vector<int>, std::string> cases[] = {
        {"vxi_get_conn_states=-10017", {-10017, -10017}, "unknown variable"},
        {R"(vxi_get_conn_states=-5:a\, b\: c\\ 100%s:once)", {-5, 0, 0}, R"(a, b: c\x5c 100%s)"},
        {"vxi_get_conn_states=-5:caf\xc3\xa9:times=2", {-5, -5, 0}, R"(caf\xc3\xa9)"},
        {"vxi_get_conn_states=-5:after=1:once", {0, -5, 0, 0}, "Input/output error"},
        {"vxi_get_conn_states=-5:once , vxi_get_conn_states = -110:after=1",
         {-5, 0, -110},
         "Connection timed out"},
    };
    for (const auto& [script, statuses, message] : cases) {
        Script(script);
        for (const int status : statuses) {
            EXPECT_EQ(status, GetStates()) << script;
        }
        EXPECT_EQ("engine sim: vxi_get_conn_states: " + message, ErrorText(Driver()));
    }
}

TEST_F(Dispatch, TheLatestFailuresAreRemembered)
{
    vxi_failure_s rows[VXI_FAILURES_KEPT];
    Script("vxi_get_conn_states=-5:times=150,vxi_driver_available=0");
    for (int call = 0; call < 160; ++call) {
        GetStates();
    }
    vxi_get_var(Driver(), 173, Pointer(vxa_filter_variable_s()));  // unknown: not a failure
    EXPECT_EQ(0, vxi_driver_available(Driver()));
    EXPECT_EQ(151U, vxi_failures(Driver(), rows, 1000));
    EXPECT_EQ(-5, rows[98].status);
    EXPECT_STREQ("engine sim: vxi_get_conn_states: Input/output error", rows[98].message);
    EXPECT_STREQ("vxi_driver_available", rows[99].call);
}

TEST_F(Dispatch, MalformedSettingsAreRefused)
{
    Script("vxi_get_conn_states=-5");
    const std::tuple<int (*)(const char*, unsigned*), const char*, unsigned> cases[] = {
        {vxi_fault_script, "vxi_get_conn_states=0", 20},
        {vxi_fault_script, "vxi_get_conn_states=-5x", 22},
        {vxi_fault_script, "vxi_get_conn_states=-5:times=-1", 29},
        {vxi_fault_script, "vxi_get_conn_states=-5:once:no answer, really=1", 39},
        {vxi_fault_script, "vxi_get_conn_states=-5:one:two", 27},
        {vxi_sim_configure, "cpus=4097", 5},
        {vxi_sim_configure, "seed=1,,cpus=2", 7},
        {vxi_sim_configure, "scenario=busy:0", 14},
        {vxi_sim_configure, "scenario=busy:3/melting", 16},
    };
    for (const auto& [apply, text, expected] : cases) {
        unsigned position = 999;
        EXPECT_EQ(-EINVAL, apply(text, &position)) << text;
        EXPECT_EQ(expected, position) << text;
    }
    EXPECT_EQ(-5, GetStates());
}

// The environment is read once per process, so each case is a process.
TEST(EnvironmentDeathTest, BadVariablesKeepHandlesFromOpening)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const output =
        "^.nil. .*(VXI_(ENGINE: unknown engine '.xc3.xa4'; known engines: linux, sim|SIM cannot be "
        "read at character 6: .*4096|FAULT .* one of vxi_open, .*vxi_capabilities)[|]){2}$";
    for (std::string variable : {"VXI_ENGINE=\xc3\xa4", "VXI_SIM=cpus=0", "VXI_FAULT=x=1"}) {
        EXPECT_EXIT(
            {
                setenv("VXI_ENGINE", "sim", 1);
                putenv(variable.data());
                std::fprintf(stderr, "%p ", static_cast<void*>(vxi_open()));
                std::fprintf(stderr, "%s|%s|", vxi_open_error(), vxi_check_environment());
                std::_Exit(0);
            },
            testing::ExitedWithCode(0), output);
    }
}

int (*get_states)();  // of the engine below

struct PartialOperations : vxi::DefaultOperations {
    static int GetConnStates(Handle, vxa_get_conn_states_s*) { return get_states(); }
};
constexpr vxi::Engine kPartial = {VXI_ABI_VERSION, "made", vxi::MakeOperations<PartialOperations>(),
                                  nullptr};

// Whatever an engine lacks or throws, the caller gets a status and a message about it.
TEST(PartialEngine, NothingIsMissingAndNothingEscapes)
{
    vxi_handle_ops_s handle{&kPartial.operations, &kPartial, nullptr, 0, nullptr, "", {}};
    get_states = []() -> int { throw std::runtime_error("p\xc3\xa9rdu"); };
    EXPECT_EQ(-EIO, vxi_get_conn_states(&handle, Pointer(vxa_get_conn_states_s())));
    EXPECT_EQ("engine made: vxi_get_conn_states: p\\xc3\\xa9rdu", ErrorText(&handle));
    get_states = []() -> int { throw vxi::Error(-EPERM, std::string(600, 'x')); };
    EXPECT_EQ(-EPERM, vxi_get_conn_states(&handle, Pointer(vxa_get_conn_states_s())));
    EXPECT_EQ("engine made: vxi_get_conn_states: " + std::string(221, 'x'), ErrorText(&handle));
    EXPECT_EQ(-EOPNOTSUPP, vxi_set_var(&handle, 62, 0));
    EXPECT_EQ("engine made: vxi_set_var: not supported by this engine", ErrorText(&handle));
    EXPECT_EQ(0, vxi_driver_available(&handle));
    EXPECT_EQ(4U, vxi_failures(&handle, nullptr, 0));
    constexpr auto kCount = static_cast<int>(std::size(vxi::kFacilityNames));
    vxi_capability_s rows[kCount];
    ASSERT_EQ(kCount, vxi_capabilities(&handle, rows, kCount));
    EXPECT_STREQ("not supported by this engine", rows[kCount - 1].detail);
}

// Little can be asserted: the run under ThreadSanitizer is the point.
TEST_F(Dispatch, HandlesWorkWhileFaultsAndSettingsChange)
{
    std::atomic<bool> done{false};
    const auto use = [&done] {
        while (!done) {
            const OpenHandle handle(vxi_open());
            for (const auto& call : kCalls) {
                const int status = call.Make(handle.get());
                EXPECT_TRUE(!handle || status >= 0 || status == -5) << ErrorText(handle.get());
            }
            TextOf<vxa_stats_v2_s>(tb_dump_stats, Pointer(Statistics()));
        }
    };
    std::thread users[] = {std::thread(use), std::thread(use), std::thread(use)};
    for (int i = 0; i < 200; ++i) {
        vxi_fault_script(i % 2 ? "vxi_get_conn_states=-5:after=3,vxi_open=-1:once" : "", nullptr);
        vxi_sim_configure(i % 3 ? "flows=10" : "flows=20,blacklist=3", nullptr);
    }
    done = true;
    for (std::thread& user : users) {
        user.join();
    }
}

}  // namespace
