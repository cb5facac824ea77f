// The flow table against what the kernel's own tools show in the same namespace.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <regex>

#include "FlowTable.h"
#include "Network.h"
#include "Traffic.h"

using flows::Fetch;
using traffic::Local;

namespace {

constexpr uint16_t port = 8443;

#define FLOWS_TEST(name) NETWORK_TEST_WITH("conntrack", Flows, name)

void Track()
{
    network::Run(
        "nft 'table inet tracking { chain c { type filter hook input priority 0; "
        "ct state invalid counter; }; }'");
}

const vxa_conntrack_entry_s& Find(const flows::Section& section, uint16_t destination_port)
{
    const auto found =
        std::find_if(section.entries.begin(), section.entries.end(), [&](const auto& entry) {
            return (entry.destination_port[0] << 8 | entry.destination_port[1]) == destination_port;
        });
    if (found == section.entries.end()) {
        throw std::runtime_error("no flow to port " + std::to_string(destination_port));
    }
    return *found;
}

void ExpectHeading(const std::string& heading, const flows::Table& table)
{
    EXPECT_EQ(table.text.rfind("# connections: " + heading, 0), 0u) << table.text.substr(0, 400);
}

void CompareWithConntrack(int family, bool accounting)
{
    network::Run("echo " + std::to_string(accounting) +
                 " > /proc/sys/net/netfilter/nf_conntrack_acct");
    Track();
    const traffic::Place place = Local(family, port);
    const auto listener = traffic::Listen(place);
    traffic::Converse(listener, place, 5);
    traffic::Converse(listener, place, 3, traffic::Ending::Reset);
    const auto open = traffic::Attempt(place, 4);
    traffic::BeRefused(Local(family, port + 1), 2);
    const auto one_way = traffic::Exchange(Local(family, 9000), 1);
    const auto both_ways = traffic::Exchange(Local(family, 9001), 1, 3);

    // Packets of endings may still be under way.
    network::Eventually([] { return flows::LinesOf(Fetch()) == flows::Listed(); });
    const flows::Table table = Fetch();
    EXPECT_EQ(flows::LinesOf(table), flows::Listed());
    EXPECT_EQ(table.tcp.total, 12u);  // a refused one is gone at once
    EXPECT_EQ(table.udp.total, 2u);
    ExpectHeading("ctnetlink (engine linux)\n# udp: 2 flows\n", table);

    const vxa_conntrack_entry_s& answered = Find(table.udp, 9001);
    EXPECT_GT(answered.timeout_s, 0u);
    const uint64_t headers = family == 4 ? 28 : 48;
    EXPECT_EQ(answered.bytes_backward, accounting ? 3 * (100 + headers) : 0);
}

TEST(Flows, AreWhatConntrackLists)
{
    REQUIRE_NETWORK("conntrack");
    for (const int family : {4, 6}) {
        for (const bool accounting : {false, true}) {
            SCOPED_TRACE(testing::Message() << "IPv" << family << " accounting " << accounting);
            network::InOwn([&] { CompareWithConntrack(family, accounting); });
        }
    }
}

FLOWS_TEST(ShowTranslationMarkAndZone)
{
    network::Run(
        "nft 'table ip t {\n"
        "chain o { type nat hook output priority -100; tcp dport {7000, 7001} dnat to :8443; "
        "}\n"
        "chain p { type nat hook postrouting priority 100;"
        " meta l4proto tcp ct original proto-dst {7001, 7002} snat to 127.0.0.9; }\n"
        "chain m { type filter hook output priority 0; tcp dport 7002 ct mark set 77; }\n"
        "chain z { type filter hook output priority raw; tcp dport 7003 ct zone set 5;"
        " tcp dport 7004 ct original zone set 6; }\n"
        "}'");
    const auto listener = traffic::Listen(Local(4, port));
    const auto other = traffic::Listen(Local(4, 7002));
    const auto zone = traffic::Listen(Local(4, 7003));
    const auto half_zone = traffic::Listen(Local(4, 7004));
    const struct {
        uint16_t to;
        int translated;
        const char* ends;
    } rows[] = {{port, 0, ""},
                {7000, VXA_FLOW_DNAT, " dnat=127.0.0.2:8443"},
                {7001, VXA_FLOW_SNAT | VXA_FLOW_DNAT, " snat=127.0.0.9:\\d+ dnat=127.0.0.2:8443"},
                {7002, VXA_FLOW_SNAT, " mark=77 snat=127.0.0.9:\\d+"},
                {7003, 0, "( unreplied)? zone=5"},
                {7004, 0, "( unreplied)? zone-orig=6"}};
    for (const auto& row : rows) {
        const auto client = traffic::Connect(Local(4, row.to));
        const flows::Table table = Fetch();
        const vxa_conntrack_entry_s& entry = Find(table.tcp, row.to);
        EXPECT_EQ(entry.flags & (VXA_FLOW_SNAT | VXA_FLOW_DNAT), row.translated) << row.to;
        EXPECT_EQ(entry.mark, row.to == 7002 ? 77u : 0u);
        const std::string line =
            ":" + std::to_string(row.to) + " .*[0-9-] ?(assured)?" + row.ends + "\n";
        EXPECT_TRUE(std::regex_search(table.text, std::regex(line))) << table.text;
    }
}

FLOWS_TEST(OfOtherProtocolsAreOnlyCounted)
{
    flows::Make("udp", 3);
    flows::Make("udplite", 2);
    const flows::Table table = Fetch();
    EXPECT_EQ(table.count, 3);
    ExpectHeading("ctnetlink, without 2 of other protocols ", table);
}

FLOWS_TEST(ShareTheRoom)
{
    flows::Make("udp", 33000);
    flows::Make("tcp", 40000);
    const flows::Table table = Fetch();
    EXPECT_EQ(table.udp.entries.size(), 32767u);
    EXPECT_EQ(table.tcp.entries.size(), 32768u);
    EXPECT_NE(table.text.find("# udp: showing 32767 of 33000 flows\n"), std::string::npos);
    EXPECT_NE(table.text.find("# tcp: showing 32768 of 40000 flows\n"), std::string::npos);
    const flows::Lines lines = flows::LinesOf(table);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 65535u)
        << "a flow is shown twice";
}

