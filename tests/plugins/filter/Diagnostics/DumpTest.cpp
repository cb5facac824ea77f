// Each dump by itself: what it asks of the driver, and what becomes of every answer: entry,
// event, trace and result.

#include <algorithm>
#include <clocale>
#include <cstring>
#include <memory>
#include <optional>

#include <gtest/gtest.h>
#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "AllocationLimit.h"
#include "Diagnostics/DriverErrors.h"
#include "Diagnostics/Dumps.h"
#include "Diagnostics/TextSink.h"
#include "HostRecording.h"
#include "LuaArgs.h"
#include "RecordingDriver.h"
#include "vxa_core/archive.h"
#include "vxa_core/document.h"

namespace {

using namespace Filter::Diagnostics;
using Lines = host::Lines;
using Statuses = std::vector<int>;
using Counts = std::vector<std::uint32_t>;

struct Entry {
    std::string name;
    bool text;
    std::string comment;
    std::string bytes;
};

std::vector<Entry> s_entries;
bool s_archive_refuses = false;

constexpr std::uint32_t kHuge = 0xffffffff;
constexpr std::size_t kLargeBlock = 5000;

struct Dump {
    bool (*add)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);
    const char* entry;
    const char* call;
    const char* trace;
    bool without_driver;  // the result
};

constexpr Dump kStatistics{AddDriverStatistics, "vxa_stats.txt", "get_stats",
                           "100 AddDriverStatistics: AddDriverStatistics()", false};
constexpr Dump kVariables{AddDriverVariables, "vxa_variables.txt", "get_varv",
                          "141 AddDriverVariables: AddDriverVariables()", false};
constexpr Dump kStates{AddDriverConnStates, "vxa_conn_states.txt", "get_conn_states",
                       "37 AddDriverConnStates: AddDriverConnStates()", false};
constexpr Dump kConnections{AddDriverConnTrack, "vxa_conn_track.txt", "get_conntrack",
                            "55 AddDriverConnTrack: AddDriverConnTrack()", true};
constexpr Dump kBlacklist{AddDriverBlacklist, "vxa_blacklist.txt", "get_blacklist",
                          "17 AddDriverBlacklist: AddDriverBlacklist()", false};
constexpr Dump kRules{AddDriverRuleStats, "vxa.tpf", "get_profile_stats",
                      "164 AddDriverRuleStats: AddDriverRuleStats()", true};

class DumpTest : public ::testing::Test {
protected:
    void SetUp() override { Start({}); }
    void TearDown() override { s_archive_refuses = false; }

    // From here on the driver answers so, and what came before is forgotten.
    void Start(const driver::Answers& answers, bool traced = true)
    {
        driver::SetAnswers(answers);
        driver::TakeCalls();
        host::EnableTraces(traced);
        host::TakeTraces();
        s_entries.clear();
        m_document = std::make_unique<VxaCore::CDom>(VxaCore::CDom::Store::InMemory());
    }

    bool Add(const Dump& dump) { return dump.add(m_document.get(), m_handle, m_archive); }

    // "ID TEXT"; "ID utf8 TEXT" if given in UTF-8.
    Lines Events() const
    {
        Lines lines;
        std::size_t unreadable = 0;
        for (const auto& event : m_document->store().Events(unreadable))
            lines.push_back(std::to_string(event.id) + " " + event.text);
        return lines;
    }

    // "LINE FUNCTION: MESSAGE", but for those of the availability query.
    static Lines Traces()
    {
        Lines lines;
        for (const host::Record& trace : host::TakeTraces()) {
            EXPECT_EQ(trace.label + trace.file, "diagnosticsplugins/filter/Diagnostics");
            if (trace.function != "IsDriverOpen")
                lines.push_back(std::to_string(trace.line) + " " + trace.function + ": " +
                                trace.message);
        }
        return lines;
    }

    static std::vector<driver::Call> CallsOf(const std::string& name)
    {
        std::vector<driver::Call> calls;
        for (driver::Call& call : driver::TakeCalls())
            if (call.name == name) calls.push_back(std::move(call));
        return calls;
    }

    vxi_handle_ops_s* m_handle = vxi_open();
    std::unique_ptr<VxaCore::CDom> m_document;
    VxaCore::CZipOutputStream m_archive{VxaCore::CZipOutputStream::Archive::Create("/dev/null")};
};

// ---- every answer of the driver --------------------------------------------------------

