// What only a host program can do to the module: let any allocation fail, close states with live
// objects, replace the driver.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "LuaHost.h"
#include "ScratchDirectory.h"
#include "objects/CollidingAddresses.h"
#include "vxi/vxi.h"

namespace {

const vxa_conntrack_entry_s kFlows[] = {
    {{10, 0, 0, 1}, {127, 0, 0, 1}, {128, 1}, {0, 53}, 4, 0, 0, 0, 30, 0, 0, 0, 0, 0},
    {{32, 0, 0, 1}, {254, 128}, {128, 2}, {1, 187}, 6, 3, 33, 0, 31, 5, 6, 7, 1ull << 40, 8},
    {{10, 0, 0, 1}, {127, 0, 0, 1}, {128, 3}, {0, 53}, 4, 200, 0, 0, 30, 0, 0, 0, 0, 0},
};

}  // namespace

// Replaces the driver's: one flow of UDP, two of TCP, and a false count of the latter.
extern "C" int vxi_get_conntrack(vxi_handle_ops_s*, vxa_dump_conntrack_s* section, unsigned int,
                                 unsigned int*)
{
    const bool tcp = section->protocol == 6;
    const std::uint16_t count = std::min<std::uint16_t>(tcp ? 2 : 1, section->entry_ct);
    if (section->protocol != 0) std::memcpy(section + 1, kFlows + tcp, count * sizeof kFlows[0]);
    section->entry_ct = section->protocol == 0 ? 3 : tcp ? 65535 : count;
    section->total = tcp ? 2 : 1;
    return 0;
}

namespace {

// Checks that the state frees all its memory.
struct State : LuaHost {
    ~State() { EXPECT_EQ(Close(), 0u); }
};

const ScratchDirectory s_scratch;

TEST(Connections, AreRows)
{
    State state;
    EXPECT_EQ(state.Run(R"(
        local vxa = require "vxa"
        vxa.engine "sim"
        local rows, total = vxa.open():connections()
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
        assert(total == 3 and rows == expected, rows))"),
              "");
}

// Each script starts with everything loaded; `dir` is new in every run.
const std::string kScripts[] = {
    "vxa = require 'vxa'",
    "local d = assert(vxa.Dom(dir)) d:set('k', 'v') d:set('n', 1) return d:get('k')",
    "local d = assert(vxa.Dom(dir)) d:close() return d:set('k', 1)",
    "vxa.Dom('/proc/nothing/here') vxa.ZipOutputStream('/nonexistent/a') vxa.log_to('/none/a')",
    "local d = vxa.Dom(events) local e = d:events() d:close()",
    "local z = vxa.ZipOutputStream(dir) z:close() z:entries() vxa.zip_entries(dir)",
    ("local z = vxa.ZipOutputStream(dir) z:add('a', 'b') z:add('a', '') z:close() z:entries() "
     "local r = vxa.zip_reader(dir) r:next() r:sha256() r:sha256() r:next()"),
    "vxa.uname() vxa.versions() vxa.read_tail('/etc/passwd', 9) vxa.read_tail('/no/a', 1)",
    "assert(vxa.ZipOutputStream(dir .. '.zip')) vxa.zip_read('/nonexistent/a', 'b')",
    "vxa.temporary(dir):publish() vxa.file_kind('/dev/null/x') vxa.mkdir(dir .. '/a/b')",
    "local h = assert(vxa.open()) h:set_variable(62, 1) h:connections() h:failures()",
    "vxa.engine('none') vxa.engines() vxa.fault('?') vxa.simulate('?') vxa.simulated_machine()",
    "vxa.trace('a.*', true) vxa.log_to(dir .. '.log') vxa.log_to()",
    "vxa.capture(true) vxa.captured() vxa.capture(false) vxa.open():capabilities()",
    "vxa.parse_json('{\"a\":[1,\"b\"]}', 1, false, {}) vxa.hexdump(vxa.printable('\\0'))",
    "vxa.driver_failures() vxa.replace_file(dir, 'a', true) vxa.remove_file(dir)",
    "vxa.conf_line('A=1', 1) vxa.read_file('/etc/passwd', 1e6) vxa.read_file('/', 1)",
    "vxa.file_status('/') vxa.file_status('/no')",
    "local f = vxa.append_file(dir) f:write('a') f:cut_partial_line() f:head(9) f:size() f:close()",
    "local f = vxa.rotated_file(dir, '', 1, 1, true) f:write('a') f:write('b') f:compress()",
    "vxa.start_process(':', '', 1):wait(1) vxa.run_program({ 'false' }, '', vxa.temporary(dir))",
    ("for _, r in ipairs { vxa.chart(record), vxa.replay(record, { { a = 1 } }), "
     "vxa.tune(record, 1) } do r:read() r:result() end vxa.chart('/no/a')"),
    "local r = vxa.redaction(dir) r:reserve('a') r:mask('::1 b', 'text') r:save()",
    ("local z = vxa.ZipOutputStream(dir) z:add('a', '::1') z:close() "
     "z = vxa.ZipOutputStream(record .. 2) local r = vxa.redaction() r:survey(dir, 'a', 'json') "
     "r:copy(dir, 'a', 'json', z)"),
};

const char kRecord[] =
    "# vxa record 1\n# version 1, interval 1 s\n# policy {}\n"
    "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors\n"
    "2026-01-01 00:00:00.000000,1,Activated,,0.5,,,,50,,\n";

// Runs each script with the first, the second, ... allocation failing, until none fails; returns
// the number of runs. After each, every function is usable and every lock free.
int SweepAll()
{
    static int run = 0;
    int failures = 0;
    for (const std::string& script : kScripts) {
        const char* const load =
            script == kScripts[0] ? "" : "vxa = require 'vxa' vxa.engine 'sim'";
        std::string error = "none yet";
        for (int failing = 0; !error.empty(); ++failing, ++failures) {
            State state;
            state.Run("dir, events = '" + s_scratch.Path(std::to_string(++run)) + "', '" +
                      s_scratch.Path("events") + "' record = events .. '/record.csv'");
            EXPECT_EQ(state.Run(load), "");
            EXPECT_EQ(luaL_loadstring(state.l, script.c_str()), LUA_OK) << script;
            error = state.CallFailing(0, failing);
            EXPECT_EQ(error.empty(), error.find("not enough memory") == error.npos) << error;
            EXPECT_EQ(state.Run("package.loaded.vxa = nil vxa = require 'vxa' vxa.captured() "
                                "assert(vxa.Dom():set('k', true)) vxa.trace('*', false)"),
                      "")
                << script;
        }
    }
    return failures;
}

TEST(Memory, RunningOutAnywhereLeaksNothing)
{
    std::filesystem::create_directory(s_scratch.Path("events"));
    WriteText(s_scratch.Path("events/events.jsonl"), "{\"time\":1,\"id\":1,\"text\":\"x\"}\n");
    WriteText(s_scratch.Path("events/record.csv"), kRecord);
    const std::filesystem::directory_iterator end;
    const auto descriptors =
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), end);
    EXPECT_GT(SweepAll(), 200);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), end),
              descriptors);
    // The first sweep has made what lives until the process ends. Only without the per-thread
    // cache, whose blocks count as used, is the balance exact. Sanitizers find leaks themselves.
    const std::size_t before = mallinfo2().uordblks;
    SweepAll();
    const bool is_exact = std::getenv("GLIBC_TUNABLES") != nullptr;
    EXPECT_NEAR(double(mallinfo2().uordblks), double(before), is_exact ? 256 : 65536);
}

