// Each driver dump on its own: what it asks of the driver, and what every answer becomes.

#include <algorithm>
#include <clocale>
#include <cstring>
#include <memory>
#include <string_view>

#include <gtest/gtest.h>

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

// What the archive was given: "NAME COMMENT text|binary: BYTES".
Lines s_entries;
bool s_archive_refuses = false;

constexpr std::uint32_t kHuge = 0xffffffff;
constexpr std::size_t kLargeBlock = 5000;

struct Dump {
    bool (*add)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);
    const char* trace;
    std::string_view entry;
    const char* call;
};

#define ADD(line, name) name, #line " " #name ": " #name "()"
constexpr Dump kStatistics{ADD(100, AddDriverStatistics), "vxa_stats.txt  text: ", "get_stats"};
constexpr Dump kVariables{ADD(141, AddDriverVariables), "vxa_variables.txt  text: ", "get_varv"};
constexpr Dump kStates{ADD(37, AddDriverConnStates),
                       "vxa_conn_states.txt  text: ", "get_conn_states"};
constexpr Dump kConnTrack{ADD(55, AddDriverConnTrack),
                          "vxa_conn_track.txt  text: ", "get_conntrack"};
constexpr Dump kBlacklist{ADD(17, AddDriverBlacklist),
                          "vxa_blacklist.txt  text: ", "get_blacklist"};
constexpr Dump kRules{ADD(164, AddDriverRuleStats), "vxa.tpf  binary: ", "get_profile_stats"};

// What became of a dump that did not add its entry.
const std::string kFails = "false, no entry";
const std::string kNothing = "true, no entry";
const std::string kRefused = "false, entry refused";

class DumpTest : public ::testing::Test {
protected:
    void SetUp() override { Start({}); }

    // Sets the driver's answers and forgets what was recorded.
    void Start(const driver::Answers& answers, bool traced = true)
    {
        driver::SetAnswers(answers);
        driver::TakeCalls();
        host::EnableTraces(traced);
        host::TakeTraces();
        m_document = std::make_unique<VxaCore::CDom>(VxaCore::CDom::Store::InMemory());
    }
    static driver::Answers AnswersTo(const Dump& dump, const Counts& counts,
                                     const Statuses& statuses = {})
    {
        driver::Answers answers;
        answers.error = "E";
        answers.counts[dump.call] = counts;
        answers.statuses[dump.call] = statuses;
        return answers;
    }

    // Runs a dump and returns its entry's bytes, or one of the above.
    std::string Add(const Dump& dump)
    {
        s_entries.clear();
        const bool result = dump.add(m_document.get(), m_handle, m_archive);
        if (s_entries.empty()) return result ? kNothing : kFails;
        EXPECT_EQ(s_entries.size(), 1u);
        EXPECT_EQ(s_entries[0].substr(0, dump.entry.size()), dump.entry);
        return result ? s_entries[0].substr(dump.entry.size()) : kRefused;
    }

    // "ID TEXT"; "ID utf8 TEXT" if written in UTF-8.
    Lines Events() const
    {
        Lines lines;
        for (const auto& event : m_document->store().Events().events)
            lines.push_back(std::to_string(event.id) + " " + event.text);
        return lines;
    }

    // "LINE FUNCTION: MESSAGE" without those of IsDriverOpen.
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

    vxi_handle_ops_s* m_handle = vxi_open();
    std::unique_ptr<VxaCore::CDom> m_document;
    VxaCore::CZipOutputStream m_archive{VxaCore::CZipOutputStream::Archive::Create("/dev/null")};
};

// ---- every answer of the driver --------------------------------------------------------

std::string Sections(int udp, int tcp)
{
    std::string text;
    for (const auto& [protocol, entries] : {std::pair(17, udp), std::pair(6, tcp)})
        text += std::to_string(protocol) + ": " + std::to_string(entries) + " entries, " +
                std::to_string(72 * entries) + " bytes\n";
    return text;
}

std::string Payload(int size)
{
    std::string bytes;
    for (int i = 1; i <= size; ++i) bytes.push_back(static_cast<char>(i));
    return bytes;
}

std::string AllVariables()
{
    std::string text;
    for (int i = 0; i < 173; ++i) text += std::to_string(i) + " " + std::to_string(3 * i) + " 0\n";
    return text;
}

