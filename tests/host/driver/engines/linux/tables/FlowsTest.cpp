// The flow table against what conntrack and ss show in the same namespace.
#include <netinet/in.h>
#include <signal.h>
#include <sys/time.h>

#include <regex>

#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Lines;
using kernel::Run;
using traffic::kPort;
using traffic::Local;

namespace {

int Fill(Handle handle, vxa_dump_conntrack_s& section, std::uint8_t protocol, std::size_t room)
{
    section = ConntrackRequest(protocol);
    section.entry_ct = static_cast<std::uint16_t>(room);
    return vxi_get_conntrack(handle, &section, static_cast<unsigned>(16 + 72 * room), nullptr);
}

// Fetches as callers do, but with room for `less` flows fewer than were counted.
std::string Fetch(const OpenHandle& handle = kernel::Open(), unsigned less = 0)
{
    vxa_dump_conntrack_s count;
    EXPECT_EQ(Fill(handle.get(), count, 0, 0), 0) << ErrorText(handle.get());
    if (less > 0) {
        Run("conntrack -F 2>/dev/null");  // the flows are those that were counted
    }
    const std::size_t room = count.entry_ct - less;
    std::vector<vxa_dump_conntrack_s> block(2 + room * 72 / 16 + 1);
    EXPECT_EQ(Fill(handle.get(), block[0], IPPROTO_UDP, room), 0);
    const std::size_t udp = block[0].entry_ct;
    auto* tcp = reinterpret_cast<char*>(&block[1]) + 72 * udp;
    EXPECT_EQ(
        Fill(handle.get(), reinterpret_cast<vxa_dump_conntrack_s&>(*tcp), IPPROTO_TCP, room - udp),
        0);
    return TextOf(tb_dump_all_conn_track, block.data());
}

void ExpectHeading(const std::string& text, const std::string& heading)
{
    EXPECT_EQ(text.rfind("# connections: " + heading, 0), 0u) << text.substr(0, 400);
}

// The lines of flows, without timeouts and what separates words.
Lines FlowsIn(const std::string& text)
{
    const std::string bare = std::regex_replace(text, std::regex("[[\\]]"), "");
    return kernel::Matches(std::regex_replace(bare, std::regex("( \\d+s|[-/ ])+"), " "),
                           "\n([^#\n]+)");
}

// What conntrack lists, in the same form.
Lines Listed()
{
    const std::regex entry(
        R"((udp|tcp) +\d+ \d+ (?:(\S+) )?src=(\S+) dst=(\S+) sport=(\d+) dport=(\d+))"
        R"((?: packets=(\d+) bytes=(\d+))?( unreplied)? src=\S+ dst=\S+ sport=\d+ dport=\d+)"
        R"((?: packets=(\d+) bytes=(\d+))?( assured)?)");
    return FlowsIn(
        std::regex_replace(Run("(conntrack -L -f ipv4; conntrack -L -f ipv6) 2>/dev/null | "
                               "sed 's/\\[ASSURED\\]/assured/; s/\\[UNREPLIED\\]/unreplied/'"),
                           entry, "\n$1 $3:$5 > $4:$6 $2 $7/$8 $10/$11$12$9\n#"));
}

// Flows with different ends, put into the kernel's table without any traffic.
void Make(const std::string& protocol, unsigned count)
{
    Run("seq " + std::to_string(count) + " | awk '{ printf \"-I -p " + protocol +
        " -s 10.%d.0.1 -d 10.255.0.1 --sport %d --dport 443 -t 3600 -u SEEN_REPLY,ASSURED" +
        (protocol == "tcp" ? " --state ESTABLISHED" : "") +
        "\\n\", $1 / 60000, 1024 + $1 % 60000 }' | conntrack -R /dev/stdin");
}

void Track()
{
    Run("nft 'table inet tracking { chain c { type filter hook input priority 0; "
        "ct state invalid counter; }; }'");
}

KERNEL_TEST(Flows, AreWhatConntrackLists)
{
    Track();
    std::vector<std::vector<traffic::Socket>> kept;
    for (const bool accounting : {false, true}) {
        kept.clear();
        Run("conntrack -F 2>&1; echo " + std::to_string(accounting) +
            " > /proc/sys/net/netfilter/nf_conntrack_acct");
        for (const int family : {4, 6}) {
            const auto listener = traffic::Listen(Local(family));
            traffic::Converse(listener, Local(family), 5);
            traffic::Converse(listener, Local(family), 3, true);
            kept.push_back({listener});
            kept.push_back(traffic::Connect(Local(family), 4, EINPROGRESS));
            traffic::Connect(Local(family, kPort + 1), 2, ECONNREFUSED);  // gone at once
            kept.push_back(traffic::Exchange(Local(family, 9000), 1));
            kept.push_back(traffic::Exchange(Local(family, 9000 + family), 1, 3));
        }
        // Packets of endings may still be under way.
        kernel::Eventually([] { return FlowsIn(Fetch()) == Listed(); });
        const std::string text = Fetch();
        EXPECT_EQ(FlowsIn(text), Listed());
        ExpectHeading(text, "ctnetlink (engine linux)\n# udp: 4 flows\n");
        EXPECT_NE(text.find(accounting ? " 1/58 3/444\n" : " - -\n"), text.npos) << text;
        EXPECT_EQ(kernel::Matches(text, "\n(udp|tcp) [^\n]* [1-9][0-9]*s ").size(), 28u);
    }
}

KERNEL_TEST(Flows, ShowTranslationMarkAndZone)
{
    Run(R"(nft 'table ip t {
chain o { type nat hook output priority -100; tcp dport {7000, 7001} dnat to :8443; };
chain p { type nat hook postrouting priority 100;
    meta l4proto tcp ct original proto-dst {7001, 7002} snat to 127.0.0.9; };
chain m { type filter hook output priority 0; tcp dport 7002 ct mark set 77; };
chain z { type filter hook output priority raw;
    tcp dport 7003 ct zone set 5; tcp dport 7004 ct original zone set 6; }; }')");
    const std::pair<std::uint16_t, const char*> rows[] = {
        {kPort, ""},
        {7000, " dnat=127.0.0.2:8443"},
        {7001, " snat=127.0.0.9:\\d+ dnat=127.0.0.2:8443"},
        {7002, " mark=77 snat=127.0.0.9:\\d+"},
        {7003, "( unreplied)? zone=5"},
        {7004, "( unreplied)? zone-orig=6"}};
    std::vector<traffic::Socket> listeners;
    for (const auto& [port, rest] : rows) {
        listeners.push_back(traffic::Listen(Local(4, port)));
        traffic::Connect(Local(4, port));
    }
    const std::string text = Fetch();
    for (const auto& [port, rest] : rows) {
        const std::string line = ":" + std::to_string(port) + " .*[0-9-] ?(assured)?" + rest + "\n";
        EXPECT_TRUE(std::regex_search(text, std::regex(line))) << text;
    }
}

// Signals interrupt system calls while the table is read; it is empty before its delivery.
KERNEL_TEST(Flows, ShareTheRoomInOneSnapshot)
{
    Make("udp", 33000);
    Make("tcp", 40000);
    Make("udplite", 2);
    const OpenHandle handle = kernel::Open();
    vxa_dump_conntrack_s section;
    EXPECT_EQ(Fill(handle.get(), section, IPPROTO_UDP, 0), -ENODATA);
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 200}, {0, 200}}, never = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const std::string text = Fetch(handle, 4);
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    ExpectHeading(text, "ctnetlink, without 2 of other protocols (engine linux)\n");
    EXPECT_NE(text.find("\n# udp: showing 32767 of 33000 flows\n"), text.npos);
    EXPECT_NE(text.find("\n# tcp: showing 32764 of 40000 flows\n"), text.npos);
    const Lines lines = FlowsIn(text);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 65531u)
        << "a flow is shown twice";
    EXPECT_EQ(Fill(handle.get(), section, IPPROTO_UDP, 0), -ENODATA);
    EXPECT_EQ(Fill(handle.get(), section, IPPROTO_TCP, 0), -ENODATA);
    // Closes the handle with a snapshot in it, for the leak checker.
    ASSERT_EQ(Fill(handle.get(), section, 0, 0), 0);
}