struct Outcome {
    bool result;
    std::optional<std::string> entry;
};

const Outcome kFails{false, std::nullopt};
const Outcome kNothing{true, std::nullopt};

Outcome Text(const std::string& bytes)
{
    return {true, bytes};
}

Outcome Sections(int udp, int tcp)
{
    const auto section = [](int protocol, int entries) {
        return std::to_string(protocol) + ": " + std::to_string(entries) + " entries, " +
               std::to_string(72 * entries) + " bytes\n";
    };
    return Text(section(17, udp) + section(6, tcp));
}

Outcome Filled(int bytes)
{
    return Text(std::to_string(bytes) + " bytes, " + std::to_string(bytes) + " filled\n");
}

Outcome Payload(int size)
{
    std::string bytes;
    for (int i = 1; i <= size; ++i) bytes.push_back(static_cast<char>(i));
    return Text(bytes);
}

Outcome AllVariables()
{
    std::string text;
    for (int i = 0; i < 173; ++i) text += std::to_string(i) + " " + std::to_string(3 * i) + " 0\n";
    return Text(text);
}

// The nth call, from 0, fails.
Statuses FailAt(std::size_t nth, int status)
{
    Statuses statuses(nth + 2);
    statuses[nth] = status;
    return statuses;
}

constexpr std::uint32_t WordAt(std::uint32_t offset, std::uint16_t word)
{
    return offset << 16 | word;
}

const std::string kEvent = "408 ShowErrors: AgentWrite ";

std::string Failed(const std::string& operation)
{
    return kEvent + "1001 " + operation + " (E)";
}

std::string Total(int count)
{
    return "273 getDriverConnTrack: totConn.entry_ct was " + std::to_string(count);
}

std::string Udp(int count)
{
    return "296 getDriverConnTrack: udpConn->entry_ct = " + std::to_string(count);
}

std::string Tcp(int count)
{
    return "315 getDriverConnTrack: tcpConn->entry_ct = " + std::to_string(count);
}

const Outcome kStats = Text("1000 1207 2000 2029 3000 3554\n");
const std::string kAbout = "107 AddDriverStatistics: AddDriverStatistics() - about to get stats";
const std::string kGet = "333 getDriverStatistics: getDriverStatistics()";
const std::string kCall = "338 getDriverStatistics: driver is opened calling vxi_get_stats";
const std::string kGot = "124 AddDriverStatistics: AddDriverStatistics() - got stats";
const std::string kDumped = "126 AddDriverStatistics: AddDriverStatistics() - dumped stats";
const std::string kNotEchoed = Failed("GET_STATS|ffffffff");
const std::string kTrackFailed = Failed("GET_CONN_TRACK|fffffffb");
const std::string kUdpFailed = "293 getDriverConnTrack: rc = -5";
const std::string kTcpFailed = "311 getDriverConnTrack: rc = -6";
const std::string kListFailed = Failed("BLACKLIST_ADD|fffffffb");
const std::string kRulesFailed = Failed("vxi_get_profile_stats()|fffffffb");