// When a state is closed, finalizers can reach objects that are already collected, and any
// finalizer can resurrect one.
TEST(Objects, AreSafeInFinalizers)
{
    const std::string zip = s_scratch.Path("end.zip");
    {
        State state;
        EXPECT_EQ(state.Run("zip = '" + zip + "'" + R"( vxa = require "vxa"
            local function try(call, object, ...)
                local ok, why = pcall(call, object, ...)
                assert(ok or why:find("object expected"), why)
            end
            older = setmetatable({}, { __gc = function()
                try(document.set, document, "a", 1)
                try(document.events, document)
                try(archive.close, archive)
                pcall(handle.available, handle)
                handle:close()
            end })
            document, handle, archive = vxa.Dom(), vxa.open(), vxa.ZipOutputStream(zip)
            local lost = { document = vxa.Dom() }
            setmetatable(lost, { __gc = function(self) found = self.document end })
            lost = nil
            for _ = 1, 4 do collectgarbage() end
            try(found.set, found, "k", true))"),
                  "");
    }
    EXPECT_GT(std::filesystem::file_size(zip), 0u);
}

TEST(CollidingAddresses, AreRefusedBeyondTheLimit)
{
    vxa::CollidingAddresses addresses;
    std::size_t admitted = 0;
    for (int i = 0; i < 4000; ++i) {  // each twice: known ones are admitted again
        char address[] = "2001:1db8:1111:2222:3333:4444:5555:6666";
        const int not_hashed[] = {37, 33, 31};
        for (int digit = 0, rest = i % 2000; digit < 3; ++digit, rest /= 16)
            address[not_hashed[digit]] = "0123456789abcdef"[rest % 16];
        admitted += addresses.Admit(address);
    }
    EXPECT_EQ(admitted, 2000u);
    EXPECT_TRUE(addresses.Admit("2001:1db8:1111:2222:3333:4444:5555:0007"));
}

}  // namespace
