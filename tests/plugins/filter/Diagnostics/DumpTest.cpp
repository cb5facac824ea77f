// Each dump by itself: what it asks of the driver byte for byte, and what becomes of every
// answer: entry, event, trace and result.

#include <algorithm>
#include <cstring>
#include <functional>

#include "AllocationLimit.h"
#include "Fixture.h"

namespace {

using namespace Filter::Diagnostics;

using Add = bool (*)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);
using Answer = std::function<void(driver::Answers&)>;

constexpr std::uint32_t kHuge = 0xffffffff;
constexpr std::size_t kLargeBlock = 5000;

const struct Dump {
    Add add;
    const char* entry;
    bool text;
    const char* trace;
} kDumps[] = {
    {AddDriverStatistics, "vxa_stats.txt", true, "100 AddDriverStatistics: AddDriverStatistics()"},
    {AddDriverVariables, "vxa_variables.txt", true, "141 AddDriverVariables: AddDriverVariables()"},
    {AddDriverConnTrack, "vxa_conn_track.txt", true, "55 AddDriverConnTrack: AddDriverConnTrack()"},
    {AddDriverBlacklist, "vxa_blacklist.txt", true, "17 AddDriverBlacklist: AddDriverBlacklist()"},
    {AddDriverConnStates, "vxa_conn_states.txt", true,
     "37 AddDriverConnStates: AddDriverConnStates()"},
    {AddDriverRuleStats, "vxa.tpf", false, "164 AddDriverRuleStats: AddDriverRuleStats()"},
};

const Dump& DumpOf(Add add)
{
    return *std::find_if(std::begin(kDumps), std::end(kDumps),
                         [add](const Dump& dump) { return dump.add == add; });
}

// ---- answers of the driver -------------------------------------------------------------

void NotAvailable(driver::Answers& answers)
{
    answers.available = 0;
}

// A driver that fails may have written anything before.
Answer Flows(std::uint16_t total, std::uint16_t udp, std::uint16_t tcp, std::vector<int> rc = {})
{
    return [=](driver::Answers& answers) {
        answers.flows = total;
        answers.udp_flows = udp;
        answers.tcp_flows = tcp;
        answers.statuses["get_conntrack"] = rc;
    };
}

Answer List(std::uint32_t first, std::uint32_t second, std::vector<int> rc = {})
{
    return [=](driver::Answers& answers) {
        answers.list_sizes[0] = first;
        answers.list_sizes[1] = second;
        answers.statuses["get_blacklist"] = rc;
    };
}

Answer Profile(std::uint32_t first, std::uint32_t second, std::vector<int> rc = {})
{
    return [=](driver::Answers& answers) {
        answers.profile_sizes[0] = first;
        answers.profile_sizes[1] = second;
        answers.statuses["get_profile_stats"] = rc;
    };
}

Answer FailAt(const std::string& call, std::size_t nth, int status)
{
    return [=](driver::Answers& answers) {
        answers.statuses[call].assign(nth + 1, 0);
        answers.statuses[call][nth] = status;
    };
}

Answer Word(unsigned int offset, std::uint16_t word)
{
    return [=](driver::Answers& answers) { answers.stats_words[offset] = word; };
}

// ---- cases -----------------------------------------------------------------------------

Lines Total(int count)
{
    return {"273 getDriverConnTrack: totConn.entry_ct was " + std::to_string(count)};
}

Lines Udp(int count)
{
    return {"296 getDriverConnTrack: udpConn->entry_ct = " + std::to_string(count)};
}

Lines Tcp(int count)
{
    return {"315 getDriverConnTrack: tcpConn->entry_ct = " + std::to_string(count)};
}

// A dump that succeeds without an entry, an event or further traces.
struct Case {
    std::string what;
    Add add;
    Answer answer;
    bool result = true;
    bool has_entry = false;
    bool without_memory = false;  // for large blocks
    std::string bytes = "";
    Lines events = {};
    Lines traces = {DumpOf(add).trace};

