// The flow table against what conntrack and ss show in the same namespace.
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <regex>

#include "AllocationLimit.h"
#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Lines;
using kernel::Run;
using traffic::kPort;
using traffic::Local;

namespace {

int Count(Handle handle, vxa_dump_conntrack_s& count)
{
    count = ConntrackRequest();
    return vxi_get_conntrack(handle, &count, sizeof count, nullptr);
}

int Fill(const OpenHandle& handle, vxa_dump_conntrack_s& section, std::uint8_t protocol,
         std::uint16_t room)
{
    section = ConntrackRequest(protocol);
    section.entry_ct = room;
    return vxi_get_conntrack(handle.get(), &section, 16 + 72u * room, nullptr);
}

// As callers fetch it, but with less room than was asked for.
std::string Fetch(const OpenHandle& handle = kernel::Open(), std::uint16_t less = 0)
{
    vxa_dump_conntrack_s count;
    EXPECT_EQ(Count(handle.get(), count), 0) << ErrorText(handle.get());
    if (less > 0) {
        Run("conntrack -F 2>/dev/null");  // the flows are those that were counted
    }
    auto room = static_cast<std::uint16_t>(count.entry_ct - less);
    std::vector<char> block(2 * sizeof count + 72u * room);
    auto* udp = reinterpret_cast<vxa_dump_conntrack_s*>(block.data());
    EXPECT_EQ(Fill(handle, *udp, IPPROTO_UDP, room), 0);
    room = static_cast<std::uint16_t>(room - udp->entry_ct);
    auto* tcp = reinterpret_cast<vxa_dump_conntrack_s*>(block.data() + 16 + 72u * udp->entry_ct);
    EXPECT_EQ(Fill(handle, *tcp, IPPROTO_TCP, room), 0);
    return TextOf(tb_dump_all_conn_track, udp);
}

void ExpectHeading(const std::string& text, const std::string& heading)
{
    EXPECT_EQ(text.rfind("# connections: " + heading, 0), 0u) << text.substr(0, 400);
}

// The lines of flows without their timeouts.
Lines LinesOf(const std::string& text)
{
    return kernel::Matches(std::regex_replace(text, std::regex(" \\d+s "), " "), "\n([^#\n]+)");
}

// The same from "tcp 6 431999 ESTABLISHED src=A dst=B sport=1 dport=2 packets=3 bytes=4
// [UNREPLIED] src=..": the first of each name belongs to the forward direction.
Lines Listed()
{
    return kernel::Matches(Run(R"((echo; conntrack -L -f ipv4; conntrack -L -f ipv6) 2>&1 | awk '
function end(host, port) { return (host ~ /:/ ? "[" host "]" : host) ":" port }
function counts(n) { return value["packets", n] "/" value["bytes", n] }
/^$/
/^(udp|tcp) / {
    split("", seen); split("", value)
    for (i = 4; i <= NF; i++) {
        if (split($i, part, "=") == 2) value[part[1], ++seen[part[1]]] = part[2]
    }
    printf "%s %s > ", $1, end(value["src", 1], value["sport", 1])
    printf "%s %s", end(value["dst", 1], value["dport", 1]), $1 == "tcp" ? $4 : "-"
    if ("packets" in seen) printf " %s %s", counts(1), counts(2); else printf " - -"
    print (/\[ASSURED\]/ ? " assured" : "") (/\[UNREPLIED\]/ ? " unreplied" : "")
}')"),
                           "\n([^\n]+)");
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

void CompareWithConntrack(bool accounting)
{
    Run("echo " + std::to_string(accounting) + " > /proc/sys/net/netfilter/nf_conntrack_acct");
    Track();
    std::vector<traffic::Socket> kept;
    const auto keep = [&](const std::vector<traffic::Socket>& more) {
        kept.insert(kept.end(), more.begin(), more.end());
    };
    for (const int family : {4, 6}) {
        const auto listener = traffic::Listen(Local(family));
        traffic::Converse(listener, Local(family), 5);
        traffic::Converse(listener, Local(family), 3, true);
        keep({listener});
        keep(traffic::Attempt(Local(family), 4));
        traffic::BeRefused(Local(family, kPort + 1), 2);  // gone at once
        keep(traffic::Exchange(Local(family, 9000), 1));
        keep(traffic::Exchange(Local(family, 9000 + family), 1, 3));
    }
    // Packets of endings may still be under way.
    kernel::Eventually([] { return LinesOf(Fetch()) == Listed(); });
    const std::string text = Fetch();
    EXPECT_EQ(LinesOf(text), Listed());
    ExpectHeading(text, "ctnetlink (engine linux)\n# udp: 4 flows\n");
    EXPECT_NE(text.find(accounting ? " 1/58 3/444\n" : " - -\n"), text.npos) << text;
    EXPECT_EQ(kernel::Matches(text, "\n(udp|tcp) [^\n]* [1-9][0-9]*s ").size(), 28u);
}

KERNEL_TEST(Flows, AreWhatConntrackLists)
{
    kernel::InOwn([] { CompareWithConntrack(false); });
    kernel::InOwn([] { CompareWithConntrack(true); });
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
    const auto translated = traffic::Listen(Local(4));
    for (const auto& [to, ends] : rows) {
        const auto listener = to == kPort ? translated : traffic::Listen(Local(4, to));
        const auto client = traffic::Connect(Local(4, to));
        const std::string text = Fetch();
        const std::string line = ":" + std::to_string(to) + " .*[0-9-] ?(assured)?" + ends + "\n";
        EXPECT_TRUE(std::regex_search(text, std::regex(line))) << text;
    }
}

// Signals cut system calls short while the table is read.
KERNEL_TEST(Flows, ShareTheRoomWhileSignalsCome)
{
    Make("udp", 33000);
    Make("tcp", 40000);
    Make("udplite", 2);
    signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 200}, {0, 200}}, never = {};
    ASSERT_EQ(setitimer(ITIMER_REAL, &often, nullptr), 0);
    const std::string text = Fetch();
    ASSERT_EQ(setitimer(ITIMER_REAL, &never, nullptr), 0);
    ExpectHeading(text, "ctnetlink, without 2 of other protocols (engine linux)\n");
    EXPECT_NE(text.find("\n# udp: showing 32767 of 33000 flows\n"), text.npos);
    EXPECT_NE(text.find("\n# tcp: showing 32768 of 40000 flows\n"), text.npos);
    const Lines lines = LinesOf(text);
    EXPECT_EQ(std::set<std::string>(lines.begin(), lines.end()).size(), 65535u)
        << "a flow is shown twice";
}

void CompareWithSs(const std::string& source)
{
    const auto v6 = traffic::Listen(Local(6));
    const auto v4 = traffic::Listen(Local(4));
    traffic::Converse(v4, Local(4), 3);
    const auto clients = traffic::Attempt(Local(6), 3);
    const auto more = traffic::Attempt(Local(4), 2);
    const auto mapped = traffic::Exchange({"::ffff:127.0.0.1", kPort}, 1, 1);
    kernel::ExpectEnd(kernel::Spawn([&] {
        if (source.find("CAP_NET_ADMIN") != source.npos) {
            kernel::BecomeNobody();
        }
        const std::string text = Fetch();
        ExpectHeading(text, "sock_diag, " + source + " (engine linux)\n");
        const std::string shown =
            Run("(ss -Htan | sed 's/^/tcp /'; ss -Huan | sed 's/^/udp /') | "
                "sed 's/\\[::ffff:127.0.0.1\\]/127.0.0.1/g'");
        const Lines sockets =
            kernel::Matches(shown, "(tcp|udp) [A-Z0-9-]+ +\\d+ +\\d+ +(\\S+) +(\\S+:\\d+)");
        EXPECT_EQ(kernel::Matches(text, "(tcp|udp) (\\S+) > (\\S+:8443) .* socket"), sockets);
        EXPECT_EQ(LinesOf(text).size(), sockets.size());
    }));
}

KERNEL_TEST(Flows, ComeFromSocketsWhereNoneIsTrackedOrMayBeRead)
{
    CompareWithSs("no UDP or TCP flow is tracked");
    kernel::InOwn([] {
        Track();
        CompareWithSs("ctnetlink needs CAP_NET_ADMIN");
    });
}

// In the direction in which they were opened, also after their listener has stopped.
KERNEL_TEST(Flows, OfSocketsCountPayload)
{
    auto listener = traffic::Listen(Local(4));
    const auto client = traffic::Connect(Local(4));
    const auto server = traffic::Accept(listener);
    char data[1000] = {};
    ASSERT_EQ(send(*client, data, 1000, 0), 1000);
    ASSERT_EQ(recv(*server, data, 1000, MSG_WAITALL), 1000);
    ASSERT_EQ(send(*server, data, 300, 0), 300);
    for (int i = 0; i < 2; ++i, listener.reset()) {
        const std::string text = Fetch();
        // One at each end.
        EXPECT_EQ(kernel::Matches(text, "8443 ESTABLISHED - [1-9]/1000 \\d/300( socket)").size(),
                  2u)
            << text;
    }
}

KERNEL_TEST(Flows, AreServedFromOneSnapshot)
{
    Make("udp", 5);
    Make("tcp", 7);
    const OpenHandle handle = kernel::Open();
    vxa_dump_conntrack_s section;
    EXPECT_EQ(Fill(handle, section, IPPROTO_UDP, 0), -ENODATA);
    const std::string text = Fetch(handle, 4);
    EXPECT_NE(text.find("# udp: 5 flows\n"), text.npos);
    EXPECT_NE(text.find("# tcp: showing 3 of 7 flows\n"), text.npos) << text;
    EXPECT_EQ(Fill(handle, section, IPPROTO_UDP, 0), -ENODATA);
    EXPECT_EQ(Fill(handle, section, IPPROTO_TCP, 0), -ENODATA);
    // A handle that is closed with a snapshot in it is left to the leak checker.
    ASSERT_EQ(Count(handle.get(), section), 0);
}

// Without memory a call fails with its cause, and leaves the handle usable.
void FailEveryAllocation(const std::function<int(Handle)>& call)
{
    long allowed = 0;
    bool exhausted = true;
    for (; exhausted && allowed < 5000; ++allowed) {
        const OpenHandle handle = kernel::Open();
        allocations::Allow(allowed);
        const int status = call(handle.get());
        exhausted = allocations::LiftLimit();
        ASSERT_EQ(status, exhausted ? -ENOMEM : 0) << allowed << ErrorText(handle.get());
        if (exhausted) {
            EXPECT_NE(ErrorText(handle.get()).find(": out of memory"), std::string::npos);
            vxa_dump_conntrack_s section;
            EXPECT_EQ(Fill(handle, section, IPPROTO_TCP, 0), -ENODATA);
        }
        EXPECT_EQ(call(handle.get()), 0);
    }
    EXPECT_FALSE(exhausted);
    EXPECT_GT(allowed, 3) << "the sweep met no allocations";
}

KERNEL_TEST(Flows, AndStatesSurviveWantOfMemory)
{
    const auto listener = traffic::Listen(Local(4));
    const auto clients = traffic::Attempt(Local(4), 20);
    vxa_get_conn_states_s states;
    FailEveryAllocation([&](Handle handle) { return vxi_get_conn_states(handle, &states); });
    vxa_dump_conntrack_s count;
    const auto count_flows = [&](Handle handle) { return Count(handle, count); };
    FailEveryAllocation(count_flows);
    Make("tcp", 300);
    FailEveryAllocation(count_flows);
}

}  // namespace
