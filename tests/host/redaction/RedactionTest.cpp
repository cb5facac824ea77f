// What masking keeps and what it hides.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "redaction/EntryMasker.h"

using vxa::redaction::EntryMasker;
using vxa::redaction::Format;
using vxa::redaction::Pseudonyms;

namespace {

std::string MapOf(Pseudonyms& pseudonyms)
{
    std::string map;
    pseudonyms.Write([&](std::string_view piece) { map += piece; });
    return map;
}

using Bytes = std::array<std::uint8_t, 16>;

std::mt19937 engine(20261122);

unsigned Random(unsigned below)
{
    return std::uniform_int_distribution<unsigned>(0, below - 1)(engine);
}

// In pieces of random sizes.
std::string Mask(Pseudonyms& pseudonyms, const std::string& text, Format format)
{
    EntryMasker masker(pseudonyms, format);
    std::string masked;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t size = Random(700);
        masker.Append(masked, text.substr(at, size), false);
        at += size;
    }
    masker.Append(masked, "", true);
    return masked;
}

std::string Mask(const std::string& text, Format format = Format::kText)
{
    Pseudonyms pseudonyms(false);
    return Mask(pseudonyms, text, format);
}

std::string Spell(const Bytes& bytes, unsigned style)
{
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, bytes.data(), text, sizeof text);
    if (style == 0) return text;
    std::string groups;
    for (unsigned i = 0; i < 16; i += 2) {
        std::snprintf(text, sizeof text, style == 1 ? "%04x" : "%X", bytes[i] << 8 | bytes[i + 1]);
        groups += (i > 0 ? ":" : "") + std::string(text);
    }
    return groups;
}

Bytes Parse(const std::string& text)
{
    Bytes bytes{};
    const std::string mapped = text.find(':') == text.npos ? "::ffff:" + text : text;
    EXPECT_EQ(1, inet_pton(AF_INET6, mapped.c_str(), bytes.data())) << text;
    return bytes;
}

unsigned CommonBits(const Bytes& a, const Bytes& b)
{
    unsigned common = 0;
    while (common < 128 && ((a[common / 8] ^ b[common / 8]) >> (7 - common % 8) & 1) == 0) ++common;
    return common;
}

// Bytes begin like an earlier address, or like one of the classes.
std::vector<std::string> RandomAddresses(std::size_t count)
{
    static const char* const kStarts[] = {
        "10.0.0.0",    "100.64.0.0",  "127.0.0.1", "169.254.0.0", "172.16.0.0", "192.168.0.0",
        "224.0.0.0",   "203.0.113.0", "8.8.8.8",   "2001:db8::",  "fe80::1",    "fc00::",
        "fd12:3456::", "ff02::1",     "2a00::",    "64:ff9b::",   "0.0.0.0",    "255.255.255.0"};
    std::vector<Bytes> known;
    for (const char* start : kStarts) known.push_back(Parse(start));
    std::vector<std::string> texts(std::begin(kStarts), std::end(kStarts));
    while (texts.size() < count) {
        Bytes bytes = known[Random(static_cast<unsigned>(known.size()))];
        const bool is_mapped = bytes[10] == 0xff && bytes[9] == 0 && bytes[11] == 0xff;
        for (unsigned i = (is_mapped ? 97 : 5) + Random(is_mapped ? 31 : 123); i < 128; ++i)
            if (Random(2)) bytes[i / 8] ^= static_cast<std::uint8_t>(0x80 >> i % 8);
        const std::string spelled = Spell(bytes, Random(3));
        const bool is_dotted = spelled.find('.') != spelled.npos;
        texts.push_back(is_dotted && Random(2) ? spelled.substr(7) : spelled);
        known.push_back(bytes);
    }
    return texts;
}

