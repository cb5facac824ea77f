// The kernel's text tables, and the texts made of them and of names that users choose.
#include <gtest/gtest.h>

#include <cerrno>

#include "api/Error.h"
#include "engines/linux/proc/KernelSettings.h"
#include "engines/linux/proc/ProcText.h"
#include "engines/linux/tables/JsonString.h"
#include "engines/linux/tables/RuleProfile.h"
#include "engines/linux/tables/Statistics.h"

namespace {

using namespace std::string_literals;
using vxi::ProcItems;

// "NAME=VALUE .." and, if any, "!N" for N unreadable ones.
std::string Show(const ProcItems& found)
{
    std::string text;
    for (const auto& item : found.items) {
        text += (text.empty() ? "" : " ") + item.name + "=" +
                std::to_string(static_cast<std::int64_t>(item.value));
    }
    return text + (found.unreadable ? " !" + std::to_string(found.unreadable) : "");
}

ProcItems Paired(std::string_view text)
{
    return vxi::PairedLines(text, "Skip");
}

ProcItems Columns(std::string_view text)
{
    return vxi::ColumnSums(text, "p", std::string_view("entries"));
}

ProcItems Interfaces(std::string_view lines)
{
    ProcItems all;
    for (auto& each : vxi::InterfaceLines("\n|received drop|sent colls\n" + std::string(lines))) {
        all.unreadable += each.counters.unreadable;
        all.items.insert(all.items.end(), each.counters.items.begin(), each.counters.items.end());
    }
    return all;
}

TEST(ProcText, Tables)
{
    const struct {
        ProcItems (*read)(std::string_view);
        std::string text;
        std::string found;
    } rows[] = {
        {Paired, "", ""},
        {Paired, "Ip: A B\nIp: 1 2\nTcp: C\nTcp: -1\n", "Ip.A=1 Ip.B=2 Tcp.C=-1"},
        {Paired, "Ip: A B\nIp: 1 2", "Ip.A=1 Ip.B=2"},              // cut before the line's end
        {Paired, "Ip: A B\nIp: 1\n", "Ip.A=1 !1"},                  // fewer figures than names
        {Paired, "Ip: A\nTcp: B\nTcp: 2\n", "Tcp.B=2"},             // names alone
        {Paired, "Ip: A\nIp: 1\nIp: B\nIp: 2\n", "Ip.A=1 Ip.B=2"},  // a group in two pieces
        {Paired, "Ip: A B C D\nIp: 0x1 1e3 2x 4\n", "Ip.D=4 !3"},
        {Paired, "Ip: A B\nIp: 99999999999999999999 -99999999999999999999\n",
         "Ip.A=-1 Ip.B=-9223372036854775808"},
        {Paired, "no colon\nIp: A\n: : :\nIp: 1\n", ""},
        {Paired, "Ip: A\0B\nIp: 1 2\n"s, "Ip.A\0B=1"},
        {Paired, "Skip: A\nSkip: 1\nIp: B\nIp: 2\n", "Ip.B=2"},
        {vxi::SingleLines, "Ip6InReceives   \t 5\nUdp6X 7\n", "Ip6InReceives=5 Udp6X=7"},
        {vxi::SingleLines, "Icmp6InType128 3\nIcmp6OutType1 3\nIcmp6InTypes 3\nType1 4\n",
         "Icmp6InTypes=3 Type1=4"},
        {vxi::SingleLines, "A\nB 1 2\nC x\nD 4", "D=4 !3"},
        {vxi::GroupedLines, "sockets: used 17\nTCP: inuse 1 orphan 0\n",
         "sockets.used=17 TCP.inuse=1 TCP.orphan=0"},
        {vxi::GroupedLines, "TCP: inuse 1 orphan\nUDP:\nRAW", "TCP.inuse=1 !1"},
        {Columns, "entries found drop\n", "p.found=0 p.drop=0"},
        {Columns, "entries  found drop\n0a 10 ff\n0a 01 01\n", "p.found=17 p.drop=256"},
        {Columns, "entries found drop\n1 2 3\n1 2\n",
         "p.found=4 !1"},  // one processor's is missing
        {Columns, "entries found\n1 zz\n1 2\n\n", " !1"},
        {Interfaces, "", ""},
        {Interfaces, "    lo:    1       2     3   4\n",
         "lo.rx_received=1 lo.rx_drop=2 lo.tx_sent=3 lo.tx_colls=4"},
        {Interfaces, "eth\\0:18446744073709551615 6 7\n",
         "eth\\0.rx_received=-1 eth\\0.rx_drop=6 eth\\0.tx_sent=7 !1"},
        {Interfaces, "  no colon 1 2 3 4\n: 1 2 3 4\n", ""},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(Show(row.read(row.text)).c_str(), row.found.c_str()) << row.text;
    }
    EXPECT_TRUE(vxi::InterfaceLines("x\ny").empty());
    EXPECT_EQ(Show(vxi::ColumnSums("1 2 3\n10 20 30\n", "s", {"a", nullptr, "c", "d"})),
              "s.a=17 s.c=51");
}

TEST(ProcText, FilesThatCannotBeRead)
{
    std::string text = "before";
    EXPECT_EQ(vxi::read_proc("/proc/no such file", text), -ENOENT);
    EXPECT_EQ(vxi::read_proc("/proc", text), -EISDIR);
    EXPECT_EQ(text, "");
    for (const char* file : {"/proc/no such file", "/proc/version", "/dev/null"}) {
        EXPECT_FALSE(vxi::read_proc_number(file)) << file;
    }
}

TEST(KernelSettings, NoneReadsAsAbsentWhenItIsThere)
{
    const std::pair<std::optional<std::int64_t>, std::uint32_t> rows[] = {
        {{}, 0xffffffff},         {0, 0},
        {-1, 0xfffffffe},         {0xfffffffd, 0xfffffffd},
        {0xffffffff, 0xfffffffe}, {std::int64_t{1} << 40, 0xfffffffe}};
    for (const auto& [value, read] : rows) {
        EXPECT_EQ(vxi::SettingValue(value), read);
    }
}

TEST(AreaWriter, LetsAPartGrowIntoWhatOthersLeave)
{
    const ProcItems items = {{{"a", 1}, {"b", 2}, {"c", 3}}};
    std::uint64_t slots[7] = {9, 9, 9, 9, 9, 9, 9};
    vxi::AreaWriter area(slots, 7);
    area.Put(0, 1, items);                                      // two wait
    area.PutOrDrop(3, 5, {{{"x", 4}, {"y", 5}, {"z", 6}}, 0});  // one is dropped
    area.PutOne(6, "own", 7);
    area.Put(2, 3, items);  // two wait, and find one slot
    const vxi::SlotNames names = area.Finish();
    EXPECT_EQ(names.names, (std::vector<std::string>{"a", "b", "a", "x", "y", "c", "own"}));
    EXPECT_EQ(names.dropped, 3u);
    EXPECT_EQ(std::vector<std::uint64_t>(slots, slots + 7),
              (std::vector<std::uint64_t>{1, 2, 1, 4, 5, 3, 7}));
}

TEST(Statistics, WithoutAnyTable)
{
    std::uint64_t area1[208], area2[30], area3[555];
    const auto names =
        vxi::FillStatistics({"/proc/no such folder/", "/proc/none/"}, area1, area2, area3);
    EXPECT_EQ(names.tables, 0u);
    EXPECT_NE(names.source.find("without snmp snmp6 sockstat sockstat6"), names.source.npos);
    EXPECT_TRUE(names.areas[0].names[0].empty());
}

TEST(RuleProfile, SubtractsWhatWasCountedBefore)
{
    const vxi::RuleCounts before = {{{1, "t", 1}, {"c", 10, 100}},
                                    {{1, "t", 2}, {"c", 10, 20}},
                                    {{1, "t", 3}, {"c", 10, 100}},
                                    {{2, "t", 4}, {"c", 1, 1}}};
    const vxi::RuleCounts now = {{{1, "t", 1}, {"c", 15, 120}},
                                 {{1, "t", 2}, {"c", 3, 30}},        // set back
                                 {{1, "\"\xff", 4}, {"c", 7, 70}}};  // new
    EXPECT_EQ(vxi::ProfileJson(vxi::CountedSince(before, now), 1500),
              R"({"profile": {"milliseconds": 1500, "rules": [)"
              R"({"family": "inet", "table": "\"\ufffd", "chain": "c", "handle": 4, )"
              R"("packets": 7, "bytes": 70}, )"
              R"({"family": "inet", "table": "t", "chain": "c", "handle": 1, )"
              R"("packets": 5, "bytes": 20}, )"
              R"({"family": "inet", "table": "t", "chain": "c", "handle": 2, )"
              R"("packets": 3, "bytes": 30}]}})");
}

