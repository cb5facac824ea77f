// Each dump by itself: what it asks of the driver byte for byte, and what becomes of every
// answer: entry, event, trace, result, and the block that it took.

#include <algorithm>
#include <cstring>
#include <functional>

#include "BlockWatch.h"
#include "Fixture.h"

namespace {

using namespace Filter::Diagnostics;

using Add = bool (*)(VxaCore::CDom*, vxi_handle_ops_s*, VxaCore::CZipOutputStream&);

constexpr std::uint32_t kHuge = 0xffffffff;

struct Case {
    const char* what;
    Add add;
    std::function<void(driver::Answers&)> answer;
    bool result;
    std::string entry;  // its bytes; "-": there is none
    Lines events;
    Lines traces;  // behind the dump's first
    std::vector<std::size_t> blocks;
    int refused_block = -1;
};

const struct {
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

const auto& DumpOf(Add add)
{
    return *std::find_if(std::begin(kDumps), std::end(kDumps),
                         [add](const auto& dump) { return dump.add == add; });
}

Lines EventOf(const std::string& text)
{
    return {"1001 " + text};
}

std::string TraceOf(const std::string& text)
{
    return "408 ShowErrors: AgentWrite 1001 " + text;
}

std::string AllVariables(const std::string& behind = "")
{
    std::string text;
    for (int i = 0; i < 173; ++i)
        text += std::to_string(i) + " " + std::to_string(3 * i) + "\n" + behind;
    return text;
}

// "line getDriverConnTrack: ..." of the three counts.
Lines Counts(int total, int udp, int tcp)
{
    const auto line = [](int number, const std::string& name, int count) {
        return std::to_string(number) + " getDriverConnTrack: " + name + std::to_string(count);
    };
    return {line(273, "totConn.entry_ct was ", total), line(296, "udpConn->entry_ct = ", udp),
            line(315, "tcpConn->entry_ct = ", tcp)};
}

Lines With(Lines lines, std::size_t at, const Lines& more)
{
    lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at), more.begin(), more.end());
    return lines;
}

std::string Payload(unsigned int size)
{
    std::string bytes;
    for (unsigned int i = 0; i < size; ++i) bytes.push_back(static_cast<char>(i + 1));
    return bytes;
}

const char* const kStats = "1000 1207 2000 2029 3000 3554\n";
const Lines kAboutToGet = {
    "107 AddDriverStatistics: AddDriverStatistics() - about to get stats",
    "333 getDriverStatistics: getDriverStatistics()",
};
const Lines kCalling =
    With(kAboutToGet, 2, {"338 getDriverStatistics: driver is opened calling vxi_get_stats"});
const Lines kDumped = With(kCalling, 3,
                           {"124 AddDriverStatistics: AddDriverStatistics() - got stats",
                            "126 AddDriverStatistics: AddDriverStatistics() - dumped stats"});

void NotAvailable(driver::Answers& answers)
{
    answers.available = 0;
}

// A driver that fails may have written anything before.
std::function<void(driver::Answers&)> Flows(std::uint16_t total, std::uint16_t udp,
                                            std::uint16_t tcp, std::vector<int> statuses = {})
{
    return [=](driver::Answers& answers) {
        answers.flows = total;
        answers.udp_flows = udp;
        answers.tcp_flows = tcp;
        answers.statuses["get_conntrack"] = statuses;
    };
}

std::function<void(driver::Answers&)> List(std::uint32_t first, std::uint32_t second,
                                           std::vector<int> statuses = {})
{
    return [=](driver::Answers& answers) {
        answers.list_sizes[0] = first;
        answers.list_sizes[1] = second;
        answers.statuses["get_blacklist"] = statuses;
    };
}

std::function<void(driver::Answers&)> Profile(std::uint32_t first, std::uint32_t second,
                                              std::vector<int> statuses = {})
{
    return [=](driver::Answers& answers) {
        answers.profile_sizes[0] = first;
        answers.profile_sizes[1] = second;
        answers.statuses["get_profile_stats"] = statuses;
    };
}

std::function<void(driver::Answers&)> Status(const std::string& call, std::vector<int> statuses)
{
    return [=](driver::Answers& answers) { answers.statuses[call] = statuses; };
}

std::function<void(driver::Answers&)> Word(unsigned int offset, std::uint16_t word)
{
    return [=](driver::Answers& answers) { answers.stats_words[offset] = word; };
}

