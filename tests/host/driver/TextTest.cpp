// The dumps: exact lines for given records, and what hostile records and names cannot do.
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <set>

#include "Fixture.h"
#include "dumps/Address.h"
#include "records/PublishedNames.h"
#include "records/TableOrigin.h"
#include "records/Variables.h"

namespace {

void Begin(vxi::Table table, const char* engine, const char* source = "a test")
{
    vxi::BeginFetch(table, engine);
    vxi::SetTableSource(table, "%s", source);
}

// Dumps a block of exactly the records' size, so that AddressSanitizer sees reads beyond it.
template <typename Table, typename... Records>
std::string DumpBlock(void (*dump)(tb_dump_s*, Table*), const Records&... records)
{
    const auto block = std::make_unique<unsigned char[]>((sizeof records + ...));
    unsigned char* end = block.get();
    ((std::memcpy(end, &records, sizeof records), end += sizeof records), ...);
    return TextOf(dump, reinterpret_cast<Table*>(block.get()));
}

vxa_conntrack_entry_s Entry(std::uint8_t family, std::uint8_t state, std::uint8_t flags)
{
    vxa_conntrack_entry_s entry{{}, {}, {1, 0}, {0, 80}, family, state, flags, 0, 7, 0, 1, 0, 0, 0};
    inet_pton(AF_INET6, "2001:db8::1", entry.source);
    inet_pton(AF_INET6, "::ffff:10.0.0.2", entry.destination);
    entry.mark = family == 6 ? UINT32_MAX : 0;
    entry.bytes_backward = UINT64_MAX;
    return entry;
}

vxa_dump_conntrack_s Header(std::uint8_t protocol, std::uint16_t entries, std::uint32_t total)
{
    return {3, entries, 0, total, protocol, {0xee, 0xee, 0xee}};
}

TEST(Text, Connections)
{
    Begin(vxi::Table::kConntrack, "made", "a test, 100%");
    constexpr std::uint8_t kCounted = VXA_FLOW_SEEN_REPLY | VXA_FLOW_COUNTERS_VALID;
    EXPECT_EQ(
        "# connections: a test, 100% (engine made)\n"
        "# udp: 1 flows\n"
        "udp 32.1.13.184:256 > 0.0.0.0:80 - 7s 1/0 0/18446744073709551615\n"
        "# tcp: showing 3 of 70000 flows\n"
        "tcp [2001:db8::1]:256 > [::ffff:10.0.0.2]:80 ESTABLISHED 7s 1/0 "
        "0/18446744073709551615 assured mark=4294967295\n"
        "tcp 32.1.13.184:256 > 0.0.0.0:80 SYN_SENT 7s - - offloaded unreplied snat dnat\n"
        "tcp ?:256 > ?:80 state200 7s - - socket\n",
        DumpBlock(tb_dump_all_conn_track, Header(17, 1, 1), Entry(4, 0, kCounted),
                  Header(6, 3, 70000), Entry(6, 3, kCounted | VXA_FLOW_ASSURED), Entry(4, 1, 28),
                  Entry(99, 200, VXA_FLOW_FROM_SOCK_DIAG)));
    static const vxa_conntrack_entry_s kFull[65535] = {};
    const std::string text =
        DumpBlock(tb_dump_all_conn_track, Header(17, 0, 5), Header(47, 65535, 0), kFull);
    EXPECT_EQ(42U, text.find("# udp: showing 0 of 5 flows\n# protocol47: 65535 flows, total "
                             "unknown\nprotocol47 ?:0 > ?:0 - 0s - - unreplied\n"));
    EXPECT_EQ(65535 + 3, std::count(text.begin(), text.end(), '\n'));
}

TEST(Text, Blacklist)
{
    vxi::PublishNames("made", vxi::NameList::kBlacklistSets, {{"ip x\n blacklist\\\xff"}, 0});
    Begin(vxi::Table::kBlacklist, "made", "a set\n\x1b\x7f");
    vxa_blacklist_entry_s range{{32, 1, 13, 184}, {}, 6, 3, 65535, 60, 4, 0};
    inet_pton(AF_INET6, "2001:db8::ff", range.last);
    vxa_blacklist_get_addrs_s header{{}, 0, 0, 1};
    const std::string heading = "# blacklist: a set\\x0a\\x1b\\x7f (engine made), ";
    const std::string set = "\n# set 0: ip x\\x0a blacklist\\x5c\\xff\n";
    const std::string line = "2001:db8::-2001:db8::ff set 65535 expires 4s of 60s\n";
    EXPECT_EQ(heading + "0 entries, 1 sets" + set, DumpBlock(tb_dump_blacklist, header));
    header.entries_size = 96;
    EXPECT_EQ(heading + "2 entries, 1 sets" + set + line + "? set 0\n",
              DumpBlock(tb_dump_blacklist, header, range, vxa_blacklist_entry_s{}));
    header.entries_size = 49;
    EXPECT_EQ(heading + "1 entries, 1 sets; the last entry is cut" + set + line,
              DumpBlock(tb_dump_blacklist, header, range, '\0'));
}

TEST(Text, Sockets)
{
    Begin(vxi::Table::kConnStates, "made");
    vxa_get_conn_states_s states{1, 77, {0, 70}, {}, 0, 0};
    states.tcp6[15] = 3;
    const std::string text = TextOf(tb_dump_conn_states, &states);
    EXPECT_EQ(0U, text.find("# sockets: a test (engine made), 77 in all\ntcp4 ESTABLISHED 70\n"));
    EXPECT_NE(std::string::npos, text.find("tcp6 BOUND 0\ntcp6 tcp6/15 3\nudp4 0\n")) << text;
}

TEST(Text, Statistics)
{
    vxi::NumberedNames names{{"", "Ip.In", "e\xc3\xbf th\\0\n", std::string(2000, 'n')}, 6};
    names.names.resize(300, "beyond");  // more names than slots
    vxi::PublishNames("made", vxi::NameList::kStatistics2, names);
    Begin(vxi::Table::kStatistics, "made");
    Statistics stats;
    stats.area3 = nullptr;
    stats.body1[207] = 9;
    stats.body2[1] = UINT64_MAX;
    const std::string text = TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats);
    EXPECT_EQ(0U, text.find("# statistics: a test (engine made), showing 30 of 238 slots, the "
                            "others are unused; 6 items found no slot\n"
                            "1/207 9\n"
                            "Ip.In -1\n"
                            "e\\xc3\\xbf\\x20th\\x5c0\\x0a 0\n"));
    EXPECT_EQ(1 + 1 + 29, std::count(text.begin(), text.end(), '\n'));
    Begin(vxi::Table::kStatistics, "second", std::string(300, 's').c_str());
    EXPECT_EQ(14U, TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats)
                       .find(std::string(159, 's') + " (engine second), showing 2 of 238"));
    vxi::SetTableSource(vxi::Table::kStatistics, "ab%lc", static_cast<wint_t>(0x20ac));
    EXPECT_EQ(14U, TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats).find("source unknown"));
}