std::string ClassOf(const std::string& text)
{
    const Bytes b = Parse(text);
    if (CommonBits(b, Parse("0.0.0.0")) < 96)
        return b[0] == 0xff                       ? "multicast" + std::to_string(b[1])
               : (b[0] & 0xfe) == 0xfc            ? "private" + std::to_string(b[0])
               : b[0] == 0xfe && (b[1] >> 6) == 2 ? "link-local"
               : b[0] >> 5 == 1                   ? "global"
                                                  : "other";
    if (b[12] == 0 || b[12] == 255) return text.substr(text.rfind(':') + 1);
    if (b[12] == 10) return "private 10";
    if (b[12] == 100 && b[13] >> 6 == 1) return "shared";
    if (b[12] == 127) return "loopback";
    if (b[12] == 169 && b[13] == 254) return "link-local";
    if (b[12] == 172 && b[13] >> 4 == 1) return "private 172";
    if (b[12] == 192 && b[13] == 168) return "private 192";
    return b[12] >= 240 ? "reserved" : b[12] >= 224 ? "multicast" : "public";
}

std::vector<std::string> Words(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) words.push_back(word);
    return words;
}

TEST(Redaction, KeepsPrefixesOfAllPairsAndClasses)
{
    std::vector<std::string> originals = RandomAddresses(1500);
    std::string text;
    for (const std::string& each : originals) text += each + (Random(5) ? " " : "\n");
    for (unsigned i = 0; i < 200; ++i) {
        // Of public addresses, so that none is like a class.
        const unsigned bits = 12 + Random(20);
        Bytes bytes = Parse("44.45.46.47");
        for (unsigned at = 100; at < 96 + bits; ++at)
            if (Random(4) == 0) bytes[at / 8] ^= static_cast<std::uint8_t>(0x80 >> at % 8);
        for (unsigned at = 96 + bits; at < 128; ++at)
            bytes[at / 8] &= static_cast<std::uint8_t>(~(0x80 >> at % 8));
        originals.push_back(Spell(bytes, 0).substr(7));
        text += originals.back() + "/" + std::to_string(bits) + " ";
        bytes[15] |= 1;
        originals.push_back(Spell(bytes, 0).substr(7));
        text += originals.back() + " ";
    }
    Pseudonyms pseudonyms(true);
    pseudonyms.CollectNetworks(true);
    (void)Mask(pseudonyms, text, Format::kText);
    pseudonyms.CollectNetworks(false);
    const std::string masked = Mask(pseudonyms, text, Format::kText);
    std::vector<std::string> words = Words(masked);
    ASSERT_EQ(originals.size(), words.size());
    std::vector<Bytes> before, after;
    std::size_t equal = 0;
    for (std::size_t i = 0; i < words.size(); ++i) {
        before.push_back(Parse(originals[i]));
        words[i] = words[i].substr(0, words[i].find('/'));
        after.push_back(Parse(words[i]));
        equal += before[i] == after[i];
        ASSERT_EQ(ClassOf(originals[i]), ClassOf(words[i])) << originals[i] << " " << words[i];
        const bool is_padded = originals[i].size() == 39;
        ASSERT_EQ(is_padded, words[i].size() == 39 && is_padded) << words[i];
    }
    EXPECT_LT(equal, originals.size() / 10);  // 127.0.0.1, masks, and what is like them
    for (std::size_t i = 0; i < words.size(); ++i)
        for (std::size_t k = 0; k < i; ++k)
            ASSERT_EQ(CommonBits(before[i], before[k]), CommonBits(after[i], after[k]))
                << originals[i] << " " << originals[k] << " " << words[i] << " " << words[k];

    // The map gives the same masking again, whatever the spelling, and has every pair.
    const std::string map = MapOf(pseudonyms);
    Pseudonyms again(map);
    EXPECT_EQ(masked, Mask(again, text, Format::kText));
    EXPECT_EQ(map, MapOf(again));
    std::set<std::pair<Bytes, Bytes>> pairs;
    const std::vector<std::string> fields = Words(map.substr(map.find("\naddress")));
    const auto without_length = [](const std::string& field) {
        return Parse(field.substr(0, field.find('/')));
    };
    for (std::size_t i = 0; i + 2 < fields.size(); i += 3)
        pairs.emplace(without_length(fields[i + 1]), without_length(fields[i + 2]));
    for (std::size_t i = 0; i < words.size(); ++i)
        ASSERT_TRUE(pairs.count({before[i], after[i]})) << words[i];
}