// The nth call, from 0, fails.
Statuses FailAt(std::size_t nth, int status)
{
    Statuses statuses(nth + 2);
    statuses[nth] = status;
    return statuses;
}

const std::string kEventTrace = "408 ShowErrors: AgentWrite ";

// The trace, and so the event, of a call that returned -5.
std::string Failed(const std::string& operation, const std::string& status = "fffffffb")
{
    return kEventTrace + "1001 " + operation + "|" + status + " (E)";
}

// The traces of a statistics dump that asked the driver, then others.
Lines Asked(const Lines& more)
{
    Lines lines{"107 AddDriverStatistics: AddDriverStatistics() - about to get stats",
                "333 getDriverStatistics: getDriverStatistics()",
                "338 getDriverStatistics: driver is opened calling vxi_get_stats"};
    lines.insert(lines.end(), more.begin(), more.end());
    return lines;
}

constexpr int kFailed = -5;

// Traces of a connection query: the driver's counts, or kFailed.
Lines Tracked(int total, const std::vector<int>& sections)
{
    const std::string function = " getDriverConnTrack: ";
    Lines lines{"273" + function + "totConn.entry_ct was " + std::to_string(total)};
    for (std::size_t i = 0; i < sections.size(); ++i) {
        if (sections[i] == kFailed) {
            lines.push_back(Failed("GET_CONN_TRACK"));
            lines.push_back((i == 0 ? "293" : "311") + function + "rc = -5");
        }
        lines.push_back((i == 0 ? "296" + function + "udp" : "315" + function + "tcp") +
                        "Conn->entry_ct = " + std::to_string(std::max(sections[i], 0)));
    }
    return lines;
}

const std::string kStats = "1000 1207 2000 2029 3000 3554\n";
const Lines kStatsTraces = Asked({"124 AddDriverStatistics: AddDriverStatistics() - got stats",
                                  "126 AddDriverStatistics: AddDriverStatistics() - dumped stats"});
const Lines kNotEchoed = Asked({Failed("GET_STATS", "ffffffff")});

const Lines kNoBlock{Tracked(1000, {})[0], "318 getDriverConnTrack: malloc 72032 bytes failed."};
const Lines kLongList{"245 getDriverBlacklist: driver reported 4294967295 bytes, room for 48"};
const Lines kLongPayload{"190 AddDriverRuleStats: driver reported 4294967295 bytes, room for 40"};

const struct {
    const Dump& dump;
    Counts counts;      // of the first, the second ... call; see RecordingDriver.h
    Statuses statuses;  // likewise
    std::string outcome;
    Lines traces = {};  // after the dump's own
    bool without_memory = false;
} kCases[] = {
    {kStatistics, {}, {}, kStats, kStatsTraces},
    {kStatistics, {}, {-5}, kFails, Asked({Failed("GET_STATS")})},
    {kStatistics, {24 << 16 | 276}, {}, kFails, kNotEchoed},
    {kStatistics, {26 << 16 | 31}, {}, kFails, kNotEchoed},
    {kStatistics, {28 << 16 | 0}, {}, kFails, kNotEchoed},
    {kStatistics, {30 << 16 | 0}, {}, kStats, kStatsTraces},
    {kStatistics, {}, {}, kFails, {}, true},

    {kVariables, {}, {}, AllVariables()},
    {kVariables, {}, FailAt(172, -10017), kFails},
    {kVariables, {}, FailAt(5, -5), kFails, {Failed("GET_VARIABLE")}},

    {kStates, {}, {}, "1010101 1010101\n"},
    {kStates, {}, {-5}, kFails, {Failed("GET_CONN_STATES")}},

    {kConnTrack, {1000, 300, 500}, {}, Sections(300, 500), Tracked(1000, {300, 500})},
    {kConnTrack, {0}, {}, kNothing, Tracked(0, {})},
    {kConnTrack, {7, 7, 9}, {}, Sections(7, 0), Tracked(7, {7, 0})},
    {kConnTrack, {65535, 1, 65534}, {}, Sections(1, 65534), Tracked(65535, {1, 65534})},
    // More than there is room for: the traces show the driver's own count.
    {kConnTrack, {3, 65535}, {}, Sections(3, 0), Tracked(3, {65535, 0})},
    {kConnTrack, {3, 1, 65535}, {}, Sections(1, 2), Tracked(3, {1, 65535})},
    {kConnTrack, {3, 1, 2}, {-5}, kFails, {Failed("GET_CONN_TRACK")}},
    // A driver that fails may have written anything before.
    {kConnTrack, {3, 65535, 3}, {0, -5, 0}, Sections(0, 3), Tracked(3, {kFailed, 3})},
    {kConnTrack, {3, 1, 65535}, {0, 0, -5}, Sections(1, 0), Tracked(3, {1, kFailed})},
    {kConnTrack, {1000}, {}, kNothing, kNoBlock, true},

    {kBlacklist, {96}, {}, "96 bytes, 96 filled\n"},
    {kBlacklist, {0}, {}, "0 bytes, 0 filled\n"},
    {kBlacklist, {96, 48}, {}, "48 bytes, 48 filled\n"},
    {kBlacklist, {48, kHuge}, {}, "48 bytes, 48 filled\n", kLongList},
    {kBlacklist, {96}, {-5}, kFails, {Failed("BLACKLIST_ADD")}},
    {kBlacklist, {96}, {0, -5}, kFails, {Failed("BLACKLIST_ADD")}},
    {kBlacklist, {kHuge - 43, 96}, {}, kFails},
    {kBlacklist, {kHuge, 96}, {}, kFails},
    {kBlacklist, {kLargeBlock}, {}, kFails, {}, true},

    {kRules, {5000}, {}, Payload(5000)},
    {kRules, {0}, {}, ""},
    {kRules, {40}, {-5}, ""},
    {kRules, {40}, {0, -5}, "", {Failed("vxi_get_profile_stats()")}},
    {kRules, {40, 7}, {}, Payload(7)},
    {kRules, {40, kHuge}, {}, Payload(40), kLongPayload},
    {kRules, {kHuge, 1}, {}, "", {"182 AddDriverRuleStats: malloc() failed"}, true},
};