TEST(Text, Variables)
{
    const std::pair<vxa_filter_variable_s, const char*> cases[] = {
        {{62, 1}, "62 vxi.rule_profiling 1\n"},
        {{16, 0xffffffff}, "16 net.netfilter.nf_conntrack_acct absent\n"},
        {{172, 0xfffffffe}, "172 net.core.optmem_max 4294967294 or more\n"},
        {{173, 5}, "173 variable/173 5\n"},
    };
    for (auto [variable, line] : cases) {
        EXPECT_EQ(line, TextOf(tb_dump_filter_variable, &variable, 0));
    }
    EXPECT_EQ("", TextOf<vxa_dump_conntrack_s>(tb_dump_all_conn_track, nullptr));
    tb_dump_conn_states(nullptr, Pointer(vxa_get_conn_states_s()));
    tb_dump_conn_states(Pointer(tb_dump_s()), Pointer(vxa_get_conn_states_s()));
}

// A misspelt name would be shown as "absent".
TEST(Text, VariablesAreSettingsOfThisKernel)
{
    const auto exists = [](std::string name) {
        std::replace(name.begin(), name.end(), '.', '/');
        return access(("/proc/sys/" + name).c_str(), F_OK) == 0;
    };
    if (!exists("net.core.optmem_max")) GTEST_SKIP() << "not in the first network namespace";
    const bool tracks = exists("net.netfilter.nf_conntrack_max");
    const bool has_ipv6 = exists("net.ipv6.bindv6only");
    const std::set<std::string> newer_than_6_1 = {"net.ipv4.tcp_shrink_window",
                                                  "net.ipv4.tcp_syn_linear_timeouts"};
    for (std::uint32_t i = vxi::kVariableFirstSetting; i < VXA_FILTER_VARIABLE_COUNT; ++i) {
        const std::string name = vxi::VariableName(i);
        const bool may_lack = name.find("vxi.") == 0 || newer_than_6_1.count(name) > 0 ||
                              (!tracks && name.find("net.netfilter.") == 0) ||
                              (!has_ipv6 && name.find("net.ipv6.") == 0);
        EXPECT_TRUE(may_lack || exists(name)) << name;
    }
}

TEST(Address, LikeTheLibraryOnRandomOnes)
{
    std::mt19937 random(1);
    for (int round = 0; round < 30000; ++round) {
        std::uint8_t address[16];
        for (std::uint8_t& byte : address) {
            byte = random() % 3 ? 0 : static_cast<std::uint8_t>(random());
        }
        address[0] |= 1;  // inet_ntop writes IPv4-compatible addresses differently
        char expected[INET6_ADDRSTRLEN], text[vxi::kAddressTextSize];
        for (const int family : {4, 6}) {
            inet_ntop(family == 4 ? AF_INET : AF_INET6, address, expected, sizeof expected);
            *vxi::WriteAddress(text, address, static_cast<std::uint8_t>(family)) = '\0';
            ASSERT_STREQ(expected, text);
        }
    }
}

}  // namespace
