// The tables without flows against the kernel's files and nft's listing.
#include <linux/capability.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <regex>
#include <sstream>

#include "AllocationLimit.h"
#include "api/Engine.h"
#include "records/Variables.h"
#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Lines;
using kernel::Matches;
using kernel::Run;
using traffic::kPort;
using traffic::Local;

namespace {

// Fetches as callers do, but deletes the rules between the two requests.
std::string Blacklist(const OpenHandle& handle, std::uint32_t missing_room = 0)
{
    vxa_blacklist_get_addrs_s head = {};
    EXPECT_EQ(vxi_get_blacklist(handle.get(), &head), 0) << ErrorText(handle.get());
    Run("nft flush ruleset");
    std::vector<char> block(sizeof head + head.entries_size, 0x5a);
    head.entries_size -= missing_room;
    memcpy(block.data(), &head, sizeof head);
    auto* filled = reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.data());
    EXPECT_EQ(vxi_get_blacklist(handle.get(), filled), 0) << ErrorText(handle.get());
    EXPECT_TRUE(missing_room == 0 || block.back() == 0x5a) << "written beyond the room";
    return TextOf(tb_dump_blacklist, filled);
}

KERNEL_TEST(Blacklist, HasTheElementsOfItsSets)
{
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Blacklist(handle),
              "# blacklist: nf_tables sets named blacklist* (engine linux), "
              "0 entries, 0 sets\n");
    Run(R"(nft '
table ip a { set blacklist { type ipv4_addr; elements = { 1.1.1.1 }; }; }
table inet a {
    set blacklist { type ipv4_addr; flags interval; elements = {
        0.0.0.0/8, 1.0.0.0/24, 1.0.1.0/24, 10.0.0.1-10.0.2.7, 224.0.0.0/3 }; };
    set blacklist6 { type ipv6_addr; flags interval; elements = { ::1, ff00::/8 }; };
    set blacklist_t { type ipv6_addr; timeout 1h; elements = {
        1::1 expires 10m, 1::2 timeout 30m expires 10m }; };
    set blacklist_i { type ipv4_addr; flags interval,timeout; elements = {
        1.0.0.0/8 timeout 3d expires 10m, 2.0.0.0/8 }; };
    map blacklist_map { type ipv4_addr : verdict; elements = { 7.7.7.7 : drop }; };
    set blacklist_pairs { type ipv4_addr . inet_service; };
    set whitelist { type ipv4_addr; elements = { 8.8.8.8 }; }; }
table bridge c { set blacklisted-hosts.v4 { typeof ip saddr; counter; elements = { 2.2.2.2 }; }; }
')");
    vxa_filter_variable_s elements = {vxi::kVariableBlacklistElements, 0};
    EXPECT_EQ(vxi_get_varv(handle.get(), &elements), 0);
    EXPECT_EQ(elements.value, 13u);
    const std::string shown =
        std::regex_replace(Blacklist(handle), std::regex("expires (5..|600)s"), "expires soon");
    EXPECT_EQ(shown,
              R"(# blacklist: nf_tables sets named blacklist* (engine linux), 13 entries, 6 sets
# set 0: ip a blacklist
# set 1: inet a blacklist
# set 2: inet a blacklist6
# set 3: inet a blacklist_t
# set 4: inet a blacklist_i
# set 5: bridge c blacklisted-hosts.v4
# skipped inet a blacklist_map: a map
# skipped inet a blacklist_pairs: its elements are not of type ipv4_addr or ipv6_addr
1.1.1.1 set 0
0.0.0.0-0.255.255.255 set 1
1.0.0.0-1.0.0.255 set 1
1.0.1.0-1.0.1.255 set 1
10.0.0.1-10.0.2.7 set 1
224.0.0.0-255.255.255.255 set 1
::1 set 2
ff00::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff set 2
1::1 set 3 expires soon of 3600s
1::2 set 3 expires soon of 1800s
1.0.0.0-1.255.255.255 set 4 expires soon of 259200s
2.0.0.0-2.255.255.255 set 4
2.2.2.2 set 5
)");

    // Hash sets and interval sets, each larger than one message of the kernel.
    Run(R"(nft -f - <<E
table inet t {
set blacklist4 { type ipv4_addr; elements = { $(seq -s, 167772161 167776160) }; };
set blacklist6 { type ipv6_addr; elements = { $(seq -f 1::%g -s, 4000) }; };
set blacklist_r { type ipv4_addr; flags interval; elements = {
    $(seq 2000 | awk '{ printf "%d-%d,", $1 * 1009, $1 * 1009 + 4 }') }; }; }
E)");
    const Lines listed =
        Matches(Run("nft list ruleset"), "[ \t]([0-9a-f]+[.:][0-9a-f.:]+(?:-[0-9.]+)?)");
    EXPECT_EQ(Matches(Blacklist(handle), "\n([^ #]+) set"), listed);
    EXPECT_EQ(listed.size(), 10000u);

    vxa_blacklist_get_addrs_s served = {};
    served.entries_size = 1;
    EXPECT_EQ(vxi_get_blacklist(handle.get(), &served), -ENODATA);
    EXPECT_EQ(ErrorText(handle.get()),
              "engine linux: vxi_get_blacklist: no snapshot: ask for the size first");
    Run("nft 'table ip t { set blacklist { type ipv4_addr; elements = { 1.1.1.1, 2.2.2.2 }; }; }'");
    EXPECT_NE(Blacklist(handle, 5).find(", 1 entries, "), std::string::npos);
}