TEST_F(DumpTest, EveryAnswerOfTheDriver)
{
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.dump.trace + ::testing::PrintToString(c.counts) +
                     ::testing::PrintToString(c.statuses));
        Start(AnswersTo(c.dump, c.counts, c.statuses));
        if (c.without_memory && !allocations::RefuseFrom(kLargeBlock)) continue;
        const std::string outcome = Add(c.dump);
        allocations::RefuseFrom(0);
        EXPECT_EQ(outcome, c.outcome);
        Lines traces{c.dump.trace};
        traces.insert(traces.end(), c.traces.begin(), c.traces.end());
        EXPECT_EQ(Traces(), traces);
        Lines events;
        for (const std::string& trace : traces)
            if (trace.rfind(kEventTrace, 0) == 0)
                events.push_back(trace.substr(kEventTrace.size()));
        EXPECT_EQ(Events(), events);
    }
}

TEST_F(DumpTest, WithoutDriverOrArchive)
{
    const std::pair<Dump, std::string> without_driver[] = {
        {kStatistics, kFails},  {kVariables, kFails}, {kStates, kFails},
        {kConnTrack, kNothing}, {kBlacklist, kFails}, {kRules, Payload(1)}};
    for (const auto& [dump, outcome] : without_driver) {
        SCOPED_TRACE(dump.trace);
        driver::Answers answers = AnswersTo(dump, {1});
        s_archive_refuses = true;
        Start(answers);
        EXPECT_EQ(Add(dump), kRefused);
        s_archive_refuses = false;
        answers.statuses["driver_available"] = {0};
        Start(answers);
        EXPECT_EQ(Add(dump), outcome);
        EXPECT_EQ(Events(), Lines{});
    }
}

// ---- requests --------------------------------------------------------------------------

// "NAME NUMBER", then the words of the record that are not zero as "OFFSET=VALUE".
std::string Request(const driver::Call& call)
{
    std::string line = call.name + " " + std::to_string(call.number);
    for (std::size_t at = 0; at < call.bytes.size(); at += 4) {
        std::uint32_t word = 0;
        std::memcpy(&word, &call.bytes[at], sizeof word);
        if (word != 0) line += " " + std::to_string(at) + "=" + std::to_string(word);
    }
    return line;
}

