// What only a host can do to the module: let memory run out anywhere, close states with
// objects alive, load it on several threads, put a driver of its own in place.
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <netinet/in.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "LuaHost.h"
#include "ScratchDirectory.h"
#include "vxa_core/host.h"
#include "vxi/vxi.h"

namespace {

// The flow table that the module reads in place of the library's.
std::vector<vxa_conntrack_entry_s> s_flows[2];  // UDP, TCP
int s_flow_status = 0;
bool s_report_too_many = false;

}  // namespace

extern "C" int vxi_get_conntrack(vxi_handle_ops_s*, vxa_dump_conntrack_s* section,
                                 unsigned int size, unsigned int*)
{
    if (s_flow_status != 0) return s_flow_status;
    if (section->protocol == 0) {
        section->entry_ct = static_cast<uint16_t>(s_flows[0].size() + s_flows[1].size());
        return 0;
    }
    const auto& flows = s_flows[section->protocol == 6];
    const size_t room = (size - sizeof *section) / sizeof flows[0];
    const size_t filled = std::min({room, flows.size(), size_t(section->entry_ct)});
    std::memcpy(section + 1, flows.data(), filled * sizeof flows[0]);
    section->entry_ct = s_report_too_many ? 65535 : static_cast<uint16_t>(filled);
    section->total = static_cast<uint32_t>(flows.size());
    return 0;
}