// "PROTOCOL END END" for each line that the pattern takes these from. The ends are put in
// order: a flow's stand as it was opened, a socket's begin with its own.
flows::Lines Ends(const std::string& text, const char* pattern)
{
    flows::Lines lines;
    const std::regex line(pattern);
    for (std::sregex_iterator at(text.begin(), text.end(), line), end; at != end; ++at) {
        const auto [first, second] = std::minmax({at->str(2), at->str(3)});
        lines.insert(at->str(1) + " " + first + " " + second);
    }
    return lines;
}

void CompareWithSs(const std::string& source)
{
    const auto v6 = traffic::Listen(Local(6, port));
    const auto v4 = traffic::Listen(Local(4, port));
    traffic::Converse(v4, Local(4, port), 3);
    const auto clients = traffic::Attempt(Local(6, port), 3);
    const auto more = traffic::Attempt(Local(4, port), 2);
    const auto mapped = traffic::Exchange({"::ffff:127.0.0.1", port}, 1, 1);

    network::Child child([&] {
        if (source.find("CAP_NET_ADMIN") != source.npos) {
            network::BecomeNobody();
        }
        const flows::Table table = Fetch();
        ExpectHeading("sock_diag, " + source + " (engine linux)\n", table);
        const std::string shown = network::Run(
            "(ss -Htan | sed 's/^/tcp /'; ss -Huan | sed 's/^/udp /') | "
            "sed 's/\\[::ffff:127.0.0.1\\]/127.0.0.1/g'");
        const flows::Lines sockets =
            Ends(shown, "(tcp|udp) [A-Z0-9-]+ +\\d+ +\\d+ +(\\S+) +(\\S+:\\d+)");
        EXPECT_EQ(Ends(table.text, "(tcp|udp) (\\S+) > (\\S+:8443) .* socket"), sockets);
        EXPECT_EQ(table.count, sockets.size());
        EXPECT_EQ(table.tcp.total, table.tcp.entries.size());
        EXPECT_EQ(Find(table.udp, port).family, 4);
    });
    child.ExpectGood();
}