    Case& Entry(const std::string& text)
    {
        has_entry = true;
        bytes = text;
        return *this;
    }
    Case& Sections(int udp, int tcp)
    {
        const auto section = [](int protocol, int entries) {
            return std::to_string(protocol) + ": " + std::to_string(entries) + " entries, " +
                   std::to_string(72 * entries) + " bytes\n";
        };
        return Entry(section(17, udp) + section(6, tcp));
    }
    Case& Fails()
    {
        result = false;
        return *this;
    }
    Case& NoMemory()
    {
        without_memory = true;
        return *this;
    }
    Case& Trace(const Lines& lines)
    {
        traces.insert(traces.end(), lines.begin(), lines.end());
        return *this;
    }
    Case& Counts(int total, int udp, int tcp)
    {
        return Trace(Total(total)).Trace(Udp(udp)).Trace(Tcp(tcp));
    }
    Case& Event(const std::string& text)
    {
        events.push_back("1001 " + text);
        return Trace({"408 ShowErrors: AgentWrite 1001 " + text});
    }
};

struct CaseOf {
    Add add;
    Case operator()(const std::string& what, Answer answer = {}) const
    {
        return {DumpOf(add).entry + (": " + what), add, std::move(answer)};
    }
};

constexpr CaseOf Statistics{AddDriverStatistics};
constexpr CaseOf Variables{AddDriverVariables};
constexpr CaseOf States{AddDriverConnStates};
constexpr CaseOf Connections{AddDriverConnTrack};
constexpr CaseOf Blacklist{AddDriverBlacklist};
constexpr CaseOf Rules{AddDriverRuleStats};

std::string AllVariables(const std::string& after = "")
{
    std::string text;
    for (int i = 0; i < 173; ++i)
        text += std::to_string(i) + " " + std::to_string(3 * i) + " 0\n" + after;
    return text;
}

std::string Payload(unsigned int size)
{
    std::string bytes;
    for (unsigned int i = 0; i < size; ++i) bytes.push_back(static_cast<char>(i + 1));
    return bytes;
}

std::string Filled(int bytes)
{
    return std::to_string(bytes) + " bytes, " + std::to_string(bytes) + " filled\n";
}

const char* const kStats = "1000 1207 2000 2029 3000 3554\n";
const Lines kAboutToGet = {"107 AddDriverStatistics: AddDriverStatistics() - about to get stats",
                           "333 getDriverStatistics: getDriverStatistics()"};
const Lines kCalling = {kAboutToGet[0], kAboutToGet[1],
                        "338 getDriverStatistics: driver is opened calling vxi_get_stats"};
const Lines kDumped = {"124 AddDriverStatistics: AddDriverStatistics() - got stats",
                       "126 AddDriverStatistics: AddDriverStatistics() - dumped stats"};

const std::string kEcho = "GET_STATS|ffffffff (E)";
const std::string kTrackFailed = "GET_CONN_TRACK|fffffffb (E)";
const std::string kListFailed = "BLACKLIST_ADD|fffffffb (E)";

