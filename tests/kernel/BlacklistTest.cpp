// The blacklist against sets of known content and what nft shows of large ones.
#include <algorithm>
#include <regex>
#include <set>
#include <vector>

#include "Driver.h"
#include "Network.h"

namespace {

// As callers fetch it, as text.
std::string Fetch(const driver::Handle& handle = driver::Open())
{
    vxa_blacklist_get_addrs_s header = {};
    EXPECT_EQ(vxi_get_blacklist(handle.get(), &header), 0) << driver::Error(handle);
    std::vector<char> block(sizeof header + header.entries_size);
    memcpy(block.data(), &header, sizeof header);
    auto* filled = reinterpret_cast<vxa_blacklist_get_addrs_s*>(block.data());
    EXPECT_EQ(vxi_get_blacklist(handle.get(), filled), 0) << driver::Error(handle);
    EXPECT_EQ(filled->entries_size, header.entries_size);
    return text_of(tb_dump_blacklist, filled);
}

void Load(const std::string& rules)
{
    FILE* nft = popen("nft -f -", "we");
    ASSERT_NE(nft, nullptr);
    fwrite(rules.data(), 1, rules.size(), nft);
    ASSERT_EQ(pclose(nft), 0) << rules.substr(0, 400);
}

struct Case {
    const char* what;
    const char* rules;
    unsigned entries;
    const char* text;  // behind the number of entries
};

// Elements that expire do so within the next ten minutes; in the text as after these minutes.
const Case cases[] = {
    {"no set by that name",
     "table inet t { set white { type ipv4_addr; elements = { 1.1.1.1 }; }; }", 0, "0 sets\n"},
    {"intervals that touch and reach both ends",
     "table inet t { set blacklist { type ipv4_addr; flags interval; elements = { 0.0.0.0/8, "
     "1.0.0.0/24, 1.0.1.0/24, 9.9.9.9, 10.0.0.1-10.0.2.7, 224.0.0.0/3 }; }; "
     "set blacklist6 { type ipv6_addr; flags interval; elements = { ::1, ff00::/8 }; }; }",
     8,
     "2 sets\n# set 0: inet t blacklist\n# set 1: inet t blacklist6\n"
     "0.0.0.0-0.255.255.255 set 0\n1.0.0.0-1.0.0.255 set 0\n"
     "1.0.1.0-1.0.1.255 set 0\n9.9.9.9 set 0\n10.0.0.1-10.0.2.7 set 0\n"
     "224.0.0.0-255.255.255.255 set 0\n::1 set 1\n"
     "ff00::-ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff set 1\n"},
    {"timeouts of sets, of elements and none",
     "table inet t { set blacklist4 { type ipv4_addr; flags timeout; elements = { 1.1.1.1 timeout "
     "2h expires 10m, 2.2.2.2 }; };"
     "set blacklist6 { type ipv6_addr; timeout 1h; elements = { 1::1 expires 10m, 1::2 timeout 30m "
     "expires 10m }; };"
     "set blacklist_i { type ipv4_addr; flags interval,timeout; elements = { 1.0.0.0/8 timeout "
     "3d expires 10m, 2.0.0.0/8 }; }; }",
     6,
     "3 sets\n# set 0: inet t blacklist4\n# set 1: inet t blacklist6\n# set 2: inet t blacklist_i\n"
     "1.1.1.1 set 0 expires 600s of 7200s\n2.2.2.2 set 0\n1::1 set 1 expires 600s of 3600s\n"
     "1::2 set 1 expires 600s of 1800s\n1.0.0.0-1.255.255.255 set 2 expires 600s of 259200s\n"
     "2.0.0.0-2.255.255.255 set 2\n"},
    {"several tables and families, beside what is no blacklist",
     "table ip a { set blacklist { type ipv4_addr; elements = { 1.1.1.1 }; };"
     "map blacklist_map { type ipv4_addr : verdict; elements = { 7.7.7.7 : drop }; };"
     "set blacklist_ports { type inet_service; elements = { 80 }; };"
     "set blacklist_pairs { type ipv4_addr . inet_service; elements = { 1.1.1.1 . 80 }; };"
     "set whitelist { type ipv4_addr; elements = { 8.8.8.8 }; }; };"
     "table inet a { set blacklist { type ipv6_addr; elements = { 1::1 }; }; };"
     "table inet b { set blacklisted-hosts.v4 { type ipv4_addr; counter; elements = { 2.2.2.2 "
     "comment \"x\" }; }; };"
     "table bridge c { set blacklist { typeof ip saddr; elements = { 3.3.3.3 }; }; }",
     4,
     "4 sets\n# set 0: ip a blacklist\n# set 1: inet a blacklist\n"
     "# set 2: inet b blacklisted-hosts.v4\n# set 3: bridge c blacklist\n"
     "# skipped ip a blacklist_map: a map\n"
     "# skipped ip a blacklist_ports: its elements are not of type ipv4_addr or ipv6_addr\n"
     "# skipped ip a blacklist_pairs: its elements are not of type ipv4_addr or ipv6_addr\n"
     "1.1.1.1 set 0\n1::1 set 1\n2.2.2.2 set 2\n3.3.3.3 set 3\n"},
};

TEST(Blacklist, HasTheElementsOfItsSets)
{
    REQUIRE_NETWORK("nft");
    const std::regex remaining("expires (5[0-9]{2}|600)s");
    for (const Case& each : cases) {
        SCOPED_TRACE(each.what);
        network::InOwn([&] {
            Load(each.rules);
            const driver::Handle handle = driver::Open();
            EXPECT_EQ(std::regex_replace(Fetch(handle), remaining, "expires 600s"),
                      "# blacklist: nf_tables sets named blacklist* (engine linux), " +
                          std::to_string(each.entries) + " entries, " + each.text);
            vxa_filter_variable_s elements = {61, 0};
            EXPECT_EQ(vxi_get_varv(handle.get(), &elements), 0);
            EXPECT_EQ(elements.value, each.entries);
        });
    }
}

std::multiset<std::string> Matches(const std::string& text, const char* pattern)
{
    const std::regex regex(pattern);
    std::multiset<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert(at->str(1));
    }
    return found;
}

// Hash sets and interval sets, each larger than one message of the kernel.
NETWORK_TEST(Blacklist, HoldsTenThousandAsNftListsThem)
{
    std::string v4, v6, ranges;
    for (unsigned i = 0; i < 4000; ++i) {
        const std::string high = "." + std::to_string(i / 200) + "." + std::to_string(i % 200);
        v4 += "10.0" + high + ", ";
        v6 += "2001:db8::" + std::to_string(i + 1) + " timeout 1d, ";
        ranges += i % 2 ? "" : "20" + high + ".3-20" + high + ".9, ";
    }
    Load("table inet t { set blacklist4 { type ipv4_addr; elements = { " + v4 +
         "}; }; set blacklist6 { type ipv6_addr; flags timeout; elements = { " + v6 +
         "}; }; set blacklist_r { type ipv4_addr; flags interval; elements = { " + ranges +
         "}; }; }");
    const auto ours = Matches(Fetch(), "\n([^ #]+) set");
    EXPECT_EQ(ours.size(), 10000u);
    EXPECT_EQ(ours, Matches(network::Run("nft list ruleset"),
                            "[ \t]([0-9a-f]+[.:][0-9a-f.:]+(-[0-9.]+)?)"));
}

NETWORK_TEST(Blacklist, FillIsServedFromTheSnapshotOnce)
{
    Load("table inet t { set blacklist { type ipv4_addr; elements = { 1.1.1.1, 2.2.2.2 }; }; }");
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
}

}  // namespace