const std::string kEcho = "GET_STATS|ffffffff (E)";
const std::string kStatsFailed = "GET_STATS|fffffffb (E)";
const std::string kTrackFailed = "GET_CONN_TRACK|fffffffb (E)";
const std::string kTrackFailed2 = "GET_CONN_TRACK|fffffffa (E)";
const std::string kListFailed = "BLACKLIST_ADD|fffffffb (E)";
const std::string kStatesFailed = "GET_CONN_STATES|fffffffb (E)";
const std::string kVariableFailed = "GET_VARIABLE|fffffffb (E)";
const std::string kProfileFailed = "vxi_get_profile_stats()|fffffffb (E)";

std::vector<int> FailAt(std::size_t nth, int status)
{
    std::vector<int> statuses(nth + 1, 0);
    statuses[nth] = status;
    return statuses;
}

const Case kCases[] = {
    {"statistics", AddDriverStatistics, nullptr, true, kStats, {}, kDumped, {6408}},
    {"statistics: not available",
     AddDriverStatistics,
     NotAvailable,
     false,
     "-",
     {},
     kAboutToGet,
     {6408}},
    {"statistics: fails",
     AddDriverStatistics,
     Status("get_stats", {-5}),
     false,
     "-",
     EventOf(kStatsFailed),
     With(kCalling, 3, {TraceOf(kStatsFailed)}),
     {6408}},
    {"statistics: word at 24 changed",
     AddDriverStatistics,
     Word(24, 276),
     false,
     "-",
     EventOf(kEcho),
     With(kCalling, 3, {TraceOf(kEcho)}),
     {6408}},
    {"statistics: word at 26 changed",
     AddDriverStatistics,
     Word(26, 31),
     false,
     "-",
     EventOf(kEcho),
     With(kCalling, 3, {TraceOf(kEcho)}),
     {6408}},
    {"statistics: word at 28 changed",
     AddDriverStatistics,
     Word(28, 0),
     false,
     "-",
     EventOf(kEcho),
     With(kCalling, 3, {TraceOf(kEcho)}),
     {6408}},
    {"statistics: word at 30 changed",
     AddDriverStatistics,
     Word(30, 0),
     true,
     kStats,
     {},
     kDumped,
     {6408}},
    {"statistics: no memory", AddDriverStatistics, nullptr, false, "-", {}, {}, {6408}, 0},

    {"variables", AddDriverVariables, nullptr, true, AllVariables(), {}, {}, {}},
    {"variables: not available", AddDriverVariables, NotAvailable, false, "-", {}, {}, {}},
    {"variables: 5 unknown",
     AddDriverVariables,
     Status("get_varv", FailAt(5, -10017)),
     false,
     "-",
     {},
     {},
     {}},
    {"variables: the last unknown",
     AddDriverVariables,
     Status("get_varv", FailAt(172, -10017)),
     false,
     "-",
     {},
     {},
     {}},
    {"variables: 5 fails",
     AddDriverVariables,
     Status("get_varv", FailAt(5, -5)),
     false,
     "-",
     EventOf(kVariableFailed),
     {TraceOf(kVariableFailed)},
     {}},

    {"states", AddDriverConnStates, nullptr, true, "1010101 1010101\n", {}, {}, {}},
    {"states: not available", AddDriverConnStates, NotAvailable, false, "-", {}, {}, {}},
    {"states: fails",
     AddDriverConnStates,
     Status("get_conn_states", {-5}),
     false,
     "-",
     EventOf(kStatesFailed),
     {TraceOf(kStatesFailed)},
     {}},

    {"connections",
     AddDriverConnTrack,
     Flows(1000, 300, 500),
     true,
     "17: 300 entries, 21600 bytes\n6: 500 entries, 36000 bytes\n",
     {},
     Counts(1000, 300, 500),
     {72032}},
    {"connections: not available", AddDriverConnTrack, NotAvailable, true, "-", {}, {}, {}},
    {"connections: none",
     AddDriverConnTrack,
     nullptr,
     true,
     "-",
     {},
     {"273 getDriverConnTrack: totConn.entry_ct was 0"},
     {}},
    {"connections: UDP alone",
     AddDriverConnTrack,
     Flows(7, 7, 9),
     true,
     "17: 7 entries, 504 bytes\n6: 0 entries, 0 bytes\n",
     {},
     Counts(7, 7, 0),
     {536}},
    {"connections: neither",
     AddDriverConnTrack,
     Flows(1, 0, 0),
     true,
     "17: 0 entries, 0 bytes\n6: 0 entries, 0 bytes\n",
     {},
     Counts(1, 0, 0),
     {104}},
    {"connections: as many as can be told",
     AddDriverConnTrack,
     Flows(65535, 1, 65534),
     true,
     "17: 1 entries, 72 bytes\n6: 65534 entries, 4718448 bytes\n",
     {},
     Counts(65535, 1, 65534),
     {4718552}},
    {"connections: more filled than asked for",
     AddDriverConnTrack,
     Flows(3, 65535, 65535),
     true,
     "17: 3 entries, 216 bytes\n6: 0 entries, 0 bytes\n",
     {},
     Counts(3, 65535, 0),
     {248}},
    {"connections: more TCP filled than asked for",
     AddDriverConnTrack,
     Flows(3, 1, 65535),
     true,
     "17: 1 entries, 72 bytes\n6: 2 entries, 144 bytes\n",
     {},
     Counts(3, 1, 65535),
     {248}},
    {"connections: count fails",
     AddDriverConnTrack,
     Flows(3, 1, 2, {-5}),
     false,
     "-",
     EventOf(kTrackFailed),
     {TraceOf(kTrackFailed)},
     {}},
    {"connections: UDP fails",
     AddDriverConnTrack,
     Flows(3, 65535, 3, {0, -5}),
     true,
     "17: 0 entries, 0 bytes\n6: 3 entries, 216 bytes\n",
     EventOf(kTrackFailed),
     With(Counts(3, 0, 3), 1, {TraceOf(kTrackFailed), "293 getDriverConnTrack: rc = -5"}),
     {248}},
    {"connections: TCP fails",
     AddDriverConnTrack,
     Flows(3, 1, 65535, {0, 0, -5}),
     true,
     "17: 1 entries, 72 bytes\n6: 0 entries, 0 bytes\n",
     EventOf(kTrackFailed),
     With(Counts(3, 1, 0), 2, {TraceOf(kTrackFailed), "311 getDriverConnTrack: rc = -5"}),
     {248}},
    {"connections: both fail",
     AddDriverConnTrack,
     Flows(3, 1, 1, {0, -5, -6}),
     true,
     "17: 0 entries, 0 bytes\n6: 0 entries, 0 bytes\n",
     {"1001 " + kTrackFailed, "1001 " + kTrackFailed2},
     With(With(Counts(3, 0, 0), 2, {TraceOf(kTrackFailed2), "311 getDriverConnTrack: rc = -6"}), 1,
          {TraceOf(kTrackFailed), "293 getDriverConnTrack: rc = -5"}),
     {248}},
    {"connections: no memory",
     AddDriverConnTrack,
     Flows(1000, 1, 1),
     true,
     "-",
     {},
     {"273 getDriverConnTrack: totConn.entry_ct was 1000",
      "318 getDriverConnTrack: malloc 72032 bytes failed."},
     {72032},
     0},

    {"blacklist", AddDriverBlacklist, List(96, 96), true, "96 bytes, 96 filled\n", {}, {}, {140}},
    {"blacklist: not available", AddDriverBlacklist, NotAvailable, false, "-", {}, {}, {}},
    {"blacklist: empty", AddDriverBlacklist, List(0, 0), true, "0 bytes, 0 filled\n", {}, {}, {44}},
    {"blacklist: shrinks",
     AddDriverBlacklist,
     List(96, 48),
     true,
     "48 bytes, 48 filled\n",
     {},
     {},
     {140}},
    {"blacklist: grows",
     AddDriverBlacklist,
     List(96, 144),
     true,
     "96 bytes, 96 filled\n",
     {},
     {"245 getDriverBlacklist: driver reported 144 bytes, room for 96"},
     {140}},
    {"blacklist: claims everything",
     AddDriverBlacklist,
     List(48, kHuge),
     true,
     "48 bytes, 48 filled\n",
     {},
     {"245 getDriverBlacklist: driver reported 4294967295 bytes, room for 48"},
     {92}},
    {"blacklist: size request fails",
     AddDriverBlacklist,
     List(96, 96, {-5}),
     false,
     "-",
     EventOf(kListFailed),
     {TraceOf(kListFailed)},
     {}},
    {"blacklist: fill request fails",
     AddDriverBlacklist,
     List(96, 96, {0, -5}),
     false,
     "-",
     EventOf(kListFailed),
     {TraceOf(kListFailed)},
     {140}},
    {"blacklist: a sum beyond 32 bits",
     AddDriverBlacklist,
     List(kHuge - 43, 96),
     false,
     "-",
     {},
     {},
     {}},
    {"blacklist: a sum beyond 32 bits by all",
     AddDriverBlacklist,
     List(kHuge, 96),
     false,
     "-",
     {},
     {},
     {}},
    {"blacklist: no memory", AddDriverBlacklist, List(96, 96), false, "-", {}, {}, {140}, 0},

    {"rules", AddDriverRuleStats, Profile(40, 40), true, Payload(40), {}, {}, {44}},
    {"rules: without a driver",
     AddDriverRuleStats,
     [](driver::Answers& answers) {
         Profile(40, 40)(answers);
         answers.available = 0;
     },
     true,
     Payload(40),
     {},
     {},
     {44}},
    {"rules: long", AddDriverRuleStats, Profile(5000, 5000), true, Payload(5000), {}, {}, {5004}},
    {"rules: none", AddDriverRuleStats, Profile(0, 0), true, "", {}, {}, {}},
    {"rules: size request fails", AddDriverRuleStats, Profile(40, 40, {-5}), true, "", {}, {}, {}},
    {"rules: fill request fails",
     AddDriverRuleStats,
     Profile(40, 40, {0, -5}),
     true,
     "",
     EventOf(kProfileFailed),
     {TraceOf(kProfileFailed)},
     {44}},
    {"rules: fewer than announced",
     AddDriverRuleStats,
     Profile(40, 7),
     true,
     Payload(7),
     {},
     {},
     {44}},
    {"rules: none after all", AddDriverRuleStats, Profile(40, 0), true, "", {}, {}, {44}},
    {"rules: more than asked for",
     AddDriverRuleStats,
     Profile(40, kHuge),
     true,
     Payload(40),
     {},
     {"190 AddDriverRuleStats: driver reported 4294967295 bytes, room for 40"},
     {44}},
    {"rules: no memory",
     AddDriverRuleStats,
     Profile(40, 40),
     true,
     "",
     {},
     {"182 AddDriverRuleStats: malloc() failed"},
     {44},
     0},
    {"rules: no memory for 4 GB",
     AddDriverRuleStats,
     Profile(kHuge, kHuge),
     true,
     "",
     {},
     {"182 AddDriverRuleStats: malloc() failed"},
     {std::size_t{kHuge} + 4},
     0},
};

