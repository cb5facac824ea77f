// The kernel's text tables, and the texts made of them and of names that users choose.
#include <gtest/gtest.h>

#include <cstring>

#include "api/Error.h"
#include "engines/linux/proc/ProcFile.h"
#include "engines/linux/proc/ProcTables.h"
#include "engines/linux/proc/Sysctl.h"
#include "engines/linux/tables/JsonString.h"
#include "engines/linux/tables/RuleProfile.h"
#include "engines/linux/tables/Statistics.h"

namespace {

using namespace std::string_literals;
using vxi::ProcItems;

// "NAME=VALUE .." and "!N" for N unreadable ones.
std::string Show(const ProcItems& found)
{
    std::string text;
    for (const auto& item : found.items) {
        text += item.name + "=" + std::to_string(static_cast<std::int64_t>(item.value)) + " ";
    }
    return text + "!" + std::to_string(found.unreadable);
}

ProcItems Snmp(std::string_view text)
{
    return vxi::ParseSnmp(text, "Skip");
}

ProcItems Conntrack(std::string_view text)
{
    return vxi::SumConntrackStat(text, "p", "entries");
}

TEST(ProcTables, Tables)
{
    const struct {
        ProcItems (*read)(std::string_view);
        std::string text;
        std::string found;
    } rows[] = {
        {Snmp, "", "!0"},
        {Snmp, "Ip: A B\nIp: 1 2\nTcp: C\nTcp: -1", "Ip.A=1 Ip.B=2 Tcp.C=-1 !0"},
        {Snmp, "Ip: A B\nIp: 1\n", "Ip.A=1 !1"},                     // fewer numbers than names
        {Snmp, "Ip: A\nIp: 1\nIp: B\nIp: 2\n", "Ip.A=1 Ip.B=2 !0"},  // a group in two pieces
        {Snmp, "Ip: A B C D\nIp: 0x1 1e3 2x 4\n", "Ip.D=4 !3"},
        {Snmp, "Ip: A B\nIp: 99999999999999999999 -99999999999999999999\n",
         "Ip.A=-1 Ip.B=-9223372036854775808 !0"},
        {Snmp, "no colon\nIp: A\n: : :\nIp: 1\nTcp: B\nTcp: 2\n", "Tcp.B=2 !0"},
        {Snmp, "Ip: A\0B\nIp: 1 2\nSkip: A\nSkip: 1\n"s, "Ip.A\0B=1 !0"},
        {vxi::ParseSnmp6, "Ip6X   \t 5\nA\nB 1 2\nC x\nD 4", "Ip6X=5 D=4 !3"},
        {vxi::ParseSnmp6, "Icmp6InType128 3\nIcmp6OutType1 3\nIcmp6InTypes 3\nType1 4\n",
         "Icmp6InTypes=3 Type1=4 !0"},
        {vxi::ParseSockstat, "TCP: inuse 1 orphan\nUDP:\nRAW\nIP: a 1 b 0",
         "TCP.inuse=1 IP.a=1 IP.b=0 !1"},
        {Conntrack, "entries  found drop\n0a 10 ff\n0a 01 01\n", "p.found=17 p.drop=256 !0"},
        {Conntrack, "entries found drop\n1 2 3\n1 2\n", "p.found=4 !1"},
        {Conntrack, "entries found\n1 zz\n1 2\n\n", "!1"},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(Show(row.read(row.text)).c_str(), row.found.c_str()) << row.text;
    }
    std::string interfaces;
    for (const auto& each : vxi::ParseNetDev("\n|received drop|sent colls\n  lo:    1   2  3  4\n"
                                             "x\\0:18446744073709551615 6 7\n no colon 1 2 3 4\n"
                                             ": 1 2 3 4\n")) {
        interfaces += Show(each.counters) + "\n";
    }
    EXPECT_EQ(interfaces,
              "lo.rx_received=1 lo.rx_drop=2 lo.tx_sent=3 lo.tx_colls=4 !0\n"
              "x\\0.rx_received=-1 x\\0.rx_drop=6 x\\0.tx_sent=7 !1\n");
    EXPECT_TRUE(vxi::ParseNetDev("x\ny").empty());
    EXPECT_EQ(Show(vxi::SumSoftnetStat("1 2 3\n10 20 30\n", "s", {"a", nullptr, "c", "d"})),
              "s.a=17 s.c=51 !0");
}

TEST(ProcFile, ThatCannotBeRead)
{
    for (const char* file : {"/proc/no such file", "/proc"}) {
        EXPECT_THROW(vxi::ReadProcFile(file), vxi::Error) << file;
    }
    for (const char* file : {"/proc/no such file", "/proc/version", "/dev/null"}) {
        EXPECT_FALSE(vxi::ReadProcNumber(file)) << file;
    }
}

TEST(Sysctl, NoneReadsAsAbsentWhenItIsThere)
{
    EXPECT_EQ(vxi::EncodeVariable({}), 0xffffffff);
    EXPECT_EQ(vxi::EncodeVariable(0xfffffffd), 0xfffffffd);
    for (const std::int64_t large : {std::int64_t{-1}, 0xffffffffL, 1L << 40}) {
        EXPECT_EQ(vxi::EncodeVariable(large), 0xfffffffe) << large;
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
    const vxi::NumberedNames names = area.Finish();
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
    const vxi::RuleKey same = {1, "t", 1}, reset = {1, "t", 2}, added = {2, "t", 1};
    auto counted =
        vxi::CountedSince({{same, {"c", 10, 100}}, {reset, {"c", 9, 20}}},
                          {{same, {"c", 15, 120}}, {reset, {"c", 3, 30}}, {added, {"c", 7, 70}}});
    EXPECT_EQ(counted[same].packets, 5u);
    EXPECT_EQ(counted[reset].packets, 3u);
    EXPECT_EQ(counted[added].bytes, 70u);
}

TEST(JsonString, KeepsUtf8AndReplacesTheRest)
{
    const auto json = [](const std::string& text) {
        std::string quoted;
        vxi::AppendJsonString(quoted, text);
        return quoted;
    };
    const std::string valid = "a/\xc2\x80\xe0\xa0\x80\xf4\x8f\xbf\xbf\x7f";
    EXPECT_EQ(json(valid + "\"\\\x1f\0"s), '"' + valid + "\\\"\\\\\\u001f\\u0000\"");
    // Stray bytes, overlong, a surrogate, too large, cut: each byte is replaced.
    for (const char* bad :
         {"\x80\xff\xc1\xbf\xe2\x82", "\xe0\x9f\xbf\xed\xa0\x80", "\xf4\x90\x80\x80\xe2"}) {
        EXPECT_EQ(json(bad).size(), 2 + strlen("\\ufffd") * strlen(bad)) << json(bad);
    }
}

}  // namespace
