// The blacklist against what nft shows of the same sets.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <gtest/gtest.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include "Network.h"
#include "Texts.h"
#include "engines/linux/NftBatch.h"

namespace {

struct Expiry {
    uint32_t timeout_s = 0;  // 0: stays
    uint32_t expires_s = 0;
};

// By "SET-NUMBER FIRST-LAST".
using Entries = std::multimap<std::string, Expiry>;

struct Blacklist {
    std::vector<vxa_blacklist_entry_s> entries;
    uint32_t sets = 0;
    std::string text;
};

Blacklist Fetch(const driver::Handle& handle)
{
    Blacklist list;
    vxa_blacklist_get_addrs_s header = {};
    EXPECT_EQ(vxi_get_blacklist(handle.get(), &header), 0) << driver::Error(handle);
    EXPECT_EQ(header.entries_size % sizeof(vxa_blacklist_entry_s), 0u);
    std::vector<char> block(sizeof header + header.entries_size);
    memcpy(block.data(), &header, sizeof header);
    auto* filled = reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.data());
    EXPECT_EQ(vxi_get_blacklist(handle.get(), filled), 0) << driver::Error(handle);
    EXPECT_EQ(filled->entries_size, header.entries_size);
    list.entries.resize(filled->entries_size / sizeof list.entries[0]);
    std::copy_n(block.data() + sizeof header, filled->entries_size,
                reinterpret_cast<char*>(list.entries.data()));
    list.sets = filled->set_count;
    list.text = texts::Of([&](tb_dump_s* sink) { tb_dump_blacklist(sink, filled); });
    return list;
}

std::string AddressText(const uint8_t* address, bool v4)
{
    char text[INET6_ADDRSTRLEN] = "?";
    inet_ntop(v4 ? AF_INET : AF_INET6, address, text, sizeof text);
    return text;
}

Entries EntriesOf(const Blacklist& list)
{
    Entries entries;
    for (const auto& entry : list.entries) {
        const bool v4 = entry.family == 4;
        const bool range = memcmp(entry.address, entry.last, sizeof entry.last) != 0;
        EXPECT_EQ(range, (entry.flags & VXA_BLACKLIST_RANGE) != 0);
        EXPECT_EQ(entry.timeout_s == 0, (entry.flags & VXA_BLACKLIST_TIMEOUT) == 0);
        entries.insert({std::to_string(entry.set_index) + " " + AddressText(entry.address, v4) +
                            "-" + AddressText(entry.last, v4),
                        {entry.timeout_s, entry.expires_s}});
    }
    return entries;
}

const char* String(const cJSON* object, const char* name)
{
    const char* text = cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
    return text ? text : "";
}

uint32_t Number(const cJSON* object, const char* name, uint32_t otherwise)
{
    const cJSON* item = cJSON_GetObjectItem(object, name);
    return item ? static_cast<uint32_t>(item->valuedouble) : otherwise;
}

