// The text forms: exact lines for made records, and what hostile ones cannot do.
#include <arpa/inet.h>

#include <algorithm>

#include "Fixture.h"
#include "Source.h"

namespace {

void begin(vxi::Table table, const char* engine, const char* source = "a test")
{
    vxi::begin_fetch(table, engine);
    vxi::note_source(table, "%s", source);
}

void put(std::uint8_t (&field)[16], const char* address)
{
    const int family = std::strchr(address, ':') ? AF_INET6 : AF_INET;
    ASSERT_EQ(1, inet_pton(family, address, field)) << address;
}

vxa_conntrack_entry_s entry(const char* source, const char* destination, std::uint8_t state,
                            std::uint8_t flags)
{
    vxa_conntrack_entry_s made{};
    put(made.source, source);
    put(made.destination, destination);
    made.source_port[0] = 1;
    made.destination_port[1] = 80;
    made.family = std::strchr(source, ':') ? 6 : 4;
    made.tcp_state = state;
    made.flags = flags;
    made.timeout_s = 7;
    made.packets_forward = 1;
    made.bytes_forward = 20;
    made.packets_backward = 3;
    made.bytes_backward = 18446744073709551615U;
    return made;
}

// A block of exactly the right size, so that reading past it is seen by AddressSanitizer.
std::unique_ptr<unsigned char[]> sections(const std::vector<vxa_conntrack_entry_s>& udp,
                                          std::uint32_t udp_total,
                                          const std::vector<vxa_conntrack_entry_s>& tcp,
                                          std::uint32_t tcp_total, std::uint8_t second = 6)
{
    auto block = std::make_unique<unsigned char[]>(32 + 72 * (udp.size() + tcp.size()));
    unsigned char* at = block.get();
    const auto append = [&at](const std::vector<vxa_conntrack_entry_s>& rows, std::uint32_t total,
                              std::uint8_t protocol) {
        vxa_dump_conntrack_s header{};
        header.request = VXA_CONNTRACK_REQUEST_TABLE;
        header.entry_ct = static_cast<std::uint16_t>(rows.size());
        header.total = total;
        header.protocol = protocol;
        std::memset(header.unused, 0xee, sizeof header.unused);  // callers leave it as it is
        std::memcpy(at, &header, sizeof header);
        at += sizeof header;
        for (const auto& row : rows) {
            std::memcpy(at, &row, sizeof row);
            at += sizeof row;
        }
    };
    append(udp, udp_total, 17);
    append(tcp, tcp_total, second);
    return block;
}

std::string connections(const std::unique_ptr<unsigned char[]>& block)
{
    return text_of(tb_dump_all_conn_track, reinterpret_cast<vxa_dump_conntrack_s*>(block.get()));
}

TEST(Text, Connections)
{
    begin(vxi::Table::conntrack, "made", "a test, 100%");
    constexpr std::uint8_t seen = VXA_FLOW_SEEN_REPLY | VXA_FLOW_COUNTERS_VALID;
    auto marked = entry("2001:db8::1", "::ffff:10.0.0.1", 3, seen | VXA_FLOW_ASSURED);
    marked.mark = 4294967295U;
    auto alien = entry("10.0.0.1", "10.0.0.2", 200, VXA_FLOW_FROM_SOCK_DIAG);
    alien.family = 99;
    const auto block = sections({entry("10.0.0.1", "10.0.0.2", 0, seen)}, 1,
                                {marked, entry("1.2.3.4", "5.6.7.8", 1, 4 | 8 | 16), alien}, 70000);
    EXPECT_EQ(
        "# connections: a test, 100% (engine made)\n"
        "# udp: 1 flows\n"
        "udp 10.0.0.1:256 > 10.0.0.2:80 - 7s 1/20 3/18446744073709551615\n"
        "# tcp: showing 3 of 70000 flows\n"
        "tcp [2001:db8::1]:256 > [::ffff:10.0.0.1]:80 ESTABLISHED 7s 1/20 "
        "3/18446744073709551615 assured mark=4294967295\n"
        "tcp 1.2.3.4:256 > 5.6.7.8:80 SYN_SENT 7s - - offloaded unreplied snat dnat\n"
        "tcp ?:256 > ?:80 state200 7s - - socket\n",
        connections(block));
}

TEST(Text, ConnectionsOfOddSections)
{
    vxi::begin_fetch(vxi::Table::conntrack, "odd");
    const auto row = entry("10.0.0.1", "10.0.0.2", 3, VXA_FLOW_SEEN_REPLY);
    EXPECT_EQ("# connections: source unknown (engine odd)\n# udp: 0 flows\n# tcp: 0 flows\n",
              connections(sections({}, 0, {}, 0)));
    EXPECT_EQ(
        "# connections: source unknown (engine odd)\n# udp: showing 0 of 5 flows\n"
        "# protocol47: 1 flows, total unknown\nprotocol47 10.0.0.1:256 > 10.0.0.2:80 - 7s - -\n",
        connections(sections({}, 5, {row}, 0, 47)));
    const std::vector<vxa_conntrack_entry_s> many(65535, row);
    const std::string text = connections(sections({}, 0, many, 65535));
    EXPECT_EQ(65535U + 3, std::count(text.begin(), text.end(), '\n'));
}

TEST(Text, Blacklist)
{
    vxi::set_slot_names("made", vxi::Area::blacklist_sets,
                        {{"inet t blacklist", "ip x\n blacklist\\\xff"}, 0});
    begin(vxi::Table::blacklist, "made", "two sets\n\x1b[31m");
    vxa_blacklist_entry_s rows[3] = {};
    put(rows[0].address, "10.1.2.3");
    rows[0].family = 4;
    put(rows[1].address, "2001:db8::");
    put(rows[1].last, "2001:db8::ff");
    rows[1].family = 6;
    rows[1].flags = VXA_BLACKLIST_RANGE | VXA_BLACKLIST_TIMEOUT;
    rows[1].set_index = 65535;
    rows[1].timeout_s = 60;
    rows[1].expires_s = 4;
    const struct {
        std::uint32_t bytes;
        const char* tail;
        const char* lines;
    } cases[] = {
        {0, "0 entries, 2 sets", ""},
        {144, "3 entries, 2 sets",
         "10.1.2.3 set 0\n2001:db8::-2001:db8::ff set 65535 expires 4s of 60s\n? set 0\n"},
        {49, "1 entries, 2 sets; the last entry is cut", "10.1.2.3 set 0\n"},
    };
    for (const auto& each : cases) {
        const auto block = std::make_unique<unsigned char[]>(44 + each.bytes);
        vxa_blacklist_get_addrs_s header{};
        header.entries_size = each.bytes;
        header.set_count = 2;
        std::memcpy(block.get(), &header, sizeof header);
        std::memcpy(block.get() + 44, rows, each.bytes);
        EXPECT_EQ(
            std::string("# blacklist: two sets\\x0a\\x1b[31m (engine made), ") + each.tail +
                "\n# set 0: inet t blacklist\n"
                "# set 1: ip x\\x0a blacklist\\x5c\\xff\n" +
                each.lines,
            text_of(tb_dump_blacklist, reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.get())));
    }
    begin(vxi::Table::blacklist, "other");
    vxa_blacklist_get_addrs_s empty{};
    EXPECT_EQ("# blacklist: a test (engine other), 0 entries, 0 sets\n",
              text_of(tb_dump_blacklist, &empty));
}

