// What only a host can do to the module: let memory run out anywhere, close states with
// objects alive, load it on several threads, put a driver of its own in place.
#include <dirent.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

#include "AlikeAddresses.h"
#include "LuaHost.h"
#include "ScratchDirectory.h"
#include "vxa_core/host.h"
#include "vxi/vxi.h"

namespace {

// The flow table that the module reads in place of the library's: one flow of UDP, two of TCP.
const vxa_conntrack_entry_s kFlows[] = {
    {{10, 0, 0, 1}, {127, 0, 0, 1}, {128, 1}, {0, 53}, 4, 0, 0, 0, 30, 0, 0, 0, 0, 0},
    {{32, 0, 0, 1}, {254, 128}, {128, 2}, {1, 187}, 6, 3, 33, 0, 31, 5, 6, 7, 1ull << 40, 8},
    {{10, 0, 0, 1}, {127, 0, 0, 1}, {128, 3}, {0, 53}, 4, 200, 0, 0, 30, 0, 0, 0, 0, 0},
};
int s_flow_status = 0;
bool s_report_too_many = false;

}  // namespace

extern "C" int vxi_get_conntrack(vxi_handle_ops_s*, vxa_dump_conntrack_s* section, unsigned int,
                                 unsigned int*)
{
    if (s_flow_status != 0) return s_flow_status;
    const bool tcp = section->protocol == 6;
    const uint16_t count =
        section->protocol == 0 ? 3 : std::min<uint16_t>(tcp ? 2 : 1, section->entry_ct);
    if (section->protocol != 0) std::memcpy(section + 1, kFlows + tcp, count * sizeof kFlows[0]);
    section->entry_ct = s_report_too_many && tcp ? 65535 : count;
    section->total = tcp ? 2 : 1;
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

TEST(Connections, AreRows)
{
    State state;
    const auto read = [&](bool report_too_many) {
        s_report_too_many = report_too_many;
        return state.Run(R"(
            local vxa = require "vxa"
            vxa.engine "sim"
            local rows, total = vxa.open():connections()
            if not rows then error("failed: " .. total, 0) end
            for i, r in ipairs(rows) do
                rows[i] = table.concat({ r.protocol, r.family, r.src, r.sport, r.dst, r.dport,
                    tostring(r.state), r.flags, r.timeout, r.mark, tostring(r.packets_forward),
                    tostring(r.packets_backward), tostring(r.bytes_forward),
                    tostring(r.bytes_backward) }, " ")
            end
            local expected = [[
udp 4 10.0.0.1 32769 127.0.0.1 53 nil 0 30 0 nil nil nil nil
tcp 6 2000:1:: 32770 fe80:: 443 ESTABLISHED 33 31 5 6 7 1099511627776 8
tcp 4 10.0.0.1 32771 127.0.0.1 53 UNKNOWN 0 30 0 nil nil nil nil]]
            rows = table.concat(rows, "\n")
            assert(total == 3 and rows == expected, rows))");
    };
    EXPECT_EQ(read(false), "");
    EXPECT_EQ(read(true), "");
    s_flow_status = -1;
    EXPECT_EQ(read(false).find("failed: "), 0u);
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
    "vxa.parse_json('{\"a\":[1,\"b\"]}', 1, false, {}) vxa.hexdump(vxa.printable('\\0'))",
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
        const std::string error = state.CallFailing(0, failing);
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

TEST(AlikeAddresses, ThousandsThatAgreeInWhatLuaHashesAreRefused)
{
    vxa::AlikeAddresses addresses;
    std::size_t admitted = 0;
    for (const int again : {0, 1}) {
        char address[] = "2001:1db8:1111:2222:3333:4444:5555:6666";
        for (int i = 0; i < 2000; ++i) {
            const int skipped[] = {37, 33, 31};  // every second character from the end is hashed
            for (int digit = 0, rest = i; digit < 3; ++digit, rest /= 16)
                address[skipped[digit]] = "0123456789abcdef"[rest % 16];
            admitted += addresses.Admit(address);
        }
        EXPECT_EQ(admitted, 1000u * (again + 1)) << "known ones are admitted again";
    }
    EXPECT_TRUE(addresses.Admit("2001:1db8:1111:2222:3333:4444:5555:0007"));
    EXPECT_TRUE(addresses.Admit("::1"));
}

}  // namespace
