// vxi_get_profile_stats: the listing of all rules, with what they counted while profiling is on.
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

#include "api/Error.h"
#include "api/Profiler.h"
#include "engines/linux/HandleSnapshots.h"
#include "engines/linux/Operations.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/netlink/NfTables.h"
#include "engines/linux/tables/JsonString.h"
#include "engines/linux/tables/RulesetJson.h"

namespace vxi {

namespace {

constexpr const char* kTraceSource = "host/driver/engines/linux";

std::atomic<RuleProfiler*> current{nullptr};
std::atomic<RuleProfiler*> inherited{nullptr};

// In a fork's child the parent's lock may be held for good by a thread that is not there.
void ForgetParentsProfiler()
{
    if (RuleProfiler* const parents = current.exchange(nullptr)) {
        inherited = parents;
    }
    SetProfiling(false);
}

void AppendField(std::string& out, const char* name, std::string_view value)
{
    out.append("\"").append(name).append("\": ");
    AppendJsonString(out, value);
    out += ", ";
}

void AppendRule(std::string& out, const RuleKey& key, const RuleCount& count)
{
    out += '{';
    AppendField(out, "family", NftFamilyName(key.family));
    AppendField(out, "table", key.table);
    AppendField(out, "chain", count.chain);
    out += "\"handle\": " + std::to_string(key.handle) +
           ", \"packets\": " + std::to_string(count.packets) +
           ", \"bytes\": " + std::to_string(count.bytes) + '}';
}

// If rules keep changing, each has the counts that it had when it was read.
RuleCounts ReadRuleCounts()
{
    Netlink netlink;
    OpenNfTables(netlink);
    try {
        RuleCounts counts;
        RetryInterrupted([&] {
            alignas(nlmsghdr) char buffer[kNftDumpSize];
            counts.clear();
            return netlink.Request(*PutNftDump(buffer, NFT_MSG_GETRULE, NFPROTO_UNSPEC),
                                   [&](const nlmsghdr& message) { AddRule(message, counts); });
        });
        return counts;
    } catch (const Error& error) {
        ThrowError(error.Status(), "reading the rules' counters: %s", error.what());
    }
}

// Whether this process may list the rules. Checked first, because nf_tables reports a refusal more
// clearly than libnftables.
bool CanListRules(vxi_handle_ops_s* handle)
try {
    Netlink netlink;
    OpenNfTables(netlink);
    return true;
} catch (const Error& error) {
    VXI_TRACE(handle, 1, kTraceSource, "no rule profile: %s", error.what());
    return false;
}

// Reads the rules and returns the size of their profile; 0 where they cannot be listed.
std::uint32_t SizeProfile(vxi_handle_ops_s* handle)
{
    if (!CanListRules(handle)) {
        return 0;
    }
    auto json = std::make_unique<std::string>(ProcessRuleProfiler().Report());
    // Callers add the size of the size field, in 32 bits.
    if (json->size() > std::numeric_limits<std::uint32_t>::max() - sizeof(std::uint32_t)) {
        ThrowError(-EFBIG, "the rules take %zu bytes", json->size());
    }
    const auto size = static_cast<std::uint32_t>(json->size());
    Snapshots(handle).profile = std::move(json);
    return size;
}

// Copies at most `room` bytes to `destination`; returns how many.
std::uint32_t FillProfile(vxi_handle_ops_s* handle, std::uint32_t room, char* destination)
{
    const auto json = TakeSnapshot(Snapshots(handle).profile);
    return static_cast<std::uint32_t>(json->copy(destination, room));
}

}  // namespace

void AddRule(const nlmsghdr& message, RuleCounts& counts)
{
    if (!IsNft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto handle = DecodeBe64(rule.Find(NFTA_RULE_HANDLE));
    const auto counted = DecodeRuleCounter(rule);
    if (handle && counted) {
        counts[{NftFamily(message), std::string(DecodeString(rule.Find(NFTA_RULE_TABLE))),
                *handle}] = {std::string(DecodeString(rule.Find(NFTA_RULE_CHAIN))),
                             counted->packets, counted->bytes};
    }
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
        AppendRule(text, key, count);
        between = ", ";
    }
    return text + "]}}";
}

void AppendObject(std::string& listing, const std::string& object)
{
    constexpr std::string_view kEnd = "]}";
    if (listing.size() <= kEnd.size() ||
        listing.compare(listing.size() - kEnd.size(), kEnd.size(), kEnd) != 0) {
        throw Error(-EPROTO, "libnftables' listing does not end as JSON does");
    }
    listing.resize(listing.size() - kEnd.size());
    listing += (listing.back() == '[' ? "" : ", ") + object;
    listing += kEnd;
}

void RuleProfiler::Set(std::uint32_t value)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_before = value == 1 ? ReadRuleCounts() : RuleCounts();
    m_namespace = NetworkNamespace();
    m_since = std::chrono::steady_clock::now();
    m_value = value;
    SetProfiling(value == 1);
}

std::uint32_t RuleProfiler::Value() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_value;
}

// Returns nullopt while there are no counts to compare with.
std::optional<std::string> RuleProfiler::Profile() const
{
    using std::chrono::milliseconds;
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_value != 1 || m_namespace != NetworkNamespace()) {
        return std::nullopt;
    }
    const RuleCounts now = ReadRuleCounts();
    const auto passed = std::chrono::steady_clock::now() - m_since;
    return ProfileJson(
        CountedSince(m_before, now),
        static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(passed).count()));
}

std::string RuleProfiler::Report() const
{
    const std::optional<std::string> profile = Profile();
    std::string json = RulesetJson();
    if (profile) {
        AppendObject(json, *profile);
    }
    return json;
}

RuleProfiler& ProcessRuleProfiler()
{
    static const int kRegistered = pthread_atfork(nullptr, nullptr, ForgetParentsProfiler);
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
    size = size == 0 ? SizeProfile(handle)
                     : FillProfile(handle, size, static_cast<char*>(record) + sizeof size);
    memcpy(record, &size, sizeof size);
    return 0;
}

}  // namespace vxi