const struct Case {
    const Dump& dump;
    Counts counts;      // that the first, the second ... call tells; see RecordingDriver.h
    Statuses statuses;  // likewise
    Outcome outcome;
    Lines traces = {};  // after the dump's own
    bool without_memory = false;
} kCases[] = {
    {kStatistics, {}, {}, kStats, {kAbout, kGet, kCall, kGot, kDumped}},
    {kStatistics, {}, {-5}, kFails, {kAbout, kGet, kCall, Failed("GET_STATS|fffffffb")}},
    {kStatistics, {WordAt(24, 276)}, {}, kFails, {kAbout, kGet, kCall, kNotEchoed}},
    {kStatistics, {WordAt(26, 31)}, {}, kFails, {kAbout, kGet, kCall, kNotEchoed}},
    {kStatistics, {WordAt(28, 0)}, {}, kFails, {kAbout, kGet, kCall, kNotEchoed}},
    {kStatistics, {WordAt(30, 0)}, {}, kStats, {kAbout, kGet, kCall, kGot, kDumped}},
    {kStatistics, {}, {}, kFails, {}, true},

    {kVariables, {}, {}, AllVariables()},
    {kVariables, {}, FailAt(172, -10017), kFails},
    {kVariables, {}, FailAt(5, -5), kFails, {Failed("GET_VARIABLE|fffffffb")}},

    {kStates, {}, {}, Text("1010101 1010101\n")},
    {kStates, {}, {-5}, kFails, {Failed("GET_CONN_STATES|fffffffb")}},

    {kConnections, {1000, 300, 500}, {}, Sections(300, 500), {Total(1000), Udp(300), Tcp(500)}},
    {kConnections, {0}, {}, kNothing, {Total(0)}},
    {kConnections, {7, 7, 9}, {}, Sections(7, 0), {Total(7), Udp(7), Tcp(0)}},
    {kConnections, {65535, 1, 65534}, {}, Sections(1, 65534), {Total(65535), Udp(1), Tcp(65534)}},
    // Held to the room; the traces show the driver's own number.
    {kConnections, {3, 65535}, {}, Sections(3, 0), {Total(3), Udp(65535), Tcp(0)}},
    {kConnections, {3, 1, 65535}, {}, Sections(1, 2), {Total(3), Udp(1), Tcp(65535)}},
    {kConnections, {3, 1, 2}, {-5}, kFails, {kTrackFailed}},
    // A driver that fails may have written anything before.
    {kConnections,
     {3, 65535, 3},
     {0, -5, 0},
     Sections(0, 3),
     {Total(3), kTrackFailed, kUdpFailed, Udp(0), Tcp(3)}},
    {kConnections,
     {3, 1, 65535},
     {0, 0, -6},
     Sections(1, 0),
     {Total(3), Udp(1), Failed("GET_CONN_TRACK|fffffffa"), kTcpFailed, Tcp(0)}},
    {kConnections,
     {1000},
     {},
     kNothing,
     {Total(1000), "318 getDriverConnTrack: malloc 72032 bytes failed."},
     true},

    {kBlacklist, {96}, {}, Filled(96)},
    {kBlacklist, {0}, {}, Filled(0)},
    {kBlacklist, {96, 48}, {}, Filled(48)},
    {kBlacklist,
     {48, kHuge},
     {},
     Filled(48),
     {"245 getDriverBlacklist: driver reported 4294967295 bytes, room for 48"}},
    {kBlacklist, {96}, {-5}, kFails, {kListFailed}},
    {kBlacklist, {96}, {0, -5}, kFails, {kListFailed}},
    {kBlacklist, {kHuge - 43, 96}, {}, kFails},
    {kBlacklist, {kHuge, 96}, {}, kFails},
    {kBlacklist, {kLargeBlock}, {}, kFails, {}, true},

    {kRules, {5000}, {}, Payload(5000)},
    {kRules, {0}, {}, Payload(0)},
    {kRules, {40}, {-5}, Payload(0)},
    {kRules, {40}, {0, -5}, Payload(0), {kRulesFailed}},
    {kRules, {40, 7}, {}, Payload(7)},
    {kRules,
     {40, kHuge},
     {},
     Payload(40),
     {"190 AddDriverRuleStats: driver reported 4294967295 bytes, room for 40"}},
    {kRules, {kHuge, 1}, {}, Payload(0), {"182 AddDriverRuleStats: malloc() failed"}, true},
};

TEST_F(DumpTest, EveryAnswerOfTheDriver)
{
    for (std::size_t i = 0; i < 2 * std::size(kCases); ++i) {
        const bool traced = i % 2 == 0;
        const Case& c = kCases[i / 2];
        SCOPED_TRACE(c.dump.entry + (": " + ::testing::PrintToString(c.counts)) + ", " +
                     ::testing::PrintToString(c.statuses));
        driver::Answers answers;
        answers.error = "E";
        answers.counts[c.dump.call] = c.counts;
        answers.statuses[c.dump.call] = c.statuses;
        Start(answers, traced);
        if (c.without_memory && !allocations::RefuseFrom(kLargeBlock)) continue;
        const bool result = Add(c.dump);
        allocations::RefuseFrom(0);
        EXPECT_EQ(result, c.outcome.result);
        Lines traces{c.dump.trace};
        Lines events;
        for (const std::string& trace : c.traces)
            if (trace.rfind(kEvent, 0) == 0) events.push_back(trace.substr(kEvent.size()));
        EXPECT_EQ(Events(), events);
        traces.insert(traces.end(), c.traces.begin(), c.traces.end());
        EXPECT_EQ(Traces(), traced ? traces : Lines{});
        ASSERT_EQ(s_entries.size(), c.outcome.entry ? 1u : 0u);
        if (s_entries.empty()) continue;
        EXPECT_EQ(s_entries[0].name, c.dump.entry);
        EXPECT_EQ(s_entries[0].text, c.dump.add != AddDriverRuleStats);
        EXPECT_EQ(s_entries[0].comment, "");
        EXPECT_EQ(s_entries[0].bytes, *c.outcome.entry);
    }
}