void CompareWithSs(const std::string& source)
{
    const std::string text = Fetch();
    ExpectHeading(text, "sock_diag, " + source + " (engine linux)\n");
    // From the opener to the port, whichever end the socket is at; listeners are not flows.
    const std::string shown = Run(R"((ss -Htan | sed 's/^/tcp /'; ss -Huan | sed 's/^/udp /') |
sed 's/\[::ffff:127.0.0.1\]/127.0.0.1/g' |
awk '$6 ~ /[0-9]$/ { print $1, $5 ~ /:8443$/ ? $6 " > " $5 : $5 " > " $6 }')");
    EXPECT_EQ(kernel::Matches(text, "\n(... \\S+ > \\S+) .* socket"),
              kernel::Matches("\n" + shown, "\n(.+)"));
    EXPECT_EQ(FlowsIn(text).size(), FlowsIn("\n" + shown).size());
}

KERNEL_TEST(Flows, ComeFromSocketsWhereNoneIsTrackedOrMayBeRead)
{
    const auto v6 = traffic::Listen(Local(6));
    auto v4 = traffic::Listen(Local(4));
    traffic::Converse(v4, Local(4), 3);
    const auto clients = traffic::Connect(Local(6), 3, EINPROGRESS);
    const auto more = traffic::Connect(Local(4));
    const auto mapped = traffic::Exchange({"::ffff:127.0.0.1", kPort}, 1, 1);
    const auto server = traffic::Accept(v4);
    char data[1000] = {};
    ASSERT_EQ(send(*more[0], data, 1000, 0), 1000);
    ASSERT_EQ(recv(*server, data, 1000, MSG_WAITALL), 1000);
    ASSERT_EQ(send(*server, data, 300, 0), 300);
    CompareWithSs("no UDP or TCP flow is tracked");
    for (int i = 0; i < 2; ++i, v4.reset()) {
        // Payload at both ends, forward from the opener, also after the listener has closed.
        const std::string text = Fetch();
        EXPECT_EQ(kernel::Matches(text, "ESTABLISHED - [1-9]/1000 \\d/300( socket)").size(), 2u)
            << text;
    }
    Track();
    const auto tracked = traffic::Connect(Local(6));
    kernel::BecomeNobody();
    CompareWithSs("ctnetlink needs CAP_NET_ADMIN");
}

}  // namespace