TEST_F(DumpTest, Requests)
{
    const std::string count = "get_conntrack 16 0=3";
    const std::string udp = "get_conntrack 72016 0=3 4=1000 12=17";
    const std::string size = "get_profile_stats 0";
    const std::string fill = "get_profile_stats 0 0=40";
    const struct {
        const Dump& dump;
        Counts counts;
        Statuses statuses;
        Lines requests;
        std::uint32_t profiling = 0;
        int get_status = 0;
    } cases[] = {
        {kVariables, {}, FailAt(1, -10017), {"get_varv 0", "get_varv 1"}},
        {kConnTrack, {1000, 300}, {}, {count, udp, "get_conntrack 50416 0=3 4=700 12=6"}},
        {kConnTrack, {1000, 9}, {0, -5, 0}, {count, udp, "get_conntrack 72016 0=3 4=1000 12=6"}},
        {kConnTrack, {1000, 1000}, {}, {count, udp}},
        // The header goes back with the driver's own marks.
        {kBlacklist, {96}, {}, {"get_blacklist 0", "get_blacklist 0 32=77 36=96"}},
        // The end of profiling.
        {kRules, {40}, {}, {size, fill, "get_var 62", "set_var 62"}, 1},
        {kRules, {40}, {}, {size, fill, "get_var 62"}, 0},
        {kRules, {40}, {}, {size, fill, "get_var 62"}, 2},
        {kRules, {40}, {}, {size, fill, "get_var 62"}, 1, -5},
        {kRules, {40}, {0, -5}, {size, fill}, 1},
        {kRules, {40}, {-5}, {size}, 1},
    };
    for (const auto& c : cases) {
        driver::Answers answers = AnswersTo(c.dump, c.counts, c.statuses);
        answers.counts["get_var"] = {c.profiling};
        answers.statuses["get_var"] = {c.get_status};
        answers.statuses["set_var"] = {-5};  // ignored
        Start(answers);
        Add(c.dump);
        Lines requests;
        for (const driver::Call& call : driver::TakeCalls()) {
            if (call.name == "get_error" || call.name == "driver_available") continue;
            requests.push_back(Request(call));
            EXPECT_EQ(call.extra != nullptr, &c.dump == &kConnTrack);
        }
        EXPECT_EQ(requests, c.requests);
    }
    EXPECT_FALSE(getDriverVariables(m_document.get(), m_handle, nullptr, 0)) << "no records";
}

TEST_F(DumpTest, StatisticsRequest)
{
    Add(kStatistics);
    driver::Call call = driver::TakeCalls().back();
    ASSERT_EQ(call.bytes.size(), sizeof(vxa_stats_v2_s));
    const auto record = reinterpret_cast<std::uintptr_t>(call.record);
    const std::uintptr_t areas[] = {record + 64, record + 1728, record + 1968};
    EXPECT_EQ(std::memcmp(&call.bytes[40], areas, sizeof areas), 0);
    std::memset(&call.bytes[40], 0, sizeof areas);
    EXPECT_EQ(Request(call), "get_stats 6408 0=12 4=6 12=6444 16=1 20=64 24=1966355 28=2097153")
        << "16-bit words 275, 30, 1, 32 at the end";
}

// ---- availability, failed calls as events, the print function --------------------------

TEST_F(DumpTest, AFailedCallIsOneEventAndOneTrace)
{
    const std::string error(79, 'e');
    // The ends of every length; overlong, surrogate and lone bytes are taken as Latin-1.
    const std::string valid =
        "\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbf";
    const struct {
        std::wstring operation;
        int rc;
        std::string error;
        std::string message;
        bool utf8 = false;
    } cases[] = {
        {L"GET_VARIABLE", -10017, "", "GET_VARIABLE|ffffd8df ()"},
        {L"BLACKLIST_ADD", 5, "100 %s %n %", "BLACKLIST_ADD|00000005 (100 %s %n %)"},
        {L"GET_STATS", 0x7fffffff, error + "cut off", "GET_STATS|7fffffff (" + error + ")"},
        {std::wstring(70, L'N'), INT32_MIN, "x", std::string(64, 'N') + "|80000000 (x)"},
        {L"GET_STATS", -5, valid + "\xc1\xbf|\xe0\x9f\xbf|\xed\xa0\x80|\xf4\x90\x80\x80|\xc3",
         "GET_STATS|fffffffb (" + valid +
             "\xc3\x81\xc2\xbf|\xc3\xa0\xc2\x9f\xc2\xbf|\xc3\xad\xc2\xa0\xc2\x80|"
             "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80|\xc3\x83)",
         true},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        answers.error = c.error;
        Start(answers);
        ASSERT_NE(std::setlocale(LC_ALL, c.utf8 ? "C.UTF-8" : "C"), nullptr);
        EXPECT_FALSE(ShowErrors(m_document.get(), m_handle, c.operation.c_str(), c.rc));
        std::setlocale(LC_ALL, "C");
        EXPECT_EQ(Events(), Lines{(c.utf8 ? "1001 utf8 " : "1001 ") + c.message});
        EXPECT_EQ(Traces(), Lines{kEventTrace + "1001 " + c.message});
        const auto calls = driver::TakeCalls();
        ASSERT_EQ(calls.size(), 1u);
        EXPECT_EQ(calls[0].bytes, std::string(80, '\0')) << "an empty buffer of 80 bytes";
    }
    Start({});
    EXPECT_TRUE(ShowErrors(m_document.get(), m_handle, L"GET_STATS", 0));
    EXPECT_TRUE(Events().empty() && Traces().empty() && driver::TakeCalls().empty());
}