void CompareSockets(vxa_get_conn_states_s& states)
{
    memset(&states, 0x5a, sizeof states);  // callers need not initialise it
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(vxi_get_conn_states(handle.get(), &states), 0) << ErrorText(handle.get());
    std::ostringstream ours;
    for (const auto* tcp : {&states.tcp4, &states.tcp6}) {
        for (const auto count : *tcp) {
            ours << count << ' ';
        }
    }
    ours << states.udp4 << ' ' << states.udp6 << ' ' << states.count;
    EXPECT_EQ(ours.str(), Run(R"(cd /proc/thread-self/net; awk '
FNR > 1 { ++n[FILENAME ~ /tcp/ ? FILENAME $4 : FILENAME]; ++all }
END { for (t = 0; t < 2; ++t) for (i = 0; i < 16; ++i)
    printf "%d ", n[(t ? "tcp6" : "tcp") sprintf("%02X", i)]
  printf "%d %d %d", n["udp"], n["udp6"], all }' tcp tcp6 udp udp6)"));
    EXPECT_EQ(states.version, 1u);
}

KERNEL_TEST(ConnStates, AreThoseOfProc)
{
    vxa_get_conn_states_s states;
    CompareSockets(states);
    EXPECT_EQ(states.count, 0u);
    // Answers of the silent port are dropped: its clients stay in SYN_SENT, and its own side in
    // SYN_RECV.
    Run("nft 'table inet silence { chain c { type filter hook input priority 0; "
        "tcp sport 8444 drop; }; }'");
    const auto v4 = traffic::Listen(Local(4));
    const auto v6 = traffic::Listen(Local(6));
    const auto silent = traffic::Listen(Local(4, kPort + 1));
    traffic::Converse(v4, Local(4), 7);
    traffic::Converse(v6, Local(6), 6);
    const auto opening = traffic::Connect(Local(4, kPort + 1), 4, EINPROGRESS);
    const auto closing = traffic::Connect(Local(6));
    ASSERT_EQ(shutdown(*closing[0], SHUT_WR), 0);
    const auto datagrams4 = traffic::Exchange(Local(4), 1);
    const auto datagrams6 = traffic::Exchange(Local(6), 1);
    ASSERT_TRUE(
        kernel::Eventually([] { return Run("ss -Htn state fin-wait-2 | wc -l") == "1\n"; }));

    CompareSockets(states);
    EXPECT_EQ(states.tcp4[TCP_SYN_SENT], 4u);
    EXPECT_EQ(states.tcp6[TCP_CLOSE_WAIT], 1u);
    kernel::BecomeNobody();
    CompareSockets(states);
}

std::string StatisticsText(const OpenHandle& handle)
{
    Statistics stats;
    EXPECT_EQ(vxi_get_stats(handle.get(), &stats, sizeof stats), 0) << ErrorText(handle.get());
    return TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats);
}

// The same values from the kernel's own tools, or from its files; without dots in names.
Lines Shown()
{
    return Matches(Run(R"(nstat -asz | awk '!/^#/ { print $1, $2 }'
ip -s link show lo | awk 'NR == 4 { print "lorx_bytes", $1 "\nlorx_packets", $2 }
  NR == 6 { print "lotx_bytes", $1 "\nlotx_packets", $2 }'
cd /proc/thread-self/net; awk '{ for (i = 2; i < NF; i += 2)
  print substr($1, 1, length($1) - 1) $i, $(i + 1) }' sockstat sockstat6)"),
                   "(.+)\n");
}

KERNEL_TEST(Statistics, AreTheKernelsTables)
{
    Run(R"(nft 'table ip a { chain c { accept; drop; }; }
table inet b { chain d { ip saddr { 1.1.1.1, 1.1.1.2 } accept; }; set s { type ipv4_addr; }; }')");
    traffic::Exchange(Local(4), 7);
    const OpenHandle handle = kernel::Open();
    ASSERT_EQ(MonitorPort(handle.get(), kPort), 0);
    Lines shown, missing;
    std::string text;
    // Retries on a difference: memory is the whole machine's, and sockets are being freed.
    kernel::Eventually([&] {
        shown = Shown();
        text = StatisticsText(handle);
        const Lines ours = Matches(std::regex_replace(text, std::regex("[.]"), ""), "\n([^#\n]+)");
        missing.clear();
        std::set_difference(shown.begin(), shown.end(), ours.begin(), ours.end(),
                            std::inserter(missing, missing.end()));
        return missing.empty();
    });
    EXPECT_EQ(missing, Lines());
    ASSERT_GT(shown.size(), 200u);
    for (const char* line : {"Udp.InDatagrams 7", "rules.tables 3", "rules.chains 10",
                             "rules.sets 4", "scan.on 1", "scan.port 8443"}) {
        EXPECT_NE(text.find(std::string("\n") + line + "\n"), text.npos) << line;
    }

    // There is room for 16 interfaces.
    Run("for i in 1 2 3 4 5 6 7 8 9; do ip link add a$i type veth peer name b$i; done");
    const unsigned all = std::stoul(Run("tail -n +3 /proc/thread-self/net/dev | wc -l"));
    text = StatisticsText(handle);
    EXPECT_EQ(Matches(text, "(\\S+[.]ifindex) ").size(), 16u);
    const std::string lost = "; " + std::to_string((all - 16) * 16) + " items found no slot\n";
    EXPECT_NE(text.find(lost), text.npos) << text.substr(0, text.find('\n'));
}

std::uint32_t Value(const OpenHandle& handle, unsigned number)
{
    vxa_filter_variable_s variable = {};
    EXPECT_EQ(vxi_get_var(handle.get(), number, &variable), 0) << ErrorText(handle.get());
    EXPECT_EQ(variable.number, number);
    return variable.value;
}

KERNEL_TEST(Variables, AreTheKernelsSettingsOrTheEngines)
{
    Run("sysctl -w net.ipv4.tcp_retries2=11 net.ipv4.tcp_notsent_lowat=4294967295 "
        "net.ipv4.ip_forward=1");
    const OpenHandle handle = kernel::Open();
    ASSERT_EQ(MonitorPort(handle.get(), 443, VXI_SCAN_OUTBOUND), 0);
    for (unsigned number = 0; number < VXA_FILTER_VARIABLE_COUNT; ++number) {
        const bool writable =
            number == vxi::kVariableTraceLevel || number == vxi::kVariableRuleProfiling;
        EXPECT_EQ(vxi_set_var(handle.get(), number, 1), writable ? 0 : -EROFS) << number;
        Value(handle, number);
    }
    EXPECT_EQ(ErrorText(handle.get()),
              "engine linux: vxi_set_var: variable 172 (net.core.optmem_max) is not writable");

    struct stat own = {};
    ASSERT_EQ(stat("/proc/thread-self/ns/net", &own), 0);
    const std::pair<unsigned, std::uint64_t> rows[] = {
        {106, 11},         // net.ipv4.tcp_retries2
        {98, 0xfffffffe},  // net.ipv4.tcp_notsent_lowat, which must not read as absent
        {120, 1},          // net.ipv4.ip_forward
        // A setting of the whole machine has no file in another namespace than the first.
        {166, VXA_FILTER_VARIABLE_ABSENT},
        {vxi::kVariableProcessId, getpid()},
        {vxi::kVariableNetworkNamespace, own.st_ino},
        {vxi::kVariableInitialNamespace, 0},
        {vxi::kVariableScanOn, 1},
        {vxi::kVariableScanPort, 443},
        {vxi::kVariableScanDirection, VXI_SCAN_OUTBOUND},
        {vxi::kVariableScanTimeoutS, 130},
        {vxi::kVariableNftTables, 1}};
    for (const auto& [number, value] : rows) {
        EXPECT_EQ(Value(handle, number), value) << number;
    }
    EXPECT_EQ(vxi_set_var(handle.get(), vxi::kVariableTraceLevel, 4), -EINVAL);
    EXPECT_EQ(vxi_set_var(handle.get(), 173, 0), VXI_E_UNKNOWN_VARIABLE);
}

std::string Profile(const OpenHandle& handle)
{
    std::uint32_t size = 0;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), 0) << ErrorText(handle.get());
    std::string record(sizeof size + size, '\0');
    memcpy(record.data(), &size, sizeof size);
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), record.data()), 0) << ErrorText(handle.get());
    return record.substr(sizeof size);
}