TEST(Text, Sockets)
{
    begin(vxi::Table::conn_states, "made");
    vxa_get_conn_states_s states{};
    states.count = 77;
    states.tcp4[1] = 70;
    states.tcp6[15] = 3;
    states.udp6 = 4;
    const std::string text = text_of(tb_dump_conn_states, &states);
    EXPECT_EQ(0U, text.find("# sockets: a test (engine made), 77 in all\ntcp4 ESTABLISHED 70\n"));
    for (const char* line :
         {"tcp4 LISTEN 0\n", "tcp6 ESTABLISHED 0\n", "tcp6/15 3\n", "udp4 0\nudp6 4\n"}) {
        EXPECT_NE(std::string::npos, text.find(line)) << line;
    }
    EXPECT_EQ(std::string::npos, text.find("tcp4/15"));
}

TEST(Text, Statistics)
{
    vxi::SlotNames names;
    names.names = {"", "Ip.In", "e\xc3\xbf th\\0\n", std::string(2000, 'n')};
    names.names.resize(300, "beyond");  // more names than slots
    names.dropped = 6;
    vxi::set_slot_names("made", vxi::Area::statistics2, names);
    begin(vxi::Table::statistics, "made");
    Statistics stats;
    stats.area3 = nullptr;
    stats.body1[207] = 9;
    stats.body2[1] = UINT64_MAX;
    const std::string text = text_of<vxa_stats_v2_s>(tb_dump_stats, &stats);
    EXPECT_EQ(0U, text.find("# statistics: a test (engine made), showing 30 of 238 slots, the "
                            "others are unused; 6 items found no slot\n"
                            "1/207 9\n"
                            "Ip.In -1\n"
                            "e\\xc3\\xbf\\x20th\\x5c0\\x0a 0\n"))
        << text;
    EXPECT_EQ(1 + 1 + 29, std::count(text.begin(), text.end(), '\n'));

    // What one engine calls its slots says nothing about another's.
    begin(vxi::Table::statistics, "second");
    const std::string other = text_of<vxa_stats_v2_s>(tb_dump_stats, &stats);
    EXPECT_NE(std::string::npos, other.find("(engine second), showing 2 of 238")) << other;
    EXPECT_NE(std::string::npos, other.find("\n2/1 -1\n")) << other;
}

TEST(Text, Variables)
{
    const struct {
        vxa_filter_variable_s variable;
        const char* line;
    } cases[] = {
        {{62, 1}, "62 vxi.rule_profiling 1\n"},
        {{16, 0xffffffff}, "16 net.netfilter.nf_conntrack_acct absent\n"},
        {{172, 0xfffffffe}, "172 net.core.optmem_max 4294967294 or more\n"},
        {{173, 5}, "173 variable/173 5\n"},
    };
    for (auto each : cases) {
        EXPECT_EQ(each.line, text_of(tb_dump_filter_variable, &each.variable, 0));
    }
}

TEST(Text, NothingToPrintWithOrOn)
{
    EXPECT_EQ("", text_of<vxa_stats_v2_s>(tb_dump_stats, nullptr));
    EXPECT_EQ("", text_of<vxa_dump_conntrack_s>(tb_dump_all_conn_track, nullptr));
    EXPECT_EQ("", text_of<vxa_blacklist_get_addrs_s>(tb_dump_blacklist, nullptr));
    EXPECT_EQ("", text_of<vxa_get_conn_states_s>(tb_dump_conn_states, nullptr));
    EXPECT_EQ("", text_of<vxa_filter_variable_s>(tb_dump_filter_variable, nullptr, 0));
    vxa_get_conn_states_s states{};
    tb_dump_s without_print{};
    tb_dump_conn_states(nullptr, &states);
    tb_dump_conn_states(&without_print, &states);
}

}  // namespace