TEST(Redaction, KeepsWhatIdentifiesNobody)
{
    static const char* const kTexts[] = {
        "# statistics: simulated machine at tick 5 (engine sim), showing 27 of 793 slots\n",
        "16 net.netfilter.nf_conntrack_acct 1\n57 net.netfilter.nf_hooks_lwtunnel absent\n",
        "udp 127.0.0.1:47886 > 127.0.0.1:443 - 180s 58/6960 58/52200 unreplied mark=5\n",
        "2026-11-22T05:06:37.123+01:00 04:06:37.123456 2026-11-22 1.5e-05 1e+05 5.2ms fffffffb",
        "Linux 6.1.0-18-amd64 #1 SMP PREEMPT_DYNAMIC Debian 6.1.76-1 (2024-02-01)",
        "vxi_get_stats failed with -5: engine linux: vxi_get_stats: Input/output error",
        "::1 :: ::/0 0.0.0.0/0 10.0.0.0/8 255.255.255.0 ff:ff:ff:ff:ff:ff 00:00:00:00:00:00",
    };
    for (const char* text : kTexts) EXPECT_EQ(text, Mask(text));
    const std::string stats = "Ip.InReceives 41205\nlo.rx_bytes 5\nIp6OutRequests 1\nTCP.mem 1\n";
    EXPECT_EQ(stats, Mask(stats, Format::kStatistics));
    const std::string rule =
        R"({"rule": {"family": "inet", "expr": [{"match": {"op": "==", "left": {"payload": )"
        R"({"protocol": "ip", "field": "saddr"}}, "right": 443}}, {"accept": null}]}})";
    EXPECT_EQ(rule, Mask(rule, Format::kRules));
}

struct Case {
    Format format;
    const char* original;
    const char* masked;
};

// Names get numbers in the order in which they appear.
TEST(Redaction, MasksNamesByTheirPlace)
{
    const Case cases[] = {
        {Format::kText, "db01.acme.example web.acme.example db01 caf\\xc3\\xa9 caf\xc3\xa9",
         "name1.name2.name3 name4.name2.name3 name1 name5 name5"},
        {Format::kText, "/home/alice/x.csv a_user-17 0x0a000001 52540012345e \xff\xfe 1-2-3-4",
         "/home/name1/x.csv name2 name3 name4 name5 name6"},
        {Format::kText, "acme-wan0   12  5\nwg  3\n", "name1       12  5\nname2  3\n"},
        {Format::kStatistics, "eth0.100.rx_bytes 5\nfilter.ifindex 1\nAcme.Bank 1\n",
         "if1.100.rx_bytes 5\nfilter.ifindex 1\nname2.name3 1\n"},
        {Format::kBlacklist, "# set 0: inet state blacklist4\n# skipped ip a log: log\n",
         "# set 0: inet table1 blacklist-set2\n# skipped ip table3 set4: log\n"},
        {Format::kJson, R"({"host":{"name":"state.acme"},"text":"\u0061lic\u0065 alice"})",
         R"({"host":{"name":"host1.host2"},"text":"name3 name3"})"},
        {Format::kJson, R"({"time_zone":"CET","build_ids":{"vxa.so":"0a0b"},"alice":"0a0b"})",
         R"({"time_zone":"CET","build_ids":{"vxa.so":"0a0b"},"name1":"name2"})"},
        {Format::kJson,
         R"({"kernel":"Linux 6.1.0-18-amd64 4.18.0-553.el8_10.x86_64 6.8.1-state1"})",
         R"({"kernel":"Linux 6.1.0-18-amd64 4.18.0-553.el8_10.x86_64 6.8.1-state1"})"},
        {Format::kJson, R"({"kernel":"6.1.0-alice7"})", R"({"kernel":"6.1.0-name1"})"},
        {Format::kText, "8.b.d.0.1.0.0.2.ip6.arpa 0.b.d.8", "name1 0.b.d.8"},
        {Format::kText, "0.10.1.2.3 2026-11-22T05:06:37.10 mac-00:00:00:00:00:00",
         "name1 2026-11-22T05:06:37.10 name2-00:00:00:00:00:00"},
        {Format::kText, "0.2.1.10.IN-ADDR.ARPA 10%2e1%2E2%2e3 %31%30 5 %", "name1 name2 name3 5 %"},
        {Format::kRules,
         R"({"table": {"name": "state"}}, {"chain": {"table": "state", "name": "log"}},)"
         R"({"rule": {"comment": "drop state for Bob", "expr": [{"match": {"right": "@log"}}]}})",
         R"({"table": {"name": "table1"}}, {"chain": {"table": "table1", "name": "chain2"}},)"
         R"({"rule": {"comment": "drop state for name3", "expr": [{"match": {"right": "@chain2"}}]}})"},
    };
    for (const Case& each : cases) EXPECT_EQ(each.masked, Mask(each.original, each.format));
}