TEST_F(DumpTest, WithoutDriverOrArchive)
{
    for (const Dump& dump : {kStatistics, kVariables, kStates, kConnections, kBlacklist, kRules}) {
        SCOPED_TRACE(dump.entry);
        driver::Answers answers;
        answers.counts[dump.call] = {1};
        s_archive_refuses = true;
        Start(answers);
        EXPECT_FALSE(Add(dump));
        s_archive_refuses = false;
        answers.statuses["driver_available"] = {0};
        Start(answers);
        EXPECT_EQ(Add(dump), dump.without_driver);
        EXPECT_EQ(Events(), Lines{});
        // The rules do not ask whether the driver is available.
        EXPECT_EQ(s_entries.size(), dump.add == AddDriverRuleStats ? 1u : 0u);
        EXPECT_EQ(CallsOf(dump.call).size(), dump.add == AddDriverRuleStats ? 2u : 0u);
    }
}

// ---- requests --------------------------------------------------------------------------

TEST_F(DumpTest, StatisticsRequest)
{
    ASSERT_TRUE(Add(kStatistics));
    const auto calls = CallsOf("get_stats");
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].number, 6408);
    ASSERT_EQ(calls[0].bytes.size(), 6408u);
    vxa_stats_v2_s expected{12, 6, 0, 6444, 1, 64, {275, 30, 1}, 32, 0, {}, {}, {}, {}, {}, {}};
    const char* const at = static_cast<const char*>(calls[0].record);
    for (const auto& [area, offset] :
         {std::pair(&expected.area1, 64), std::pair(&expected.area2, 1728),
          std::pair(&expected.area3, 1968)})
        std::memcpy(area, &static_cast<const void* const&>(at + offset), sizeof *area);
    EXPECT_EQ(std::memcmp(calls[0].bytes.data(), &expected, sizeof expected), 0);
}

TEST_F(DumpTest, VariableRequests)
{
    ASSERT_TRUE(Add(kVariables));
    const auto calls = CallsOf("get_varv");
    ASSERT_EQ(calls.size(), 173u);
    for (std::size_t i = 0; i < calls.size(); ++i) EXPECT_EQ(calls[i].number, static_cast<long>(i));
    // A failure ends the dump there.
    driver::Answers answers;
    answers.statuses["get_varv"] = FailAt(5, -10017);
    Start(answers);
    EXPECT_FALSE(Add(kVariables));
    EXPECT_EQ(CallsOf("get_varv").size(), 6u);
    EXPECT_FALSE(getDriverVariables(m_document.get(), m_handle, nullptr, 0)) << "no records";
}

TEST_F(DumpTest, ConnectionRequests)
{
    const struct {
        std::uint32_t udp;
        Statuses statuses;
        std::uint16_t tcp_capacity;
        std::ptrdiff_t tcp_at;  // in the block
    } cases[] = {
        {300, {}, 700, 16 + 72 * 300},
        {999, {}, 1, 16 + 72 * 999},
        {65535, {0, -5, 0}, 1000, 16},
        {1000, {}, 0, 0},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.counts["get_conntrack"] = {1000, c.udp, 1};
        answers.statuses["get_conntrack"] = c.statuses;
        Start(answers);
        ASSERT_TRUE(Add(kConnections));
        const auto calls = CallsOf("get_conntrack");
        ASSERT_EQ(calls.size(), c.tcp_capacity != 0 ? 3u : 2u);
        const vxa_dump_conntrack_s sections[] = {
            {3, 0, 0, 0, 0, {}}, {3, 1000, 0, 0, 17, {}}, {3, c.tcp_capacity, 0, 0, 6, {}}};
        for (std::size_t i = 0; i < calls.size(); ++i) {
            EXPECT_EQ(std::memcmp(calls[i].bytes.data(), &sections[i], sizeof sections[i]), 0);
            EXPECT_EQ(calls[i].number, 16 + 72 * sections[i].entry_ct);
            EXPECT_NE(calls[i].extra, nullptr);
            EXPECT_EQ(calls[i].extra, calls[0].extra);
        }
        if (c.tcp_capacity == 0) continue;
        EXPECT_EQ(static_cast<const char*>(calls[2].record),
                  static_cast<const char*>(calls[1].record) + c.tcp_at);
    }
}