const Case kCases[] = {
    Statistics("").Entry(kStats).Trace(kCalling).Trace(kDumped),
    Statistics("not available", NotAvailable).Fails().Trace(kAboutToGet),
    Statistics("fail", FailAt("get_stats", 0, -5))
        .Fails()
        .Trace(kCalling)
        .Event("GET_STATS|fffffffb (E)"),
    Statistics("word at 24", Word(24, 276)).Fails().Trace(kCalling).Event(kEcho),
    Statistics("word at 26", Word(26, 31)).Fails().Trace(kCalling).Event(kEcho),
    Statistics("word at 28", Word(28, 0)).Fails().Trace(kCalling).Event(kEcho),
    Statistics("word at 30", Word(30, 0)).Entry(kStats).Trace(kCalling).Trace(kDumped),
    Statistics("no memory").NoMemory().Fails(),

    Variables("").Entry(AllVariables()),
    Variables("not available", NotAvailable).Fails(),
    Variables("5 unknown", FailAt("get_varv", 5, -10017)).Fails(),
    Variables("the last unknown", FailAt("get_varv", 172, -10017)).Fails(),
    Variables("5 fails", FailAt("get_varv", 5, -5)).Fails().Event("GET_VARIABLE|fffffffb (E)"),

    States("").Entry("1010101 1010101\n"),
    States("not available", NotAvailable).Fails(),
    States("fail", FailAt("get_conn_states", 0, -5)).Fails().Event("GET_CONN_STATES|fffffffb (E)"),

    Connections("", Flows(1000, 300, 500)).Sections(300, 500).Counts(1000, 300, 500),
    Connections("not available", NotAvailable),
    Connections("none").Trace(Total(0)),
    Connections("UDP alone", Flows(7, 7, 9)).Sections(7, 0).Counts(7, 7, 0),
    Connections("neither", Flows(1, 0, 0)).Sections(0, 0).Counts(1, 0, 0),
    Connections("the most", Flows(65535, 1, 65534)).Sections(1, 65534).Counts(65535, 1, 65534),
    // Held to the room; the traces show the driver's own number.
    Connections("more UDP than asked for", Flows(3, 65535, 65535))
        .Sections(3, 0)
        .Counts(3, 65535, 0),
    Connections("more TCP than asked for", Flows(3, 1, 65535)).Sections(1, 2).Counts(3, 1, 65535),
    Connections("count fails", Flows(3, 1, 2, {-5})).Fails().Event(kTrackFailed),
    Connections("UDP fails", Flows(3, 65535, 3, {0, -5}))
        .Sections(0, 3)
        .Trace(Total(3))
        .Event(kTrackFailed)
        .Trace({"293 getDriverConnTrack: rc = -5"})
        .Trace(Udp(0))
        .Trace(Tcp(3)),
    Connections("both fail", Flows(3, 1, 65535, {0, -5, -6}))
        .Sections(0, 0)
        .Trace(Total(3))
        .Event(kTrackFailed)
        .Trace({"293 getDriverConnTrack: rc = -5"})
        .Trace(Udp(0))
        .Event("GET_CONN_TRACK|fffffffa (E)")
        .Trace({"311 getDriverConnTrack: rc = -6"})
        .Trace(Tcp(0)),
    Connections("no memory", Flows(1000, 1, 1))
        .NoMemory()
        .Trace(Total(1000))
        .Trace({"318 getDriverConnTrack: malloc 72032 bytes failed."}),

    Blacklist("", List(96, 96)).Entry(Filled(96)),
    Blacklist("not available", NotAvailable).Fails(),
    Blacklist("empty", List(0, 0)).Entry(Filled(0)),
    Blacklist("shrinks", List(96, 48)).Entry(Filled(48)),
    Blacklist("claims everything", List(48, kHuge))
        .Entry(Filled(48))
        .Trace({"245 getDriverBlacklist: driver reported 4294967295 bytes, room for 48"}),
    Blacklist("size fails", List(96, 96, {-5})).Fails().Event(kListFailed),
    Blacklist("fill fails", List(96, 96, {0, -5})).Fails().Event(kListFailed),
    Blacklist("beyond 32 bits", List(kHuge - 43, 96)).Fails(),
    Blacklist("far beyond 32 bits", List(kHuge, 96)).Fails(),
    Blacklist("no memory", List(kLargeBlock, kLargeBlock)).NoMemory().Fails(),

    // This dump does not ask whether the driver is available.
    Rules("", [](driver::Answers& answers) { Profile(40, 40)(answers), NotAvailable(answers); })
        .Entry(Payload(40)),
    Rules("long", Profile(5000, 5000)).Entry(Payload(5000)),
    Rules("none", Profile(0, 0)).Entry(""),
    Rules("size fails", Profile(40, 40, {-5})).Entry(""),
    Rules("fill fails", Profile(40, 40, {0, -5}))
        .Entry("")
        .Event("vxi_get_profile_stats()|fffffffb (E)"),
    Rules("fewer than announced", Profile(40, 7)).Entry(Payload(7)),
    Rules("none after all", Profile(40, 0)).Entry(""),
    Rules("more than asked for", Profile(40, kHuge))
        .Entry(Payload(40))
        .Trace({"190 AddDriverRuleStats: driver reported 4294967295 bytes, room for 40"}),
    Rules("no memory", Profile(kHuge, 1))
        .NoMemory()
        .Entry("")
        .Trace({"182 AddDriverRuleStats: malloc() failed"}),
};

class DumpTest : public DiagnosticsTest {
protected:
    void Run(const Case& c, bool traced)
    {
        SCOPED_TRACE(c.what);
        driver::Answers answers;
        answers.error = "E";
        if (c.answer) c.answer(answers);
        Start(answers);
        host::EnableTraces(traced);
        if (c.without_memory && !allocations::RefuseFrom(kLargeBlock)) return;
        const bool result = c.add(dom(), handle(), zip());
        allocations::RefuseFrom(0);
        EXPECT_EQ(result, c.result);
        EXPECT_EQ(Events(), c.events);
        EXPECT_EQ(Traces(), traced ? c.traces : Lines{});
        const auto entries = host::TakeEntries();
        ASSERT_EQ(entries.size(), c.has_entry ? 1u : 0u);
        if (entries.empty()) return;
        EXPECT_EQ(entries[0].name, DumpOf(c.add).entry);
        EXPECT_EQ(entries[0].text, DumpOf(c.add).text);
        EXPECT_EQ(entries[0].comment, "");
        EXPECT_EQ(entries[0].bytes, c.bytes);
    }
};