// The last address of a prefix, bit by bit.
std::string LastOf(const std::string& address, unsigned length)
{
    const bool v4 = address.find(':') == address.npos;
    uint8_t bytes[16] = {};
    inet_pton(v4 ? AF_INET : AF_INET6, address.c_str(), bytes);
    for (unsigned bit = length; bit < (v4 ? 32 : 128); ++bit) {
        bytes[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
    }
    return AddressText(bytes, v4);
}

std::string RangeText(const cJSON* value)
{
    if (const cJSON* range = cJSON_GetObjectItem(value, "range")) {
        return std::string(cJSON_GetArrayItem(range, 0)->valuestring) + "-" +
               cJSON_GetArrayItem(range, 1)->valuestring;
    }
    if (const cJSON* prefix = cJSON_GetObjectItem(value, "prefix")) {
        const std::string address = String(prefix, "addr");
        return address + "-" + LastOf(address, Number(prefix, "len", 0));
    }
    return std::string(value->valuestring) + "-" + value->valuestring;
}

void AddElements(const cJSON* set, unsigned index, Entries& entries)
{
    const uint32_t of_set = Number(set, "timeout", 0);
    const cJSON* element;
    cJSON_ArrayForEach(element, cJSON_GetObjectItem(set, "elem"))
    {
        const cJSON* details = cJSON_GetObjectItem(element, "elem");
        const cJSON* value = details ? cJSON_GetObjectItem(details, "val") : element;
        const bool expires = details && cJSON_GetObjectItem(details, "expires");
        entries.insert({std::to_string(index) + " " + RangeText(value),
                        {expires ? Number(details, "timeout", of_set) : 0,
                         expires ? Number(details, "expires", 0) : 0}});
    }
}

// The same from nft: sets whose name and type make them blacklists, in its order.
Entries Listed()
{
    Entries entries;
    cJSON* listing = cJSON_Parse(network::Run("nft -j list ruleset").c_str());
    unsigned index = 0;
    const cJSON* object;
    cJSON_ArrayForEach(object, cJSON_GetObjectItem(listing, "nftables"))
    {
        const cJSON* set = cJSON_GetObjectItem(object, "set");
        const std::string type = set ? String(set, "type") : "";
        if (set && strncmp(String(set, "name"), "blacklist", 9) == 0 &&
            (type == "ipv4_addr" || type == "ipv6_addr")) {
            AddElements(set, index++, entries);
        }
    }
    cJSON_Delete(listing);
    return entries;
}

// The same entries, none with more time left than before.
void ExpectBetween(const Entries& before, const Entries& ours, const Entries& after)
{
    ASSERT_EQ(before.size(), ours.size());
    ASSERT_EQ(after.size(), ours.size());
    auto earlier = before.begin();
    auto later = after.begin();
    for (const auto& [key, expiry] : ours) {
        EXPECT_EQ(key, earlier->first);
        EXPECT_EQ(expiry.timeout_s, earlier->second.timeout_s) << key;
        EXPECT_LE(expiry.expires_s, earlier->second.expires_s) << key;
        EXPECT_GE(expiry.expires_s, later->second.expires_s) << key;
        ++earlier;
        ++later;
    }
}

void Load(const std::string& rules)
{
    FILE* nft = popen("nft -f -", "we");
    ASSERT_NE(nft, nullptr);
    fwrite(rules.data(), 1, rules.size(), nft);
    ASSERT_EQ(pclose(nft), 0) << rules.substr(0, 400);
}

struct Case {
    const char* name;
    const char* rules;
    unsigned sets;
    size_t entries;
};

const Case cases[] = {
    {"no table", "", 0, 0},
    {"no set by that name",
     "table inet t { set white { type ipv4_addr; elements = { 1.1.1.1 }\n}\n}", 0, 0},
    {"an empty set", "table ip t { set blacklist { type ipv4_addr;\n}\n}", 1, 0},
    {"single addresses",
     "table inet t { set blacklist { type ipv4_addr; elements = { 1.2.3.4, 0.0.0.0, "
     "255.255.255.255 "
     "}\n}\n}",
     1, 3},
    {"intervals that touch and reach both ends",
     "table inet t { set blacklist { type ipv4_addr; flags interval; elements = { 0.0.0.0/8, "
     "1.0.0.0/24, 1.0.1.0/24, 9.9.9.9, 10.0.0.1-10.0.2.7, 224.0.0.0/3 }\n}\n}",
     1, 6},
    {"everything",
     "table inet t { set blacklist { type ipv4_addr; flags interval; elements = { "
     "0.0.0.0/0 }\n}\n}",
     1, 1},
    {"IPv6 intervals",
     "table ip6 t { set blacklist { type ipv6_addr; flags interval; elements = { ::1, fe80::/10, "
     "2001:db8::ffff-2001:db8::1:0, ff00::/8 }\n}\n}",
     1, 4},
    {"timeouts of sets, of elements and none",
     "table inet t { set blacklist4 { type ipv4_addr; flags timeout; elements = { 1.1.1.1 timeout "
     "2h, 2.2.2.2 }\n}\n"
     "set blacklist6 { type ipv6_addr; timeout 1h; elements = { 1::1, 1::2 timeout 30m }\n}\n"
     "set blacklist_i { type ipv4_addr; flags interval,timeout; elements = { 1.0.0.0/8 timeout "
     "3d, 2.0.0.0/8 }\n}\n}",
     3, 6},
    {"several tables and families, beside what is no blacklist",
     "table ip a { set blacklist { type ipv4_addr; elements = { 1.1.1.1 }\n}\n"
     "map blacklist_map { type ipv4_addr : verdict; elements = { 7.7.7.7 : drop }\n}\n"
     "set blacklist_ports { type inet_service; elements = { 80 }\n}\n"
     "set blacklist_pairs { type ipv4_addr . inet_service; elements = { 1.1.1.1 . 80 }\n}\n"
     "set whitelist { type ipv4_addr; elements = { 8.8.8.8 }\n}\n}\n"
     "table inet a { set blacklist { type ipv6_addr; elements = { 1::1 }\n}\n}\n"
     "table inet b { set blacklisted-hosts.v4 { type ipv4_addr; counter; elements = { 2.2.2.2 "
     "comment \"x\" }\n}\n}\n"
     "table bridge c { set blacklist { typeof ip saddr; elements = { 3.3.3.3 }\n}\n}",
     4, 4},
};

TEST(Blacklist, IsWhatNftLists)
{
    REQUIRE_NETWORK();
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        network::InOwn([&] {
            Load(each.rules);
            const Entries before = Listed();
            const driver::Handle handle = driver::Open();
            const Blacklist list = Fetch(handle);
            ExpectBetween(before, EntriesOf(list), Listed());
            EXPECT_EQ(list.sets, each.sets);
            EXPECT_EQ(list.entries.size(), each.entries);
            vxa_filter_variable_s elements = {61, 0};
            EXPECT_EQ(vxi_get_varv(handle.get(), &elements), 0);
            EXPECT_EQ(elements.value, each.entries);
        });
    }
}