TEST_F(DumpTest, BlacklistRequests)
{
    ASSERT_TRUE(Add(kBlacklist));
    const auto calls = CallsOf("get_blacklist");
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].bytes, std::string(44, '\0'));
    // The header goes back as it came, with the driver's own marks.
    std::string second(44, '\0');
    second[32] = 77;
    EXPECT_EQ(calls[1].bytes, second);
    EXPECT_NE(calls[1].record, calls[0].record);
}

TEST_F(DumpTest, RuleRequestsAndTheEndOfProfiling)
{
    const Lines asked{"get_profile_stats 0 0", "get_profile_stats 0 40", "get_var 62 0"};
    const Lines failed(asked.begin(), asked.begin() + 2);
    const Lines stopped{asked[0], asked[1], asked[2], "set_var 62 0"};
    const struct {
        std::uint32_t profiling;
        int get_status;
        Statuses profile_statuses;
        Lines calls;
    } cases[] = {
        {1, 0, {}, stopped}, {0, 0, {}, asked},       {2, 0, {}, asked},
        {1, -5, {}, asked},  {1, 0, {0, -5}, failed}, {1, 0, {-5}, {asked[0]}},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.counts = {{"get_profile_stats", {40}}, {"get_var", {c.profiling}}};
        answers.statuses = {{"get_profile_stats", c.profile_statuses},
                            {"get_var", {c.get_status}},
                            {"set_var", {-5}}};  // nobody looks
        Start(answers);
        EXPECT_TRUE(Add(kRules));
        Lines calls;
        for (const driver::Call& call : driver::TakeCalls()) {
            if (call.name == "get_error") continue;
            std::uint32_t word = 0;
            std::memcpy(&word, call.bytes.data(), sizeof word);
            calls.push_back(call.name + " " + std::to_string(call.number) + " " +
                            std::to_string(word));
        }
        EXPECT_EQ(calls, c.calls);
    }
}

// ---- availability, failed calls as events, the print function --------------------------

TEST_F(DumpTest, AFailedCallIsOneEventAndOneTrace)
{
    const std::wstring long_name(70, L'N');
    const std::string error(79, 'e');
    // The ends of every length; overlong, surrogate and lone bytes are taken as Latin-1.
    const std::string valid =
        "\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
    const struct {
        std::wstring operation;
        int rc;
        std::string error;
        std::string text;
        const char* locale = "C";
    } cases[] = {
        {L"GET_VARIABLE", -10017, "", "GET_VARIABLE|ffffd8df ()"},
        {L"BLACKLIST_ADD", 5, "100 %s %n %", "BLACKLIST_ADD|00000005 (100 %s %n %)"},
        {L"GET_STATS", 0x7fffffff, error + "cut off", "GET_STATS|7fffffff (" + error + ")"},
        {long_name, INT32_MIN, "x", std::string(64, 'N') + "|80000000 (x)"},
        {L"GET_STATS", -5, valid + "\xc1\xbf|\xe0\x9f\xbf|\xed\xa0\x80|\xf4\x90\x80\x80|\xc3",
         "GET_STATS|fffffffb (" + valid +
             "\xc3\x81\xc2\xbf|\xc3\xa0\xc2\x9f\xc2\xbf|\xc3\xad\xc2\xa0\xc2\x80|"
             "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80|\xc3\x83)",
         "C.UTF-8"},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.error = c.error;
        Start(answers);
        ASSERT_NE(std::setlocale(LC_ALL, c.locale), nullptr);
        EXPECT_FALSE(ShowErrors(m_document.get(), m_handle, c.operation.c_str(), c.rc));
        std::setlocale(LC_ALL, "C");
        const std::string written = c.locale == std::string("C") ? "1001 " : "1001 utf8 ";
        EXPECT_EQ(Events(), Lines{written + c.text});
        EXPECT_EQ(Traces(), Lines{kEvent + "1001 " + c.text});
        const auto calls = driver::TakeCalls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].bytes, std::string(80, '\0')) << "an empty buffer of 80 bytes";
    }
    Start({});
    EXPECT_TRUE(ShowErrors(m_document.get(), m_handle, L"GET_STATS", 0));
    EXPECT_EQ(Events(), Lines{});
    EXPECT_TRUE(Traces().empty() && driver::TakeCalls().empty()) << "success is silent";
}