TEST_F(DumpTest, EveryAnswerOfTheDriver)
{
    for (const bool traced : {true, false})
        for (const Case& c : kCases) Run(c, traced);
}

TEST_F(DumpTest, AnArchiveThatRefuses)
{
    driver::Answers answers;
    Flows(1, 0, 1)(answers);
    for (const Dump& dump : kDumps) {
        Start(answers, true);
        EXPECT_FALSE(dump.add(dom(), handle(), zip())) << dump.entry;
        EXPECT_EQ(Events(), Lines{});
    }
}

TEST_F(DumpTest, ThePrintedTextIsTheEntry)
{
    for (const Dump& dump : kDumps) {
        if (!dump.text) continue;
        SCOPED_TRACE(dump.entry);
        driver::Answers answers;
        Flows(1, 0, 1)(answers);
        Start(answers);
        ASSERT_TRUE(dump.add(dom(), handle(), zip()));
        const std::string plain = host::TakeEntries().at(0).bytes;
        // A long last line without an end; one print is cut.
        answers.text = "a\n\n\tb" + std::string(2000, 'y');
        const std::string after = answers.text.substr(0, 1023);
        Start(answers);
        ASSERT_TRUE(dump.add(dom(), handle(), zip()));
        EXPECT_EQ(host::TakeEntries().at(0).bytes,
                  dump.add == AddDriverVariables ? AllVariables(after) : plain + after);
    }
}

// ---- requests --------------------------------------------------------------------------

std::uint32_t Unsigned(const std::string& bytes, std::size_t offset, std::size_t size)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, size);
    return value;
}

TEST_F(DumpTest, StatisticsRequest)
{
    ASSERT_TRUE(AddDriverStatistics(dom(), handle(), zip()));
    const auto queries = Queries();
    ASSERT_EQ(queries.size(), 1u);
    const driver::Call& call = queries[0];
    EXPECT_EQ(call.number, 6408);
    ASSERT_EQ(call.bytes.size(), 6408u);
    const std::uint32_t words[] = {12, 6, 0, 6444, 1, 64};
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(Unsigned(call.bytes, 4 * i, 4), words[i]) << i;
    const std::uint32_t halves[] = {275, 30, 1, 32};
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(Unsigned(call.bytes, 24 + 2 * i, 2), halves[i]) << i;
    EXPECT_EQ(call.bytes.substr(32, 8), std::string(8, '\0'));
    const std::ptrdiff_t areas[] = {64, 1728, 1968};
    for (std::size_t i = 0; i < 3; ++i) {
        const char* area = nullptr;
        std::memcpy(&area, call.bytes.data() + 40 + 8 * i, sizeof area);
        EXPECT_EQ(area - static_cast<const char*>(call.record), areas[i]) << i;
    }
    EXPECT_EQ(call.bytes.substr(64), std::string(6344, '\0'));
}

TEST_F(DumpTest, VariableRequests)
{
    ASSERT_TRUE(AddDriverVariables(dom(), handle(), zip()));
    const auto queries = Queries();
    ASSERT_EQ(queries.size(), 173u);
    for (std::size_t i = 0; i < queries.size(); ++i)
        EXPECT_EQ(Unsigned(queries[i].bytes, 0, 4), i) << i;
    // A failure ends the dump there.
    driver::Answers answers;
    FailAt("get_varv", 5, -10017)(answers);
    Start(answers);
    EXPECT_FALSE(AddDriverVariables(dom(), handle(), zip()));
    EXPECT_EQ(Queries().size(), 6u);
    EXPECT_FALSE(getDriverVariables(dom(), handle(), nullptr, 0)) << "no records";
}