std::string Listing()
{
    return Run("printf %s \"$(nft -j list ruleset)\"");
}

// "PACKETS BYTES" of each rule in the profile, which must follow nft's listing.
Lines RuleCounts(const OpenHandle& handle)
{
    const std::string profile = Profile(handle);
    const std::string listing = Listing();
    const std::size_t common = listing.size() - strlen("]}");
    EXPECT_EQ(profile.substr(0, common), listing.substr(0, common));
    return Matches(profile, R"("chain": "c", "handle": \d+, "packets": (\d+), "bytes": (\d+)\})",
                   "$1 $2");
}

KERNEL_TEST(RuleProfile, IsTheListingAndWhatWasCountedSinceTheSwitch)
{
    const traffic::Place to = Local(4, 7777);
    const auto set = [](std::uint32_t value) {  // for the process, whatever becomes of the handle
        ASSERT_EQ(vxi_set_var(kernel::Open().get(), vxi::kVariableRuleProfiling, value), 0);
    };
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Profile(handle), Listing());
    Run("nft 'table ip t { chain c { type filter hook input priority 0; udp dport 7777 counter; "
        "udp dport 7777 accept; udp dport 7778 counter; }; }'");
    traffic::Exchange(to, 3);
    // It must also work in a host that lets the kernel reap its children.
    signal(SIGCHLD, SIG_IGN);
    const std::string profile = Profile(handle);
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(profile, Listing());

    set(1);
    EXPECT_EQ(RuleCounts(handle), (Lines{"0 0", "0 0"}));
    traffic::Exchange(to, 4);  // each 38 bytes on the way
    EXPECT_EQ(RuleCounts(handle), (Lines{"4 152", "0 0"}));
    kernel::ExpectStatus(kernel::Spawn([&] {
        EXPECT_EQ(profiler_running(), 0);
        EXPECT_EQ(Profile(kernel::Open()), Listing());
    }));
    set(1);
    EXPECT_EQ(RuleCounts(handle), (Lines{"0 0", "0 0"}));
    set(0);
    std::uint32_t head[] = {0, 0, 0};
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), head), 0);
    EXPECT_EQ(head[0], Listing().size());
    Run("nft flush ruleset");
    head[0] = 4;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), head), 0);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(head + 1), 8), std::string("{\"nf\0\0\0\0", 8));
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), head), -ENODATA);

    // libnftables aborts over such a name. This process must survive without output or a zombie.
    Run("nft \"table ip t { chain c { iifname \\\"$(printf 'x\\377')\\\" accept; }; }\"");
    head[0] = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), head), -EIO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(head[0], 0u);
    EXPECT_EQ(ErrorText(handle.get()),
              "engine linux: vxi_get_profile_stats: libnftables cannot list the rules: it ended "
              "with signal 6 (a name that is not UTF-8?)");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // nothing is left behind
}

