// The rule profile against nft's own listing and against known traffic.
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <signal.h>
#include <sys/wait.h>

#include <regex>
#include <vector>

#include "Driver.h"
#include "Network.h"
#include "Traffic.h"
#include "Variables.h"
#include "engines/linux/NftBatch.h"

namespace {

uint32_t Size(const driver::Handle& handle)
{
    uint32_t size = 0;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), 0) << driver::Error(handle);
    return size;
}

// At most `capacity` bytes of the payload of the last size request.
std::string Fill(const driver::Handle& handle, uint32_t capacity)
{
    std::vector<char> record(sizeof capacity + capacity);
    memcpy(record.data(), &capacity, sizeof capacity);
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), record.data()), 0) << driver::Error(handle);
    uint32_t filled = 0;
    memcpy(&filled, record.data(), sizeof filled);
    EXPECT_LE(filled, capacity);
    return {record.data() + sizeof filled, filled};
}

std::string Payload(const driver::Handle& handle)
{
    const uint32_t size = Size(handle);
    return size > 0 ? Fill(handle, size) : "";
}

void Switch(const driver::Handle& handle, uint32_t value)
{
    EXPECT_EQ(vxi_set_var(handle.get(), vxi::variable_rule_profiling, value), 0)
        << driver::Error(handle);
}

std::string NftListing()
{
    std::string text = network::Run("nft -j list ruleset");
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

// "PACKETS/BYTES " for each rule in the profile that must stand behind nft's listing.
std::string Profile(const driver::Handle& handle)
{
    const std::string payload = Payload(handle);
    const std::string listing = NftListing();
    const size_t common = listing.size() - strlen("]}");
    EXPECT_EQ(payload.substr(0, common), listing.substr(0, common));
    const std::regex rule(R"("chain": "c", "handle": \d+, "packets": (\d+), "bytes": (\d+)\})");
    std::string counts;
    for (std::sregex_iterator at(payload.begin(), payload.end(), rule), end; at != end; ++at) {
        counts += at->str(1) + "/" + at->str(2) + " ";
    }
    return counts;
}

// Each 38 bytes on the way.
void Send(unsigned datagrams)
{
    traffic::Exchange(traffic::Local(4, 7777), datagrams);
}

void MakeRules()
{
    network::Run(
        "nft 'table ip t { chain c { type filter hook input priority 0; udp dport 7777 counter; "
        "udp dport 7777 accept; udp dport 7778 counter; }; }'");
}

NETWORK_TEST(RuleProfile, IsTheListingOfNft)
{
    // A host that lets the kernel reap its children must get it as well.
    for (const auto of_children : {SIG_DFL, SIG_IGN}) {
        network::Run("nft flush ruleset");
        const driver::Handle handle = driver::Open();
        const auto expect_listing = [&] {
            signal(SIGCHLD, of_children);
            const std::string payload = Payload(handle);
            signal(SIGCHLD, SIG_DFL);
            EXPECT_EQ(payload, NftListing());
        };
        expect_listing();  // no rules at all
        MakeRules();
        Send(3);
        expect_listing();
        Switch(handle, 2);
        expect_listing();
    }
}

NETWORK_TEST(RuleProfile, AddsWhatWasCountedSinceTheSwitch)
{
    MakeRules();
    Send(3);
    Switch(driver::Open(), 1);  // for the process, whatever becomes of the handle
    const driver::Handle handle = driver::Open();
    EXPECT_EQ(Profile(handle), "0/0 0/0 ");
    Send(4);
    EXPECT_EQ(Profile(handle), "4/152 0/0 ");
    network::Run("nft insert rule ip t c udp dport 7777 counter");
    Send(2);
    EXPECT_EQ(Profile(handle), "6/228 0/0 2/76 ");
    network::Child child([&] {
        EXPECT_EQ(profiler_running(), 0);
        EXPECT_EQ(Payload(driver::Open()), NftListing());
    });
    child.ExpectGood();
    Switch(handle, 1);
    EXPECT_EQ(Profile(handle), "0/0 0/0 0/0 ");
    Switch(handle, 0);
    EXPECT_EQ(Payload(handle), NftListing());
}

NETWORK_TEST(RuleProfile, FillsNoMoreThanThereIsRoomFor)
{
    MakeRules();
    const driver::Handle handle = driver::Open();
    const std::string whole = NftListing();
    EXPECT_EQ(Size(handle), whole.size());
    network::Run("nft flush ruleset");
    EXPECT_EQ(Fill(handle, 20), whole.substr(0, 20));
    uint32_t size = 20;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -ENODATA);
}

// libnftables aborts over such a name. This process must not end with it, nor hear of it.
NETWORK_TEST(RuleProfile, SurvivesNamesThatAreNoText)
{
    vxi::Netlink netlink;
    ASSERT_EQ(netlink.open(NETLINK_NETFILTER), 0);
    vxi::NftBatch batch(netlink);
    nftnl_table* table = nftnl_table_alloc();
    nftnl_table_set_str(table, NFTNL_TABLE_NAME, "t\xff");
    batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE, "table",
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table); });
    ASSERT_EQ(batch.send(vxi::NftBatch::Purpose::Commit).status, 0);
    nftnl_table_free(table);
    const driver::Handle handle = driver::Open();
    uint32_t size = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -EIO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(driver::Error(handle),
              "engine linux: vxi_get_profile_stats: libnftables cannot list the rules: it ended "
              "with signal 6 (a name that is no UTF-8?)");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // nothing is left behind
}

}  // namespace
