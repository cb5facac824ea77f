#include "engines/linux/ProcText.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "engines/linux/KernelSettings.h"
#include "engines/linux/Statistics.h"

namespace {

using namespace std::string_literals;
using vxi::ProcItems;

// "NAME=VALUE .." and, if any, "!N" for N unreadable ones.
std::string Show(const ProcItems& found)
{
    std::string text;
    for (const auto& item : found.items) {
        text += (text.empty() ? "" : " ") + item.name + "=" +
                std::to_string(static_cast<int64_t>(item.value));
    }
    return text + (found.unreadable ? " !" + std::to_string(found.unreadable) : "");
}

struct Case {
    std::string text;
    const char* found;
};

const Case paired[] = {
    {"", ""},
    {"\n\n\n", ""},
    {"Ip: A B\nIp: 1 2\nTcp: C\nTcp: -1\n", "Ip.A=1 Ip.B=2 Tcp.C=-1"},
    {"Ip: A B\nIp: 1 2", "Ip.A=1 Ip.B=2"},              // cut before the line's end
    {"Ip: A B\nIp: 1\n", "Ip.A=1 !1"},                  // fewer figures than names
    {"Ip: A\nIp: 1 2 3\n", "Ip.A=1"},                   // and more
    {"Ip: A\nTcp: B\nTcp: 2\n", "Tcp.B=2"},             // names alone
    {"Ip: A\nIp: 1\nIp: B\nIp: 2\n", "Ip.A=1 Ip.B=2"},  // a group in two pieces
    {"Ip: A B C D\nIp: 0x1 1e3 2x 4\n", "Ip.D=4 !3"},
    {"Ip: A B\nIp: 99999999999999999999 -99999999999999999999\n",
     "Ip.A=-1 Ip.B=-9223372036854775808"},
    {"no colon\nIp: A\n: : :\nIp: 1\n", ""},
    {"Ip: A\0B\nIp: 1 2\n"s, "Ip.A\0B=1"},
    {"Skip: A\nSkip: 1\nIp: B\nIp: 2\n", "Ip.B=2"},
};

TEST(ProcText, PairedLines)
{
    for (const Case& each : paired) {
        EXPECT_STREQ(Show(vxi::paired_lines(each.text, "Skip")).c_str(), each.found) << each.text;
    }
}

const Case single[] = {
    {"Ip6InReceives   \t 5\nUdp6X 7\n", "Ip6InReceives=5 Udp6X=7"},
    {"Icmp6InType128 3\nIcmp6OutType1 3\nIcmp6InTypes 3\nType1 4\n", "Icmp6InTypes=3 Type1=4"},
    {"A\nB 1 2\nC x\nD 4", "D=4 !3"},
};

TEST(ProcText, SingleLines)
{
    for (const Case& each : single) {
        EXPECT_EQ(Show(vxi::single_lines(each.text)), each.found) << each.text;
    }
}

const Case grouped[] = {
    {"sockets: used 17\nTCP: inuse 1 orphan 0\n", "sockets.used=17 TCP.inuse=1 TCP.orphan=0"},
    {"TCP: inuse 1 orphan\nUDP:\nRAW", "TCP.inuse=1 !1"},
};

TEST(ProcText, GroupedLines)
{
    for (const Case& each : grouped) {
        EXPECT_EQ(Show(vxi::grouped_lines(each.text)), each.found) << each.text;
    }
}

const Case columns[] = {
    {"", ""},
    {"entries found drop\n", "p.found=0 p.drop=0"},
    {"entries  found drop\n0a 10 ff\n0a 01 01\n", "p.found=17 p.drop=256"},
    {"entries found drop\n1 2 3\n1 2\n", "p.found=4 !1"},  // one processor's is missing
    {"entries found\n1 zz\n1 2\n\n", " !1"},
};

TEST(ProcText, ColumnSums)
{
    for (const Case& each : columns) {
        EXPECT_EQ(Show(vxi::column_sums(each.text, "p", std::string_view("entries"))), each.found)
            << each.text;
    }
    const std::vector<const char*> names = {"a", nullptr, "c", "d"};
    EXPECT_EQ(Show(vxi::column_sums("1 2 3\n10 20 30\n", "s", names)), "s.a=17 s.c=51");
}

TEST(ProcText, InterfaceLines)
{
    const char* const text =
        "Inter-|   Receive    |  Transmit\n"
        " face |bytes  drop|bytes colls\n"
        "    lo:    1       2     3   4\n"
        "eth\\0:18446744073709551615 6 7\n"
        "  no colon 1 2 3 4\n"
        ": 1 2 3 4\n";
    const auto interfaces = vxi::interface_lines(text);
    ASSERT_EQ(interfaces.size(), 2u);
    EXPECT_EQ(Show(interfaces[0].counters),
              "lo.rx_bytes=1 lo.rx_drop=2 lo.tx_bytes=3 lo.tx_colls=4");
    EXPECT_EQ(Show(interfaces[1].counters),
              "eth\\0.rx_bytes=-1 eth\\0.rx_drop=6 eth\\0.tx_bytes=7 !1");
    EXPECT_TRUE(vxi::interface_lines("").empty());
    EXPECT_TRUE(vxi::interface_lines("x\ny").empty());
}

TEST(ProcText, FilesThatCannotBeRead)
{
    std::string text = "before";
    EXPECT_EQ(vxi::read_proc("/proc/no such file", text), -ENOENT);
    EXPECT_EQ(text, "");
    EXPECT_EQ(vxi::read_proc("/proc", text), -EISDIR);
    EXPECT_FALSE(vxi::read_proc_number("/proc/no such file"));
    EXPECT_FALSE(vxi::read_proc_number("/proc/version"));  // no number
    EXPECT_FALSE(vxi::read_proc_number("/dev/null"));
    EXPECT_TRUE(vxi::read_proc_number("/proc/sys/net/ipv4/tcp_rmem"));  // the first of three
}

TEST(KernelSettings, NoneReadsAsAbsentWhenItIsThere)
{
    EXPECT_EQ(vxi::setting_path("net.ipv4.conf.all.rp_filter"),
              "/proc/sys/net/ipv4/conf/all/rp_filter");
    const struct {
        std::optional<int64_t> value;
        uint32_t read;
    } rows[] = {{{}, 0xffffffff},
                {0, 0},
                {-2, 0xfffffffe},
                {-1, 0xfffffffe},
                {0xfffffffd, 0xfffffffd},
                {0xffffffff, 0xfffffffe},
                {int64_t{1} << 40, 0xfffffffe}};
    for (const auto& row : rows) {
        EXPECT_EQ(vxi::setting_value(row.value), row.read);
    }
}

ProcItems Numbered(unsigned count)
{
    ProcItems items;
    for (unsigned i = 0; i < count; ++i) {
        items.items.push_back({"n" + std::to_string(i), i + 1});
    }
    return items;
}

TEST(AreaWriter, LetsAPartGrowIntoWhatOthersLeave)
{
    uint64_t slots[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    vxi::AreaWriter area(slots, 8);
    area.put(0, 2, Numbered(4));          // two wait
    area.put_or_drop(4, 6, Numbered(3));  // one is dropped
    area.put_one(7, "own", 7);
    area.put(3, 4, Numbered(2));  // one waits
    const vxi::SlotNames names = area.finish();
    const std::vector<std::string> expected = {"n0", "n1", "n2", "n0", "n0", "n1", "n3", "own"};
    EXPECT_EQ(names.names, expected);
    EXPECT_EQ(names.dropped, 2u);
    const uint64_t values[8] = {1, 2, 3, 1, 1, 2, 4, 7};
    EXPECT_TRUE(std::equal(slots, slots + 8, values));
}

TEST(Statistics, WithoutAnyTable)
{
    uint64_t area1[208], area2[30], area3[555];
    const auto names =
        vxi::fill_statistics({"/proc/no such folder/", "/proc/none/"}, area1, area2, area3);
    EXPECT_EQ(names.tables, 0u);
    EXPECT_NE(names.source.find("without snmp snmp6 sockstat sockstat6"), names.source.npos);
    EXPECT_TRUE(names.areas[0].names[0].empty());
}

}  // namespace