KERNEL_TEST(Tables, WithoutPrivilege)
{
    traffic::Exchange(Local(4), 3);
    const OpenHandle handle = kernel::Open();
    ASSERT_EQ(MonitorPort(handle.get(), 80), 0);
    kernel::BecomeNobody();
    const std::string text = StatisticsText(handle);
    EXPECT_NE(text.find("\nUdp.InDatagrams 3\n"), text.npos);
    EXPECT_EQ(text.find("# statistics: /proc/net; nf_tables needs CAP_NET_ADMIN (engine linux)"),
              0u);
    for (unsigned rules = vxi::kVariableNftTables; rules <= vxi::kVariableBlacklistElements;
         ++rules) {
        EXPECT_EQ(Value(handle, rules), VXA_FILTER_VARIABLE_ABSENT) << rules;
    }
    EXPECT_EQ(Value(handle, vxi::kVariableCapabilityBits) >> CAP_NET_ADMIN & 1, 0u);
    testing::internal::CaptureStderr();
    EXPECT_EQ(Profile(handle), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    for (const Call& call : kCalls) {
        const bool refused =
            !strcmp(call.name, "vxi_get_blacklist") || !strcmp(call.name, "vxi_get_scan_metrics");
        EXPECT_EQ(call.Make(handle.get()) == -EPERM, refused) << call.name;
        EXPECT_TRUE(!refused ||
                    ErrorText(handle.get()) == "engine linux: " + std::string(call.name) +
                                                   ": nf_tables needs CAP_NET_ADMIN");
    }
    EXPECT_EQ(MonitorPort(handle.get(), 444), -EPERM);
    EXPECT_EQ(vxi_set_var(handle.get(), vxi::kVariableRuleProfiling, 1), -EPERM);
    EXPECT_EQ(Value(handle, vxi::kVariableRuleProfiling), 0u);
    vxi_capability_s row;
    EXPECT_EQ(vxi_capabilities(handle.get(), &row, 1),
              static_cast<int>(std::size(vxi::kFacilityNames)));
    EXPECT_EQ(row.available, 0);
    EXPECT_STREQ(row.detail, "nf_tables needs CAP_NET_ADMIN");
}

// Without memory a call fails with its cause, and leaves the handle usable.
KERNEL_TEST(Tables, SurviveWantOfMemory)
{
    const auto listener = traffic::Listen(Local(4));
    const auto clients = traffic::Connect(Local(4), 20, EINPROGRESS);
    for (const Call& call : kCalls) {
        long allowed = 0;
        for (bool exhausted = true; exhausted && allowed < 5000; ++allowed) {
            const OpenHandle handle = kernel::Open();
            allocations::Allow(allowed);
            const int status = call.Make(handle.get());
            exhausted = allocations::LiftLimit();
            EXPECT_TRUE(status >= 0 || (status == -ENOMEM && exhausted)) << call.name << status;
            EXPECT_EQ(ErrorText(handle.get()).find(": out of memory") == std::string::npos,
                      status >= 0);
            EXPECT_GE(call.Make(handle.get()), 0) << call.name << ErrorText(handle.get());
        }
        EXPECT_LT(allowed, 5000) << call.name;
    }
}

}  // namespace
