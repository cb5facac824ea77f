#include "engines/linux/tables/RuleProfile.h"

#include <libmnl/libmnl.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <limits>

#include "api/Message.h"
#include "api/Profiler.h"
#include "engines/linux/HandleState.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/tables/JsonText.h"
#include "engines/linux/tables/RulesetJson.h"

namespace vxi {

namespace {

constexpr const char* kTraceSource = "host/driver/engines/linux";

std::atomic<RuleProfiler*> current{nullptr};
std::atomic<RuleProfiler*> inherited{nullptr};

// What a thread of the parent did with its lock stays as it was for good.
void begin_again_in_child()
{
    if (RuleProfiler* const parents = current.exchange(nullptr)) {
        inherited = parents;
    }
    SwitchProfiling(false);
}

void append_field(std::string& out, const char* name, std::string_view text)
{
    out.append("\"").append(name).append("\": ");
    append_json_text(out, text);
    out += ", ";
}

void append_rule(std::string& out, const RuleKey& key, const RuleCount& count)
{
    out += '{';
    append_field(out, "family", NftFamilyName(key.family));
    append_field(out, "table", key.table);
    append_field(out, "chain", count.chain);
    out += "\"handle\": " + std::to_string(key.handle) +
           ", \"packets\": " + std::to_string(count.packets) +
           ", \"bytes\": " + std::to_string(count.bytes) + '}';
}

Outcome CountRules(RuleCounts& counts)
{
    Netlink netlink;
    Outcome outcome = OpenNfTables(netlink);
    if (outcome.Failed()) {
        return outcome;
    }
    const int status = read_rule_counts(netlink, counts);
    // Rules that change all the time: each counted as it was when its turn came.
    if (status < 0 && status != -EINTR) {
        outcome =
            Failure(status, "reading the rules' counters: %s", DescribeStatus(status).c_str());
    }
    return outcome;
}

// Rules can be listed at all. Asked before the listing is tried, whose own complaint is
// less clear.
Outcome Listable()
{
    Netlink netlink;
    return OpenNfTables(netlink);
}

int SizeProfile(vxi_handle_ops_s* handle, std::uint32_t& size)
{
    const Outcome access = Listable();
    if (access.Failed()) {
        VXI_TRACE(handle, 1, kTraceSource, "no rule profile: %s", access.text.c_str());
        size = 0;
        return 0;
    }
    auto json = std::make_unique<std::string>();
    const Outcome outcome = ProcessRuleProfiler().Report(*json);
    if (outcome.Failed()) {
        ThrowError(outcome.status, "%s", outcome.text.c_str());
    }
    // A caller adds the size field to it in 32 bits.
    if (json->size() > std::numeric_limits<std::uint32_t>::max() - sizeof size) {
        ThrowError(-EFBIG, "the rules take %zu bytes", json->size());
    }
    size = static_cast<std::uint32_t>(json->size());
    StateOf(handle).profile = std::move(json);
    return 0;
}

}  // namespace

void TakeRule(const nlmsghdr& message, RuleCounts& counts)
{
    if (!IsNft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto handle = Be64Of(rule.Find(NFTA_RULE_HANDLE));
    const auto counted = DecodeCounters(rule);
    if (handle && counted) {
        counts[{NftFamily(message), std::string(TextOf(rule.Find(NFTA_RULE_TABLE))), *handle}] = {
            std::string(TextOf(rule.Find(NFTA_RULE_CHAIN))), counted->packets, counted->bytes};
    }
}

int read_rule_counts(Netlink& netlink, RuleCounts& counts)
{
    return RetryInterrupted([&] {
        alignas(nlmsghdr) char buffer[kNftDumpSize];
        nlmsghdr* request = NftDump(buffer, NFT_MSG_GETRULE, NFPROTO_UNSPEC);
        counts.clear();
        return netlink.Request(*request, [&](const nlmsghdr& message) {
            TakeRule(message, counts);
            return 0;
        });
    });
}

RuleCounts CountedSince(const RuleCounts& before, const RuleCounts& now)
{
    RuleCounts counted = now;
    for (auto& [key, count] : counted) {
        const auto known = before.find(key);
        if (known != before.end() && known->second.packets <= count.packets &&
            known->second.bytes <= count.bytes) {
            count.packets -= known->second.packets;
            count.bytes -= known->second.bytes;
        }
    }
    return counted;
}

std::string ProfileJson(const RuleCounts& counted, std::uint64_t milliseconds)
{
    std::string text =
        "{\"profile\": {\"milliseconds\": " + std::to_string(milliseconds) + ", \"rules\": [";
    const char* between = "";
    for (const auto& [key, count] : counted) {
        text += between;
        append_rule(text, key, count);
        between = ", ";
    }
    return text + "]}}";
}

bool append_object(std::string& listing, const std::string& object)
{
    constexpr std::string_view kEnd = "]}";
    if (listing.size() <= kEnd.size() ||
        listing.compare(listing.size() - kEnd.size(), kEnd.size(), kEnd) != 0) {
        return false;
    }
    listing.resize(listing.size() - kEnd.size());
    listing += (listing.back() == '[' ? "" : ", ") + object;
    listing += kEnd;
    return true;
}

Outcome RuleProfiler::Set(std::uint32_t value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    RuleCounts counts;
    if (value == 1) {
        const Outcome outcome = CountRules(counts);
        if (outcome.Failed()) {
            return outcome;
        }
    }
    m_before = std::move(counts);
    m_namespace = NetworkNamespace();
    m_since = std::chrono::steady_clock::now();
    m_value = value;
    SwitchProfiling(value == 1);
    return {};
}

std::uint32_t RuleProfiler::Value() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_value;
}

// Empty while there is nothing to compare with.
Outcome RuleProfiler::Profile(std::string& object) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_value != 1 || m_namespace != NetworkNamespace()) {
        return {};
    }
    RuleCounts now;
    const Outcome outcome = CountRules(now);
    const auto passed = std::chrono::steady_clock::now() - m_since;
    if (!outcome.Failed()) {
        object =
            ProfileJson(CountedSince(m_before, now),
                        static_cast<std::uint64_t>(
                            std::chrono::duration_cast<std::chrono::milliseconds>(passed).count()));
    }
    return outcome;
}