TEST(RuleProfile, IsAppendedToTheListing)
{
    for (const char* refused : {"", "]}", "{\"nftables\": [{}]}\n"}) {
        std::string listing = refused;
        EXPECT_THROW(vxi::AppendObject(listing, "X"), vxi::Error);
    }
    std::string listing = "{\"nftables\": []}";
    vxi::AppendObject(listing, "X");
    vxi::AppendObject(listing, "Y");
    EXPECT_EQ(listing, "{\"nftables\": [X, Y]}");
}

TEST(JsonString, KeepsUtf8AndReplacesTheRest)
{
    const std::pair<std::string, const char*> rows[] = {
        {"a/\x7f\"\\\x1f", "\"a/\x7f\\\"\\\\\\u001f\""},
        {"\0"s, "\"\\u0000\""},
        {"\xc2\x80\xe0\xa0\x80\xf4\x8f\xbf\xbf", "\"\xc2\x80\xe0\xa0\x80\xf4\x8f\xbf\xbf\""},
        {"\x80\xff", "\"\\ufffd\\ufffd\""},
        {"\xc1\xbf", "\"\\ufffd\\ufffd\""},             // overlong
        {"\xe0\x9f\xbf", "\"\\ufffd\\ufffd\\ufffd\""},  // too
        {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},  // a surrogate
        {"\xf4\x90\x80\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},
        {"\xe2\x82", "\"\\ufffd\\ufffd\""},  // cut
    };
    for (const auto& [text, expected] : rows) {
        std::string json;
        vxi::AppendJsonString(json, text);
        EXPECT_EQ(json, expected);
    }
}

}  // namespace