TEST_F(DumpTest, ConnectionRequests)
{
    const struct {
        std::uint16_t udp;
        std::vector<int> statuses;
        std::ptrdiff_t tcp_at;  // in the block
        std::uint32_t tcp_capacity;
    } cases[] = {
        {300, {}, 16 + 72 * 300, 700}, {0, {}, 16, 1000}, {999, {}, 16 + 72 * 999, 1},
        {65535, {0, -5}, 16, 1000},    {1000, {}, 0, 0},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        Flows(1000, c.udp, 1, c.statuses)(answers);
        Start(answers);
        ASSERT_TRUE(AddDriverConnTrack(dom(), handle(), zip()));
        const auto queries = Queries();
        ASSERT_EQ(queries.size(), c.tcp_capacity != 0 ? 3u : 2u);
        EXPECT_EQ(queries[0].bytes, std::string("\3", 1) + std::string(15, '\0'));
        EXPECT_EQ(queries[0].number, 16);
        EXPECT_EQ(queries[1].number, 72016);
        EXPECT_EQ(queries[1].bytes, std::string("\3\0\0\0\xe8\3\0\0\0\0\0\0\x11\0\0\0", 16));
        for (const driver::Call& call : queries) {
            EXPECT_NE(call.extra, nullptr);
            EXPECT_EQ(call.extra, queries[0].extra);
        }
        if (queries.size() < 3) continue;
        EXPECT_EQ(static_cast<const char*>(queries[2].record) -
                      static_cast<const char*>(queries[1].record),
                  c.tcp_at);
        EXPECT_EQ(queries[2].number, static_cast<long>(16 + 72 * c.tcp_capacity));
        EXPECT_EQ(Unsigned(queries[2].bytes, 0, 4), 3u);
        EXPECT_EQ(Unsigned(queries[2].bytes, 4, 4), c.tcp_capacity);
        EXPECT_EQ(Unsigned(queries[2].bytes, 8, 4), 0u);
        EXPECT_EQ(Unsigned(queries[2].bytes, 12, 1), 6u);
    }
}

TEST_F(DumpTest, BlacklistRequests)
{
    driver::Answers answers;
    List(0, 0)(answers);
    Start(answers);
    ASSERT_TRUE(AddDriverBlacklist(dom(), handle(), zip()));
    const auto queries = Queries();
    ASSERT_EQ(queries.size(), 2u);
    EXPECT_EQ(queries[0].bytes, std::string(44, '\0'));
    // The header goes back as it came, with the driver's own marks.
    std::string second(44, '\0');
    second[32] = 77;
    EXPECT_EQ(queries[1].bytes, second);
    EXPECT_NE(queries[1].record, queries[0].record);
}

TEST_F(DumpTest, RuleRequestsAndTheEndOfProfiling)
{
    const struct {
        std::uint32_t profiling;
        int get_status;
        std::vector<int> profile_statuses;
        bool asked;
        bool stopped;
    } cases[] = {
        {1, 0, {}, true, true},   {0, 0, {}, true, false},       {2, 0, {}, true, false},
        {1, -5, {}, true, false}, {1, 0, {0, -5}, false, false}, {1, 0, {-5}, false, false},
    };
    for (const auto& c : cases) {
        driver::Answers answers;
        Profile(40, 40, c.profile_statuses)(answers);
        answers.profiling = c.profiling;
        answers.statuses["get_var"] = {c.get_status};
        answers.statuses["set_var"] = {-5};  // nobody looks
        Start(answers);
        EXPECT_TRUE(AddDriverRuleStats(dom(), handle(), zip()));
        int asked = 0;
        int stopped = 0;
        Lines sizes;
        for (const driver::Call& call : driver::TakeCalls()) {
            if (call.name == "get_profile_stats") sizes.push_back(call.bytes);
            if (call.name != "get_var" && call.name != "set_var") continue;
            EXPECT_EQ(call.number, 62);
            (call.name == "get_var" ? asked : stopped) += 1;
            EXPECT_EQ(call.bytes, std::string(call.name == "get_var" ? 8 : 4, '\0'));
        }
        EXPECT_EQ(asked, c.asked ? 1 : 0);
        EXPECT_EQ(stopped, c.stopped ? 1 : 0);
        EXPECT_EQ(sizes.at(0), std::string(4, '\0'));
        if (sizes.size() > 1) {
            EXPECT_EQ(sizes[1], std::string("\x28\0\0\0", 4));
        }
        const bool event = c.profile_statuses.size() > 1;
        EXPECT_EQ(Events().size(), event ? 1u : 0u);
    }
}

}  // namespace