// Hash sets and interval sets, each larger than one message of the kernel.
TEST(Blacklist, HoldsTenThousand)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        std::string v4, v6, ranges;
        for (unsigned i = 0; i < 4000; ++i) {
            v4 += "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250) + ", ";
            v6 += "2001:db8::" + std::to_string(i + 1) + " timeout 1d, ";
            ranges += i % 2 ? ""
                            : "20." + std::to_string(i / 200) + "." + std::to_string(i % 200) +
                                  ".3-20." + std::to_string(i / 200) + "." +
                                  std::to_string(i % 200) + ".9, ";
        }
        Load("table inet t { set blacklist4 { type ipv4_addr; elements = { " + v4 +
             "}\n}\nset blacklist6 { type ipv6_addr; flags timeout; elements = { " + v6 +
             "}\n}\nset blacklist_r { type ipv4_addr; flags interval; elements = { " + ranges +
             "}\n}\n}");
        const Entries before = Listed();
        const Blacklist list = Fetch(driver::Open());
        EXPECT_EQ(list.entries.size(), 10000u);
        ExpectBetween(before, EntriesOf(list), Listed());
    });
}

TEST(Blacklist, TextNamesSetsAndEntries)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        Load(
            "table inet t { set blacklist { type ipv4_addr; flags interval; elements = { "
            "2.0.0.0/8, "
            "1.1.1.1 }\n}\n}");
        EXPECT_EQ(Fetch(driver::Open()).text,
                  "# blacklist: nf_tables sets named blacklist* (engine linux), 2 entries, 1 sets\n"
                  "# set 0: inet t blacklist\n"
                  "1.1.1.1 set 0\n"
                  "2.0.0.0-2.255.255.255 set 0\n");
    });
}

// The kernel takes any bytes but NUL for a name.
void MakeSet(const char* table_name, const char* set_name)
{
    vxi::Netlink netlink;
    ASSERT_EQ(netlink.open(NETLINK_NETFILTER), 0);
    vxi::NftBatch batch(netlink);
    nftnl_table* table = nftnl_table_alloc();
    nftnl_table_set_str(table, NFTNL_TABLE_NAME, table_name);
    batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE, "table",
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table); });
    nftnl_set* set = nftnl_set_alloc();
    nftnl_set_set_str(set, NFTNL_SET_TABLE, table_name);
    nftnl_set_set_str(set, NFTNL_SET_NAME, set_name);
    nftnl_set_set_u32(set, NFTNL_SET_ID, 1);
    nftnl_set_set_u32(set, NFTNL_SET_KEY_TYPE, 7);
    nftnl_set_set_u32(set, NFTNL_SET_KEY_LEN, 4);
    batch.add(NFT_MSG_NEWSET, NLM_F_CREATE, "set",
              [&](nlmsghdr* header) { nftnl_set_nlmsg_build_payload(header, set); });
    EXPECT_EQ(batch.send(vxi::NftBatch::Purpose::Commit).status, 0);
    nftnl_set_free(set);
    nftnl_table_free(table);
}

TEST(Blacklist, TextEscapesWhatTheKernelNames)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        MakeSet("t\xff\x1b[31m", "blacklist\n# set 9: \"\\x\xc3\xbc");
        const std::string longest = "blacklist" + std::string(246, 'z');
        MakeSet(std::string(255, 'n').c_str(), longest.c_str());
        const Blacklist list = Fetch(driver::Open());
        EXPECT_EQ(list.sets, 2u);
        EXPECT_NE(list.text.find("# set 0: inet t\\xff\\x1b[31m blacklist\\x0a# set 9: "
                                 "\"\\x5cx\\xc3\\xbc\n"),
                  list.text.npos)
            << list.text;
        EXPECT_NE(list.text.find("\n# set 1: inet nnn"), list.text.npos) << list.text;
    });
}

TEST(Blacklist, FillIsServedFromTheSnapshotOnce)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        Load(
            "table inet t { set blacklist { type ipv4_addr; elements = { 1.1.1.1, 2.2.2.2 }\n}\n}");
        const driver::Handle handle = driver::Open();
        struct {
            vxa_blacklist_get_addrs_s head;
            char entries[2 * sizeof(vxa_blacklist_entry_s)];
            char beyond[8];
        } block = {};
        memset(block.beyond, 0x5a, sizeof block.beyond);
        ASSERT_EQ(vxi_get_blacklist(handle.get(), &block.head), 0);
        EXPECT_EQ(block.head.entries_size, sizeof block.entries);
        network::Run("nft flush set inet t blacklist");
        block.head.entries_size = sizeof(vxa_blacklist_entry_s) + 5;  // room for one
        ASSERT_EQ(vxi_get_blacklist(handle.get(), &block.head), 0);
        EXPECT_EQ(block.head.entries_size, sizeof(vxa_blacklist_entry_s));
        EXPECT_EQ(block.entries[0], 1);
        EXPECT_EQ(block.entries[sizeof(vxa_blacklist_entry_s)], 0);
        EXPECT_EQ(block.beyond[0], 0x5a);
        EXPECT_EQ(vxi_get_blacklist(handle.get(), &block.head), -ENODATA);
        EXPECT_EQ(driver::Error(handle),
                  "engine linux: vxi_get_blacklist: no snapshot: ask for the size first");
    });
}

}  // namespace