namespace {

// Everything that the state took is given back with it.
struct State : LuaHost {
    ~State() { EXPECT_EQ(Close(), 0u); }
};

const ScratchDirectory s_scratch;

int OpenDescriptors()
{
    int count = 0;
    DIR* directory = opendir("/proc/self/fd");
    while (readdir(directory)) ++count;
    closedir(directory);
    return count;
}

vxa_conntrack_entry_s Flow(int number)
{
    vxa_conntrack_entry_s flow{};
    flow.source[0] = 10;
    flow.source[3] = 1;
    flow.destination[0] = 127;
    flow.destination[3] = 1;
    flow.source_port[0] = 0x80;
    flow.source_port[1] = static_cast<uint8_t>(number);
    flow.destination_port[1] = 53;
    flow.family = 4;
    flow.timeout_s = 30;
    return flow;
}

void SetFlows()
{
    s_flows[0] = {Flow(1), Flow(2)};
    s_flows[1] = {Flow(3), Flow(4), Flow(5)};
    vxa_conntrack_entry_s& counted = s_flows[1][0];
    counted.tcp_state = 3;
    counted.flags = VXA_FLOW_COUNTERS_VALID | VXA_FLOW_SEEN_REPLY;
    counted.bytes_forward = 1ull << 40;
    counted.packets_backward = 7;
    counted.family = 6;
    counted.source[0] = 0x20;
    counted.source[15] = 9;
    s_flows[1][1].tcp_state = 200;
}

TEST(Connections, AreRows)
{
    SetFlows();
    State state;
    EXPECT_EQ(state.Run(R"(
        local vxa = require "vxa"
        vxa.engine "sim"
        local rows, total = assert(vxa.open()):connections()
        assert(#rows == 5 and total == 5)
        local udp, tcp = rows[1], rows[3]
        assert(udp.protocol == "udp" and udp.src == "10.0.0.1" and udp.dst == "127.0.0.1")
        assert(udp.sport == 32769 and udp.dport == 53 and udp.family == 4 and udp.state == nil)
        assert(udp.timeout == 30 and udp.mark == 0 and udp.flags == 0)
        assert(udp.bytes_forward == nil)
        assert(tcp.protocol == "tcp" and tcp.state == "ESTABLISHED" and tcp.flags == 33)
        assert(tcp.src == "2000:1::9" and tcp.bytes_forward == 2^40 and tcp.packets_backward == 7)
        assert(rows[4].state == "UNKNOWN"))"),
              "");
    s_report_too_many = true;
    EXPECT_EQ(state.Run("assert(#assert(require 'vxa'.open()):connections() == 5)"), "");
    s_report_too_many = false;
    s_flow_status = -1;
    EXPECT_EQ(state.Run("local rows, why = require 'vxa'.open():connections()\n"
                        "assert(rows == nil and type(why) == 'string')"),
              "");
    s_flow_status = 0;
}

// Each script starts with everything loaded; `dir` is new in every run.
const char* const kScripts[] = {
    "vxa.Dom()",
    "local d = assert(vxa.Dom(dir)) d:set('k', 'v') d:set('n', 1) return d:get('k')",
    "local d = assert(vxa.Dom(dir)) d:close() return d:set('k', 1)",
    "vxa.Dom('/proc/nothing/here')",
    "local d = vxa.Dom(events) local e = d:events() d:close()",
    "local z = assert(vxa.ZipOutputStream(dir .. '.zip')) return z:close()",
    "assert(vxa.ZipOutputStream(dir .. '.zip'))",
    "vxa.ZipOutputStream('/nonexistent/a')",
    "local z = assert(vxa.ZipOutputStream(dir .. '.zip')) z:close() vxa.zip_entries(dir .. '.zip')",
    "vxa.zip_read('/nonexistent/a', 'b') vxa.zip_entries('/dev/null')",
    "vxa.temporary(dir):publish() vxa.file_kind('/') vxa.file_kind('/dev/null/x')",
    "assert(vxa.open()):set_variable(62, 1)",
    "local h = assert(vxa.open()) h:available() h:error() h:close()",
    "assert(vxa.open()):capabilities()",
    "assert(vxa.open()):connections()",
    "vxa.engine() vxa.engine('none') vxa.engines()",
    "vxa.fault('?') vxa.simulate('?') vxa.simulated_machine()",
    "vxa.trace('a.*', true) vxa.trace('*', false) vxa.verbose(false)",
    "vxa.log_to(dir .. '.log') vxa.log_to()",
    "vxa.log_to('/nonexistent/a')",
    "vxa.capture(true) vxa.captured() vxa.capture(false)",
    "vxa.check_json('{') vxa.check_json('{}')",
    "vxa.conf_line('A=1', 1) vxa.read_file('/etc/passwd', 1e6) vxa.read_file('/', 1)",
    "vxa.check_environment() vxa.simulated_tick() vxa.reload_asked()",
    "vxa.mkdir(dir .. '/a/b') vxa.setenv('A', 'b')",
    "vxa.clock() vxa.sleep(0) vxa.interrupted() vxa.isatty(1) vxa.euid()",
};

// Runs the script with the first, the second, ... allocation failing, until it ends by
// itself; returns how many failures that took. `after` must succeed whatever failed.
int Sweep(const std::string& before, const std::string& script, const char* after)
{
    static int run = 0;
    for (int failing = 0; failing < 2000; ++failing) {
        State state;
        const std::string dir = s_scratch.path(std::to_string(++run));
        EXPECT_EQ(
            state.Run("dir = '" + dir + "' events = '" + s_scratch.path("events") + "' " + before),
            "");
        EXPECT_EQ(luaL_loadstring(state.L, script.c_str()), LUA_OK) << script;
        const std::string error = state.CallFailing(0, failing, true);
        if (error.empty()) return failing;
        EXPECT_NE(error.find("not enough memory"), std::string::npos) << script << ": " << error;
        EXPECT_EQ(state.Run(after), "") << script;
    }
    ADD_FAILURE() << script << ": never ran to its end";
    return 0;
}

int SweepAll()
{
    int failures = Sweep("", "vxa = require 'vxa'",
                         "package.loaded.vxa = nil vxa = require 'vxa' vxa.Dom():close()");
    for (const char* script : kScripts)
        failures += Sweep("vxa = require 'vxa' vxa.engine 'sim'", script,
                          // Every function is usable, and every lock free.
                          "vxa.captured() assert(vxa.Dom():set('k', true)) vxa.trace('*', false)");
    return failures;
}

// Events for the script that reads them.
void WriteEvents()
{
    State state;
    EXPECT_EQ(state.Run("events = '" + s_scratch.path("events") + "'\n" + R"(
        require "vxa".Dom(events):close()
        local file = io.open(events .. "/events.jsonl", "w")
        for i = 1, 3 do file:write('{"time":1,"id":', i, ',"text":"', ('x'):rep(100), '"}\n') end
        file:close())"),
              "");
}

TEST(Memory, RunningOutAnywhereLeaksNothing)
{
    SetFlows();
    WriteEvents();
    const int descriptors = OpenDescriptors();
    EXPECT_GT(SweepAll(), 200);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    // What the first round made for the life of the process it has made by now. The
    // allocator counts what its per-thread cache holds as used: only without it is the
    // balance exact. The sanitizers' allocator keeps no such count, and finds leaks itself.
    const size_t before = mallinfo2().uordblks;
    SweepAll();
    const char* tunables = std::getenv("GLIBC_TUNABLES");
    const bool exact = tunables && std::strstr(tunables, "glibc.malloc.tcache_count=0");
    EXPECT_NEAR(double(mallinfo2().uordblks), double(before), exact ? 256 : 65536);
}

// At the end of a state finalizers run while objects that they can reach are collected.
TEST(Objects, StaySafeUntilTheStateIsClosed)
{
    const std::string zip = s_scratch.path("end.zip");
    {
        State state;
        EXPECT_EQ(state.Run("vxa = require 'vxa'\n"
                            "log = {}\n"
                            "older = setmetatable({}, { __gc = function()\n"
                            "    for _, object in ipairs { document, archive } do\n"
                            "        local ok, why = pcall(object.close, object)\n"
                            "        assert(ok or why:find('object expected'), why)\n"
                            "    end\n"
                            "    pcall(document.set, document, 'a', 1)\n"
                            "    pcall(document.events, document)\n"
                            "    pcall(handle.available, handle)\n"
                            "    handle:close()\n"
                            "    finished = true\n"
                            "end })\n"
                            "document = vxa.Dom() handle = vxa.open()\n"
                            "archive = vxa.ZipOutputStream('" +
                            zip + "')\n"),
                  "");
    }
    EXPECT_GT(std::filesystem::file_size(zip), 0u);
}

TEST(Objects, BroughtBackByAFinalizerStaySafe)
{
    State state;
    EXPECT_EQ(state.Run(R"(vxa = require "vxa"
        local lost = { document = vxa.Dom() }
        setmetatable(lost, { __gc = function(self) found = self.document end })
        lost = nil
        for _ = 1, 4 do collectgarbage() end
        local ok, why = pcall(found.set, found, "k", true)
        assert(ok or why:find("SLB.Dom object expected"), why))"),
              "");
}

TEST(Threads, StatesDoNotDisturbEachOther)
{
    std::string errors[2];
    const auto work = [&](int number) {
        State state;
        const std::string directory = s_scratch.path("thread" + std::to_string(number));
        errors[number] = state.Run("local vxa, dir = require 'vxa', '" + directory + "'\n" + R"(
            for i = 1, 50 do
                local d = vxa.Dom()
                d:set("k", i)
                assert(d:get("k") == i)
                vxa.trace("thread.*", i % 2 == 0)
                vxa.captured()
                vxa.sleep(0)
                local h = assert(vxa.open())
                h:available()
                h:close()
            end
            local d = assert(vxa.Dom(dir))
            assert(d:set("k", "v") and d:close())
            assert(assert(vxa.ZipOutputStream(dir .. "/a.zip")):close()))");
    };
    std::thread first(work, 0);
    std::thread second(work, 1);
    first.join();
    second.join();
    for (const std::string& error : errors) EXPECT_EQ(error, "");
}

}  // namespace