TEST_F(DumpTest, TheDriverIsAskedOnceMoreForTheTrace)
{
    const struct {
        Statuses available;
        Lines traces;
        bool open;
    } cases[] = {{{1, 0}, {"diagnostics IsDriverOpen: IsDriverOpen 1"}, false},
                 {{0, 7}, {"diagnostics IsDriverOpen: IsDriverOpen 0"}, true},
                 {{1, 0}, {}, true},
                 {{INT32_MIN}, {}, false}};
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
    TextSink sink;
    const std::string long_text(3000, 'x');
    tosprintf(sink.Dump(), "%d %s|%%\n", -5, "five");
    tosprintf(sink.Dump(), "%s", long_text.c_str());
    tosprintf(sink.Dump(), "%s", long_text.substr(0, 1023).c_str());
    tosprintf(sink.Dump(), "\n\n\xe9nd");
    EXPECT_EQ(sink.Text(), "-5 five|%\n" + std::string(2046, 'x') + "\n\n\xc3\xa9nd")
        << "Latin-1 becomes UTF-8";
    TextSink cut_short;
    allocations::Allow(0);
    tosprintf(cut_short.Dump(), "%s", long_text.c_str());
    EXPECT_TRUE(allocations::LiftLimit());
    EXPECT_THROW(cut_short.Text(), std::bad_alloc);
}

// ---- what is accepted as a host object -------------------------------------------------

TEST(HostObjects, ForeignAndConstantOnesAreRefused)
{
    static VxaCore::CDom document(VxaCore::CDom::Store::InMemory());
    void (*const values[])(lua_State*) = {
        [](lua_State* L) { SLB3::Value<VxaCore::CDom*>::Push(L, &document); },
        [](lua_State* L) { SLB3::Value<const VxaCore::CDom*>::Push(L, &document); },
        [](lua_State* L) { lua_newuserdata(L, 64); }};
    lua_State* const L = luaL_newstate();
    for (const auto push : values) {
        lua_settop(L, 0);
        push(L);
        EXPECT_EQ(fc::TestDom(L, 1), push == values[0] ? &document : nullptr);
    }
    luaL_newmetatable(L, "vxi_handle_t*");
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

// In place of the core library's own.
void VxaCore::CDom::DoAgentEventWriteUtf8(int id, const char* format)
{
    DoAgentEventWrite(id, wxString("utf8 ") + wxString::FromUTF8(format));
}

bool VxaCore::CZipOutputStream::AddFromStream(wxInputStream& in, bool text, const wxString& name,
                                              const wxString& comment)
{
    std::string bytes;
    char chunk[4096];
    while (const std::size_t got = in.Read(chunk, sizeof chunk).LastRead())
        bytes.append(chunk, got);
    s_entries.push_back(name.ToStdString() + " " + comment.ToStdString() +
                        (text ? " text: " : " binary: ") + bytes);
    return !s_archive_refuses;
}

// Scripts see nothing of the host's objects here.
SLB3_IMPLEMENTATION(VxaCore::CDom, ) {}

SLB3_IMPLEMENTATION(VxaCore::CZipOutputStream, ) {}