class Dump : public DiagnosticsTest {
protected:
    void Run(const Case& c, bool archive_refuses = false)
    {
        SCOPED_TRACE(c.what);
        const auto& dump = DumpOf(c.add);
        driver::Answers answers;
        answers.error = "E";
        if (c.answer) c.answer(answers);
        Start(answers,
              archive_refuses ? std::set<std::string>{dump.entry} : std::set<std::string>{});
        blocks::Watch(c.refused_block);
        const bool result = c.add(dom(), handle(), zip());
        ExpectBlocks(c, blocks::Taken());
        EXPECT_EQ(result, c.result && !(archive_refuses && c.entry != "-"));
        EXPECT_EQ(Events(), c.events);
        EXPECT_EQ(Traces(), With(c.traces, 0, {dump.trace}));
        ExpectEntry(c, archive_refuses);
    }

    static void ExpectBlocks(const Case& c, const std::vector<blocks::Block>& taken)
    {
        std::vector<std::size_t> sizes;
        for (const blocks::Block& block : taken) {
            sizes.push_back(block.size);
            EXPECT_EQ(block.freed, block.at != nullptr ? 1 : 0) << block.size << " bytes";
        }
        EXPECT_EQ(sizes, c.blocks);
    }

    void ExpectEntry(const Case& c, bool archive_refuses)
    {
        const auto entries = Entries();
        ASSERT_EQ(entries.size(), c.entry == "-" || archive_refuses ? 0u : 1u);
        if (entries.empty()) return;
        EXPECT_EQ(entries[0].name, DumpOf(c.add).entry);
        EXPECT_EQ(entries[0].text, DumpOf(c.add).text);
        EXPECT_EQ(entries[0].comment, "");
        EXPECT_EQ(entries[0].bytes, c.entry);
    }
};

