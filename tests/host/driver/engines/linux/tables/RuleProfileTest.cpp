// The rule profile against nft's own listing and against known traffic.
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <signal.h>
#include <sys/wait.h>

#include "api/Variables.h"
#include "engines/linux/netlink/NftBatch.h"
#include "support/kernel/Kernel.h"
#include "support/kernel/Traffic.h"

using kernel::Run;

namespace {

const traffic::Place kTo = traffic::Local(4, 7777);

// What the last size request found, at most `capacity` bytes.
std::string Fill(const OpenHandle& handle, std::uint32_t capacity)
{
    std::string record(sizeof capacity + capacity, '\0');
    memcpy(record.data(), &capacity, sizeof capacity);
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), record.data()), 0) << ErrorText(handle.get());
    memcpy(&capacity, record.data(), sizeof capacity);
    return record.substr(sizeof capacity, capacity);
}

std::string Payload(const OpenHandle& handle)
{
    std::uint32_t size = 0;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), 0) << ErrorText(handle.get());
    return Fill(handle, size);
}

int Switch(const OpenHandle& handle, std::uint32_t value)
{
    return vxi_set_var(handle.get(), vxi::kVariableRuleProfiling, value);
}

std::string Listing()
{
    return Run("printf %s \"$(nft -j list ruleset)\"");
}

// "BYTES PACKETS" of each rule in the profile, which must follow nft's listing.
kernel::Lines Profile(const OpenHandle& handle)
{
    const std::string payload = Payload(handle);
    const std::string listing = Listing();
    const std::size_t common = listing.size() - strlen("]}");
    EXPECT_EQ(payload.substr(0, common), listing.substr(0, common));
    return kernel::Matches(payload,
                           R"("chain": "c", "handle": \d+, "packets": (\d+), "bytes": (\d+)\})");
}

void MakeRules()
{
    Run("nft 'table ip t { chain c { type filter hook input priority 0; udp dport 7777 counter; "
        "udp dport 7777 accept; udp dport 7778 counter; }; }'");
}

KERNEL_TEST(RuleProfile, IsTheListingOfNft)
{
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Payload(handle), Listing());
    MakeRules();
    traffic::Exchange(kTo, 3);
    // A host that lets the kernel reap its children must get it as well.
    signal(SIGCHLD, SIG_IGN);
    const std::string payload = Payload(handle);
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(payload, Listing());
    ASSERT_EQ(Switch(handle, 2), 0);
    std::uint32_t size = 0;
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), 0);
    EXPECT_EQ(size, payload.size());
    Run("nft flush ruleset");
    EXPECT_EQ(Fill(handle, 20), payload.substr(0, 20));
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -ENODATA);
}

KERNEL_TEST(RuleProfile, AddsWhatWasCountedSinceTheSwitch)
{
    MakeRules();
    traffic::Exchange(kTo, 3);
    ASSERT_EQ(Switch(kernel::Open(), 1), 0);  // for the process, whatever becomes of the handle
    const OpenHandle handle = kernel::Open();
    EXPECT_EQ(Profile(handle), (kernel::Lines{"0", "0"}));
    traffic::Exchange(kTo, 4);  // each 38 bytes on the way
    EXPECT_EQ(Profile(handle), (kernel::Lines{"152 4", "0"}));
    Run("nft insert rule ip t c udp dport 7777 counter");
    traffic::Exchange(kTo, 2);
    EXPECT_EQ(Profile(handle), (kernel::Lines{"228 6", "0", "2 76"}));
    kernel::ExpectEnd(kernel::Spawn([&] {
        EXPECT_EQ(profiler_running(), 0);
        EXPECT_EQ(Payload(kernel::Open()), Listing());
    }));
    ASSERT_EQ(Switch(handle, 1), 0);
    EXPECT_EQ(Profile(handle), (kernel::Lines{"0", "0", "0"}));
    ASSERT_EQ(Switch(handle, 0), 0);
    EXPECT_EQ(Payload(handle), Listing());
}

// libnftables aborts over such a name. This process must not end with it, nor hear of it.
KERNEL_TEST(RuleProfile, SurvivesNamesThatAreNoText)
{
    vxi::Netlink netlink;
    netlink.Open(NETLINK_NETFILTER);
    vxi::NftBatch batch(netlink);
    nftnl_table* table = nftnl_table_alloc();
    nftnl_table_set_str(table, NFTNL_TABLE_NAME, "t\xff");
    batch.Add(NFT_MSG_NEWTABLE, NLM_F_CREATE, "table",
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table); });
    batch.Send(vxi::NftBatch::Purpose::kCommit);
    nftnl_table_free(table);
    const OpenHandle handle = kernel::Open();
    std::uint32_t size = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -EIO);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(ErrorText(handle.get()),
              "engine linux: vxi_get_profile_stats: libnftables cannot list the rules: it ended "
              "with signal 6 (a name that is no UTF-8?)");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // nothing is left behind
}

}  // namespace
