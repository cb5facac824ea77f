// The text forms: exact lines for made records, and what hostile ones cannot do.
#include <arpa/inet.h>

#include <algorithm>
#include <random>

#include "Fixture.h"
#include "dumps/Address.h"
#include "records/PublishedNames.h"
#include "records/TableOrigin.h"

namespace {

void begin(vxi::Table table, const char* engine, const char* source = "a test")
{
    vxi::BeginFetch(table, engine);
    vxi::SetTableSource(table, "%s", source);
}

vxa_conntrack_entry_s Entry(std::uint8_t family, std::uint8_t state, std::uint8_t flags)
{
    vxa_conntrack_entry_s made{};
    inet_pton(family == 6 ? AF_INET6 : AF_INET, family == 6 ? "2001:db8::1" : "10.0.0.1",
              made.source);
    inet_pton(family == 6 ? AF_INET6 : AF_INET, family == 6 ? "::ffff:10.0.0.2" : "10.0.0.2",
              made.destination);
    made.source_port[0] = 1;
    made.destination_port[1] = 80;
    made.family = family;
    made.tcp_state = state;
    made.flags = flags;
    made.timeout_s = 7;
    made.packets_forward = 1;
    made.bytes_forward = 20;
    made.packets_backward = 3;
    made.bytes_backward = 18446744073709551615U;
    return made;
}

struct Section {
    std::uint8_t protocol;
    std::uint32_t total;
    std::vector<vxa_conntrack_entry_s> rows;
};

// From a block of exactly the right size, so that reading past it is seen by AddressSanitizer.
std::string Connections(const Section& first, const Section& second)
{
    const std::size_t rows = first.rows.size() + second.rows.size();
    const auto block = std::make_unique<unsigned char[]>(32 + 72 * rows);
    unsigned char* at = block.get();
    for (const Section* section : {&first, &second}) {
        vxa_dump_conntrack_s header = ConntrackRequest(section->protocol);
        header.entry_ct = static_cast<std::uint16_t>(section->rows.size());
        header.total = section->total;
        std::memset(header.unused, 0xee, sizeof header.unused);  // callers leave it as it is
        std::memcpy(at, &header, sizeof header);
        at += sizeof header;
        for (const auto& row : section->rows) {
            std::memcpy(at, &row, sizeof row);
            at += sizeof row;
        }
    }
    return TextOf(tb_dump_all_conn_track, reinterpret_cast<vxa_dump_conntrack_s*>(block.get()));
}

TEST(Text, Connections)
{
    begin(vxi::Table::kConntrack, "made", "a test, 100%");
    constexpr std::uint8_t kSeen = VXA_FLOW_SEEN_REPLY | VXA_FLOW_COUNTERS_VALID;
    auto marked = Entry(6, 3, kSeen | VXA_FLOW_ASSURED);
    marked.mark = 4294967295U;
    const auto alien = Entry(99, 200, VXA_FLOW_FROM_SOCK_DIAG);
    EXPECT_EQ(
        "# connections: a test, 100% (engine made)\n"
        "# udp: 1 flows\n"
        "udp 10.0.0.1:256 > 10.0.0.2:80 - 7s 1/20 3/18446744073709551615\n"
        "# tcp: showing 3 of 70000 flows\n"
        "tcp [2001:db8::1]:256 > [::ffff:10.0.0.2]:80 ESTABLISHED 7s 1/20 "
        "3/18446744073709551615 assured mark=4294967295\n"
        "tcp 10.0.0.1:256 > 10.0.0.2:80 SYN_SENT 7s - - offloaded unreplied snat dnat\n"
        "tcp ?:256 > ?:80 state200 7s - - socket\n",
        Connections({17, 1, {Entry(4, 0, kSeen)}}, {6, 70000, {marked, Entry(4, 1, 28), alien}}));
    EXPECT_EQ(
        "# connections: a test, 100% (engine made)\n# udp: showing 0 of 5 flows\n# protocol47: 1 "
        "flows, total unknown\nprotocol47 10.0.0.1:256 > 10.0.0.2:80 - 7s - -\n",
        Connections({17, 5, {}}, {47, 0, {Entry(4, 3, VXA_FLOW_SEEN_REPLY)}}));
    const std::string text =
        Connections({17, 0, {}}, {6, 65535, {65535, Entry(4, 3, VXA_FLOW_SEEN_REPLY)}});
    EXPECT_EQ(65535U + 3, std::count(text.begin(), text.end(), '\n'));
}

TEST(Text, Blacklist)
{
    vxi::PublishNames("made", vxi::NameList::kBlacklistSets, {{"ip x\n blacklist\\\xff"}, 0});
    begin(vxi::Table::kBlacklist, "made", "a set\n\x1b[31m");
    vxa_blacklist_entry_s rows[2] = {};
    inet_pton(AF_INET6, "2001:db8::", rows[0].address);
    inet_pton(AF_INET6, "2001:db8::ff", rows[0].last);
    rows[0].family = 6;
    rows[0].flags = VXA_BLACKLIST_RANGE | VXA_BLACKLIST_TIMEOUT;
    rows[0].set_index = 65535;
    rows[0].timeout_s = 60;
    rows[0].expires_s = 4;
    const struct {
        std::uint32_t bytes;
        const char *tail, *lines;
    } cases[] = {
        {0, "0 entries, 1 sets", ""},
        {96, "2 entries, 1 sets", "2001:db8::-2001:db8::ff set 65535 expires 4s of 60s\n? set 0\n"},
        {49, "1 entries, 1 sets; the last entry is cut",
         "2001:db8::-2001:db8::ff set 65535 expires 4s of 60s\n"},
    };
    for (const auto& each : cases) {
        const auto block = std::make_unique<unsigned char[]>(44 + each.bytes);
        vxa_blacklist_get_addrs_s header{};
        header.entries_size = each.bytes;
        header.set_count = 1;
        std::memcpy(block.get(), &header, sizeof header);
        std::memcpy(block.get() + 44, rows, each.bytes);
        EXPECT_EQ(
            std::string("# blacklist: a set\\x0a\\x1b[31m (engine made), ") + each.tail +
                "\n# set 0: ip x\\x0a blacklist\\x5c\\xff\n" + each.lines,
            TextOf(tb_dump_blacklist, reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.get())));
    }
}