Outcome RuleProfiler::Report(std::string& json) const
{
    std::string object;
    Outcome outcome = Profile(object);
    if (!outcome.Failed()) {
        outcome = RulesetJson(json);
    }
    if (!outcome.Failed() && !object.empty() && !append_object(json, object)) {
        outcome = Failure(-EPROTO, "libnftables' listing does not end as JSON does");
    }
    return outcome;
}

RuleProfiler& ProcessRuleProfiler()
{
    static const int kRegistered = pthread_atfork(nullptr, nullptr, begin_again_in_child);
    (void)kRegistered;
    RuleProfiler* profiler = current.load();
    if (!profiler) {
        // Never destroyed: handles may be used until the process ends.
        auto fresh = std::make_unique<RuleProfiler>(inherited.load());
        if (current.compare_exchange_strong(profiler, fresh.get())) {
            profiler = fresh.release();
        }
    }
    return *profiler;
}

int LinuxOperations::GetProfileStats(vxi_handle_ops_s* handle, void* record)
{
    std::uint32_t size = 0;
    memcpy(&size, record, sizeof size);
    if (size == 0) {
        const int status = SizeProfile(handle, size);
        memcpy(record, &size, sizeof size);
        return status;
    }
    const auto json = std::move(StateOf(handle).profile);
    if (!json) {
        ThrowError(-ENODATA, "no snapshot: ask for the size first");
    }
    size = static_cast<std::uint32_t>(std::min<std::size_t>(size, json->size()));
    memcpy(record, &size, sizeof size);
    memcpy(static_cast<char*>(record) + sizeof size, json->data(), size);
    return 0;
}

}  // namespace vxi