TEST_F(DumpTest, TheDriverIsAskedOnceMoreForTheTrace)
{
    const struct {
        Statuses available;
        Lines traces;
        bool open;
    } cases[] = {
        {{1, 0}, {"diagnostics IsDriverOpen: IsDriverOpen 1"}, false},
        {{0, 7}, {"diagnostics IsDriverOpen: IsDriverOpen 0"}, true},
        {{1, 0}, {}, true},
        {{INT32_MIN}, {}, false},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.statuses["driver_available"] = c.available;
        Start(answers, !c.traces.empty());
        EXPECT_EQ(IsDriverOpen(m_handle), c.open);
        EXPECT_EQ(driver::TakeCalls().size(), 1 + c.traces.size());
        EXPECT_EQ(host::TakeTraceLines(), c.traces);
    }
}

TEST_F(DumpTest, APrintIsCutAt1023Characters)
{
    wxMemoryOutputStream memory;
    {
        wxTextOutputStream text(memory, wxEOL_NATIVE);
        tb_dump_s sink{tosprintf, &text};
        const std::string long_text(3000, 'x');
        tosprintf(&sink, "%d %s|%%\n", -5, "five");
        tosprintf(&sink, "%s", "");
        tosprintf(&sink, "%s", long_text.c_str());
        tosprintf(&sink, "%s", long_text.substr(0, 1023).c_str());
        tosprintf(&sink, "\n\n\xe9nd");
    }
    std::string bytes(memory.GetLength(), '\0');
    memory.CopyTo(bytes.data(), bytes.size());
    EXPECT_EQ(bytes, "-5 five|%\n" + std::string(2046, 'x') + "\n\n\xc3\xa9nd")
        << "Latin-1 becomes UTF-8";
}

// ---- what passes for a host object -----------------------------------------------------

TEST(HostObjects, ForeignAndConstantOnesAreRefused)
{
    static VxaCore::CDom document(VxaCore::CDom::Store::InMemory());
    void (*const values[])(lua_State*) = {
        [](lua_State* L) { SLB3::Value<VxaCore::CDom*>::Push(L, &document); },
        [](lua_State* L) { SLB3::Value<const VxaCore::CDom*>::Push(L, &document); },
        [](lua_State* L) { lua_newuserdata(L, 64); },
        [](lua_State* L) {
            lua_newuserdata(L, 64);
            luaL_newmetatable(L, "Foreign");
            lua_setmetatable(L, -2);
        }};
    lua_State* const L = luaL_newstate();
    for (const auto push : values) {
        lua_settop(L, 0);
        push(L);
        EXPECT_EQ(fc::TestDom(L, 1), push == values[0] ? &document : nullptr);
        luaL_newmetatable(L, "vxi_handle_t*");
        lua_setmetatable(L, 1);
        EXPECT_EQ(fc::TestDom(L, 1), nullptr);
    }
    lua_pushcfunction(L, [](lua_State* state) {
        lua_newuserdata(state, 1);
        luaL_setmetatable(state, "vxi_handle_t*");
        fc::CheckDriverHandle(state, -1);
        return 0;
    });
    EXPECT_EQ(lua_pcall(L, 0, 0, 0), LUA_ERRRUN) << "too short for a handle";
    lua_close(L);
}

}  // namespace

// Before the core library's own.
void VxaCore::CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    DoAgentEventWrite(id, wxString("utf8 ") + wxString::FromUTF8(format));
}

bool VxaCore::CZipOutputStream::AddFromStream(wxInputStream& in, bool text, const wxString& name,
                                              const wxString& comment)
{
    Entry entry{name.ToStdString(), text, comment.ToStdString(), ""};
    char chunk[4096];
    while (const std::size_t got = in.Read(chunk, sizeof chunk).LastRead())
        entry.bytes.append(chunk, got);
    s_entries.push_back(std::move(entry));
    return !s_archive_refuses;
}

// What scripts see of the host's objects: nothing here.
SLB3_IMPLEMENTATION(VxaCore::CDom, binding)
{
    (void)binding;
}

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, binding)
{
    (void)binding;
}