TEST_F(Dump, EveryAnswerOfTheDriver)
{
    for (const Case& c : kCases) Run(c);
}

TEST_F(Dump, EveryAnswerOfTheDriverWithAnArchiveThatRefuses)
{
    for (const Case& c : kCases) Run(c, true);
}

TEST_F(Dump, ThePrintedTextIsTheEntry)
{
    for (const auto& dump : kDumps) {
        if (!dump.text) continue;
        SCOPED_TRACE(dump.entry);
        driver::Answers answers;
        Flows(1, 0, 1)(answers);
        Start(answers);
        ASSERT_TRUE(dump.add(dom(), handle(), zip()));
        const std::string plain = Entries().at(0).bytes;
        // A long last line without an end; one print is cut.
        answers.text = "a\n\n\tb" + std::string(2000, 'y');
        const std::string behind = answers.text.substr(0, 1023);
        Start(answers);
        ASSERT_TRUE(dump.add(dom(), handle(), zip()));
        EXPECT_EQ(Entries().at(0).bytes,
                  dump.add == AddDriverVariables ? AllVariables(behind) : plain + behind);
    }
}

TEST_F(Dump, NothingIsFormattedWithoutTraces)
{
    host::EnableTraces(false);
    for (const Case& c : kCases) {
        driver::Answers answers;
        if (c.answer) c.answer(answers);
        Start(answers);
        blocks::Watch(c.refused_block);
        c.add(dom(), handle(), zip());
        blocks::Taken();
        EXPECT_TRUE(host::TakeTraces().empty()) << c.what;
    }
}