TEST(Flows, ComeFromSocketsWhereNoneIsTrackedOrMayBeRead)
{
    REQUIRE_NETWORK("conntrack");
    network::InOwn([] { CompareWithSs("no UDP or TCP flow is tracked"); });
    network::InOwn([] {
        Track();
        CompareWithSs("ctnetlink needs CAP_NET_ADMIN");
    });
}

FLOWS_TEST(OfSocketsCountPayload)
{
    const auto listener = traffic::Listen(Local(4, port));
    const auto client = traffic::Connect(Local(4, port));
    const traffic::Socket server(accept(listener.fd(), nullptr, nullptr));
    char data[1000] = {};
    ASSERT_EQ(send(client.fd(), data, 1000, 0), 1000);
    ASSERT_EQ(recv(server.fd(), data, 1000, MSG_WAITALL), 1000);
    ASSERT_EQ(send(server.fd(), data, 300, 0), 300);
    const flows::Table table = Fetch();
    ASSERT_EQ(table.tcp.entries.size(), 2u);  // one at each end
    for (const vxa_conntrack_entry_s& entry : table.tcp.entries) {
        EXPECT_EQ(entry.flags, VXA_FLOW_FROM_SOCK_DIAG | VXA_FLOW_COUNTERS_VALID);
        EXPECT_EQ(entry.bytes_forward, 1000u);
        EXPECT_EQ(entry.bytes_backward, 300u);
        EXPECT_GT(entry.packets_forward, 0u);
    }
}

// Signals cut system calls short while the table is read.
FLOWS_TEST(SurviveSignals)
{
    flows::Make("tcp", 30000);
    struct sigaction quiet = {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGALRM, &quiet, nullptr), 0);
    const itimerval often = {{0, 200}, {0, 200}};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    for (unsigned i = 0; i < 5; ++i) {
        EXPECT_EQ(Fetch().tcp.entries.size(), 30000u);
    }
}

// "STATUS ENTRIES TOTAL" of asking for `capacity` flows.
std::string Fill(const driver::Handle& handle, uint8_t protocol, uint16_t capacity)
{
    std::vector<uint64_t> block(2 + 9u * capacity + 1, 0x5a5a5a5a5a5a5a5a);
    auto* section = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    *section = conntrack_request(protocol);
    section->entry_ct = capacity;
    const int status = vxi_get_conntrack(handle.get(), section, 16 + 72u * capacity, nullptr);
    EXPECT_EQ(block.back(), 0x5a5a5a5a5a5a5a5a) << "written beyond the capacity";
    return status < 0 ? strerror(-status)
                      : std::to_string(section->entry_ct) + " of " + std::to_string(section->total);
}

FLOWS_TEST(AreServedFromOneSnapshot)
{
    flows::Make("udp", 5);
    flows::Make("tcp", 7);
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(Fill(handle, IPPROTO_UDP, 5), strerror(ENODATA));

    vxa_dump_conntrack_s count = conntrack_request();
    ASSERT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0);
    EXPECT_EQ(count.entry_ct, 12);
    network::Run("conntrack -F 2>/dev/null");

    EXPECT_EQ(Fill(driver::Open(), IPPROTO_TCP, 7), strerror(ENODATA));
    EXPECT_EQ(Fill(handle, IPPROTO_TCP, 3), "3 of 7");
    EXPECT_EQ(Fill(handle, IPPROTO_UDP, 12), "5 of 5");
    EXPECT_EQ(Fill(handle, IPPROTO_UDP, 12), strerror(ENODATA));
    EXPECT_EQ(Fill(handle, IPPROTO_TCP, 12), strerror(ENODATA));
    // A handle that is closed with a snapshot in it is left to the leak checker.
    ASSERT_EQ(vxi_get_conntrack(handle.get(), &count, sizeof count, nullptr), 0);
}

}  // namespace
