// The rule profile against nft's own listing and against known traffic.
#include <arpa/inet.h>
#include <cjson/cJSON.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
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

// "TABLE CHAIN: PACKETS/BYTES" for each rule in the payload's profile; empty without one.
std::multimap<std::string, std::string> Profile(const std::string& payload)
{
    std::multimap<std::string, std::string> rules;
    cJSON* json = cJSON_Parse(payload.c_str());
    EXPECT_NE(json, nullptr) << payload;
    const cJSON* objects = cJSON_GetObjectItem(json, "nftables");
    const cJSON* last = cJSON_GetArrayItem(objects, cJSON_GetArraySize(objects) - 1);
    const cJSON* rule;
    cJSON_ArrayForEach(rule, cJSON_GetObjectItem(cJSON_GetObjectItem(last, "profile"), "rules"))
    {
        const auto number = [&](const char* name) {
            return std::to_string(
                static_cast<long long>(cJSON_GetObjectItem(rule, name)->valuedouble));
        };
        rules.insert({std::string(cJSON_GetObjectItem(rule, "table")->valuestring) + " " +
                          cJSON_GetObjectItem(rule, "chain")->valuestring,
                      number("packets") + "/" + number("bytes")});
    }
    cJSON_Delete(json);
    return rules;
}

using Expected = std::multimap<std::string, std::string>;

// Datagrams of one byte to a port of this host: 29 bytes on the way, received by nobody.
void Send(unsigned datagrams)
{
    const traffic::Socket sender(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(7777);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (unsigned i = 0; i < datagrams; ++i) {
        sendto(sender.fd(), "", 1, 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
}

constexpr const char* rules =
    "nft 'table ip t { chain c { type filter hook input priority 0; udp dport 7777 counter; "
    "udp dport 7777 accept; udp dport 7778 counter; }; }'";

TEST(RuleProfile, IsTheListingOfNft)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        const driver::Handle handle = driver::Open();
        EXPECT_EQ(Payload(handle), NftListing());  // no rules at all
        network::Run(rules);
        Send(3);
        EXPECT_EQ(Payload(handle), NftListing());
        Switch(handle, 2);
        EXPECT_EQ(Payload(handle), NftListing());
    });
}

TEST(RuleProfile, AddsWhatWasCountedSinceTheSwitch)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        network::Run(rules);
        Send(3);
        Switch(driver::Open(), 1);  // for the process, whatever becomes of the handle
        const driver::Handle handle = driver::Open();
        EXPECT_EQ(Profile(Payload(handle)), (Expected{{"t c", "0/0"}, {"t c", "0/0"}}));
        Send(4);
        EXPECT_EQ(Profile(Payload(handle)), (Expected{{"t c", "4/116"}, {"t c", "0/0"}}));
        network::Run("nft insert rule ip t c udp dport 7777 counter");
        Send(2);
        EXPECT_EQ(Profile(Payload(handle)),
                  (Expected{{"t c", "6/174"}, {"t c", "0/0"}, {"t c", "2/58"}}));
        Switch(handle, 1);
        EXPECT_EQ(Profile(Payload(handle)),
                  (Expected{{"t c", "0/0"}, {"t c", "0/0"}, {"t c", "0/0"}}));
        Switch(handle, 0);
        EXPECT_EQ(Payload(handle), NftListing());
    });
}

TEST(RuleProfile, BelongsToOneProcess)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        network::Run(rules);
        const driver::Handle handle = driver::Open();
        Switch(handle, 1);
        network::Child child([&] {
            EXPECT_EQ(profiler_running(), 0);
            EXPECT_EQ(Profile(Payload(driver::Open())), Expected{});
        });
        child.ExpectGood();
        EXPECT_EQ(Profile(Payload(handle)).size(), 2u);
    });
}

TEST(RuleProfile, FillsNoMoreThanThereIsRoomFor)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        network::Run(rules);
        const driver::Handle handle = driver::Open();
        const std::string whole = NftListing();
        EXPECT_EQ(Size(handle), whole.size());
        network::Run("nft flush ruleset");
        EXPECT_EQ(Fill(handle, 20), whole.substr(0, 20));
        uint32_t size = 20;
        EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -ENODATA);
    });
}

// A host that lets the kernel reap its children must get its profile as well.
TEST(RuleProfile, NeedsNoWaitStatus)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        signal(SIGCHLD, SIG_IGN);
        const std::string payload = Payload(driver::Open());
        signal(SIGCHLD, SIG_DFL);
        EXPECT_EQ(payload, NftListing());
    });
}

// What this process writes to standard error while `body` runs.
std::string StandardError(const std::function<void()>& body)
{
    char path[] = "/tmp/profile_test_XXXXXX";
    const int file = mkstemp(path);
    unlink(path);
    const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    dup2(file, STDERR_FILENO);
    body();
    dup2(kept, STDERR_FILENO);
    char text[1024];
    const ssize_t size = pread(file, text, sizeof text, 0);
    close(kept);
    close(file);
    return {text, static_cast<size_t>(size > 0 ? size : 0)};
}

TEST(RuleProfile, IsEmptyWithoutPrivilege)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
        network::Run(rules);
        ASSERT_EQ(setresuid(65534, 65534, 65534), 0);
        const driver::Handle handle = driver::Open();
        EXPECT_EQ(StandardError([&] { EXPECT_EQ(Size(handle), 0u); }), "");
    });
}

// libnftables aborts over such a name. This process must not end with it, nor hear of it.
TEST(RuleProfile, SurvivesNamesThatAreNoText)
{
    REQUIRE_NETWORK();
    network::InOwn([] {
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
        EXPECT_EQ(
            StandardError([&] { EXPECT_EQ(vxi_get_profile_stats(handle.get(), &size), -EIO); }),
            "");
        EXPECT_EQ(size, 0u);
        EXPECT_EQ(
            driver::Error(handle),
            "engine linux: vxi_get_profile_stats: libnftables cannot list the rules: it ended "
            "with signal 6 (a name that is no UTF-8?)");
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // nothing is left behind
    });
}

}  // namespace