// ---- requests --------------------------------------------------------------------------

std::uint32_t Unsigned(const std::string& bytes, std::size_t offset, std::size_t size)
{
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data() + offset, size);
    return value;
}

TEST_F(Dump, StatisticsRequest)
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

TEST_F(Dump, VariableRequests)
{
    ASSERT_TRUE(AddDriverVariables(dom(), handle(), zip()));
    const auto queries = Queries();
    ASSERT_EQ(queries.size(), 173u);
    for (std::size_t i = 0; i < queries.size(); ++i)
        EXPECT_EQ(Unsigned(queries[i].bytes, 0, 4), i) << i;
    // A failure ends the dump there.
    driver::Answers answers;
    answers.statuses["get_varv"] = FailAt(5, -10017);
    Start(answers);
    EXPECT_FALSE(AddDriverVariables(dom(), handle(), zip()));
    EXPECT_EQ(Queries().size(), 6u);
    EXPECT_FALSE(getDriverVariables(dom(), handle(), nullptr, 0)) << "no records";
}

TEST_F(Dump, ConnectionRequests)
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

TEST_F(Dump, BlacklistRequests)
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

TEST_F(Dump, RuleRequestsAndTheEndOfProfiling)
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

// ---- the bundle ------------------------------------------------------------------------

TEST_F(Dump, TheBundleGoesOnWhateverFails)
{
    const struct {
        const char* entry;
        const char* failure;
        const char* call;
    } dumps[] = {
        {"vxa_stats.txt", "77 AddDriverContent: AddDriverStatistics diagnostics failed",
         "get_stats"},
        {"vxa_variables.txt", "80 AddDriverContent: AddDriverVariables diagnostics failed",
         "get_varv"},
        {"vxa_conn_track.txt", "83 AddDriverContent: AddDriverConnTrack diagnostics failed",
         "get_conntrack"},
        {"vxa_blacklist.txt", "86 AddDriverContent: AddDriverBlacklist diagnostics failed",
         "get_blacklist"},
        {"vxa.tpf", "89 AddDriverContent: AddDriverRuleStats diagnostics failed", nullptr},
    };
    // Each dump fails or not, by the driver or by the archive.
    for (const bool by_driver : {false, true})
        for (unsigned int failing = 0; failing < 32; ++failing) {
            SCOPED_TRACE(testing::Message() << by_driver << " " << failing);
            driver::Answers answers;
            Flows(3, 1, 2)(answers);
            Profile(5, 5)(answers);
            std::set<std::string> refused;
            Lines names;
            Lines failures;
            for (unsigned int i = 0; i < 5; ++i) {
                if ((failing >> i & 1) == 0) {
                    names.push_back(dumps[i].entry);
                    continue;
                }
                failures.push_back(dumps[i].failure);
                if (by_driver && dumps[i].call != nullptr)
                    answers.statuses[dumps[i].call] = {-5};
                else
                    refused.insert(dumps[i].entry);
            }
            Start(answers, refused);
            EXPECT_TRUE(AddDriverContent(dom(), handle(), zip()));
            Lines added;
            for (const host::Entry& entry : Entries()) added.push_back(entry.name);
            EXPECT_EQ(added, names);
            const std::size_t of_the_driver = by_driver ? failures.size() - (failing >> 4) : 0;
            EXPECT_EQ(Events().size(), of_the_driver);
            Lines traced;
            for (const std::string& line : Traces())
                if (line.find("AddDriverContent: ") != std::string::npos) traced.push_back(line);
            EXPECT_EQ(traced, With(failures, 0, {"74 AddDriverContent: AddDriverContent()"}));
        }
}

}  // namespace