TEST(Redaction, NetworksAndRangesStaySuch)
{
    Pseudonyms pseudonyms(false);
    const auto mask = [&](const std::string& text, Format format = Format::kText) {
        return Mask(pseudonyms, text, format);
    };
    const auto number_of = [](const std::string& text) { return ntohl(inet_addr(text.c_str())); };
    const std::string network = mask("203.0.113.16/28"), range = mask("203.0.113.16-203.0.113.31");
    const std::string first = network.substr(0, network.find('/'));
    const std::string last = range.substr(range.find('-') + 1);
    EXPECT_EQ(first + "-" + last, range);
    EXPECT_EQ(number_of(first) + 15, number_of(last));
    EXPECT_EQ(R"({"range": [")" + first + R"(", ")" + last + R"("]})",
              mask(R"({"range": ["203.0.113.16", "203.0.113.31"]})", Format::kRules));
    EXPECT_EQ(R"({"prefix": {"addr": ")" + first + R"(", "len": 28}})",
              mask(R"({"prefix": {"addr": "203.0.113.16", "len": 28}})", Format::kRules));
    const std::string other = mask("10.1.2.3-10.1.2.77");
    EXPECT_LT(number_of(other.substr(0, other.find('-'))),
              number_of(other.substr(other.find('-') + 1)));
    const std::string bits = R"({"expr": [{"payload": {"base": "nh", "len": 28}, "right": )";
    EXPECT_EQ(bits + std::to_string(number_of(first) >> 4),
              mask(bits + "212862737", Format::kRules));
    // Bytes compared at an offset are the address that they would be.
    const std::string address = mask("203.0.113.77");
    const std::string number = std::to_string(number_of(address));
    const std::string raw =
        R"({"expr": [{"match": {"left": {"&": [{"payload": {"base": "nh"}}, 1]}, )";
    EXPECT_EQ(raw + R"("right": )" + number + R"(}}, {"counter": {"bytes": 3405803853}}]})",
              mask(raw + R"("right": 3405803853}}, {"counter": {"bytes": 3405803853}}]})",
                   Format::kRules));
}

TEST(Redaction, RefusesDamagedMaps)
{
    Pseudonyms made(true);
    (void)Mask(made, "alice 10.1.2.3 10.4.0.0/16 52:54:00:12:34:56 " + std::string(300, 'x'),
               Format::kText);
    const std::string map = MapOf(made);
    Pseudonyms read(map);
    EXPECT_EQ(map.substr(0, map.find("# names")) + map.substr(map.find("address")), MapOf(read));
    const std::string key = map.substr(0, map.find('\n', map.find("key ")) + 1);
    for (const std::string& damaged :
         {std::string(), std::string("PK"), map.substr(0, 60), key + "name alice",
          key + "name a b\nname a c", key + "name a \"b", key + "address 10.1.2 1.2.3.4",
          key + "address 10.0.0.0/33 1.2.3.4", key + "address 10.0.0.0/8x 1.2.3.4"})
        EXPECT_THROW(Pseudonyms{damaged}, std::runtime_error) << damaged;
}

// Any bytes: the lengths of words and of runs of spaces, depth and escapes are without bounds.
TEST(Redaction, AcceptsAnyBytes)
{
    std::string text;
    static const char kBytes[] = "{}[]\"\\u0:,.-/@ \n19afx\x80\0";
    for (int i = 0; i < 300000; ++i) text += kBytes[Random(sizeof kBytes)];
    text += std::string(200000, 'a') + std::string(200000, ' ') + std::string(200000, '[') +
            "\"range\":[\"1.2.3.4\",\"";
    for (const Format format :
         {Format::kText, Format::kStatistics, Format::kBlacklist, Format::kJson, Format::kRules}) {
        const std::string masked = Mask(text, format);
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'),
                  std::count(masked.begin(), masked.end(), '\n'));
    }
}

}  // namespace