TEST(Text, Sockets)
{
    begin(vxi::Table::kConnStates, "made");
    vxa_get_conn_states_s states{};
    states.count = 77;
    states.tcp4[1] = 70;
    states.tcp6[15] = 3;
    const std::string text = TextOf(tb_dump_conn_states, &states);
    EXPECT_EQ(0U, text.find("# sockets: a test (engine made), 77 in all\ntcp4 ESTABLISHED 70\n"));
    EXPECT_NE(std::string::npos, text.find("tcp6 BOUND 0\ntcp6 tcp6/15 3\nudp4 0\n")) << text;
}

TEST(Text, Statistics)
{
    vxi::NumberedNames names;
    names.names = {"", "Ip.In", "e\xc3\xbf th\\0\n", std::string(2000, 'n')};
    names.names.resize(300, "beyond");  // more names than slots
    names.dropped = 6;
    vxi::PublishNames("made", vxi::NameList::kStatistics2, names);
    begin(vxi::Table::kStatistics, "made");
    Statistics stats;
    stats.area3 = nullptr;
    stats.body1[207] = 9;
    stats.body2[1] = UINT64_MAX;
    const std::string text = TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats);
    EXPECT_EQ(0U, text.find("# statistics: a test (engine made), showing 30 of 238 slots, the "
                            "others are unused; 6 items found no slot\n"
                            "1/207 9\n"
                            "Ip.In -1\n"
                            "e\\xc3\\xbf\\x20th\\x5c0\\x0a 0\n"))
        << text;
    EXPECT_EQ(1 + 1 + 29, std::count(text.begin(), text.end(), '\n'));

    // What one engine calls its slots says nothing about another's.
    begin(vxi::Table::kStatistics, "second");
    const std::string other = TextOf<vxa_stats_v2_s>(tb_dump_stats, &stats);
    EXPECT_NE(std::string::npos, other.find("(engine second), showing 2 of 238")) << other;
}

TEST(Text, Variables)
{
    std::pair<vxa_filter_variable_s, const char*> cases[] = {
        {{62, 1}, "62 vxi.rule_profiling 1\n"},
        {{16, 0xffffffff}, "16 net.netfilter.nf_conntrack_acct absent\n"},
        {{172, 0xfffffffe}, "172 net.core.optmem_max 4294967294 or more\n"},
        {{173, 5}, "173 variable/173 5\n"},
    };
    for (auto& [variable, line] : cases) {
        EXPECT_EQ(line, TextOf(tb_dump_filter_variable, &variable, 0));
    }
}

TEST(Text, NothingToPrintWithOrOn)
{
    EXPECT_EQ("", TextOf<vxa_dump_conntrack_s>(tb_dump_all_conn_track, nullptr));
    vxa_get_conn_states_s states{};
    tb_dump_s without_print{};
    tb_dump_conn_states(nullptr, &states);
    tb_dump_conn_states(&without_print, &states);
}

TEST(Address, LikeTheLibraryOnRandomOnes)
{
    std::mt19937 random(1);
    for (int round = 0; round < 30000; ++round) {
        std::uint8_t address[16];
        for (unsigned i = 0; i < 16; i += 2) {
            const unsigned group = random() % 3 ? 0 : random() >> random() % 16;
            address[i] = static_cast<std::uint8_t>(group >> 8);
            address[i + 1] = static_cast<std::uint8_t>(group);
        }
        address[0] |= 1;  // the library writes IPv4-compatible addresses its own way
        char expected[INET6_ADDRSTRLEN], text[vxi::kAddressTextSize];
        for (const int family : {4, 6}) {
            inet_ntop(family == 4 ? AF_INET : AF_INET6, address, expected, sizeof expected);
            *vxi::WriteAddress(text, address, static_cast<std::uint8_t>(family)) = '\0';
            ASSERT_STREQ(expected, text);
        }
    }
}

}  // namespace
