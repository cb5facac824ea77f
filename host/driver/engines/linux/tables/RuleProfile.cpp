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
#include "engines/linux/tables/JsonText.h"
#include "engines/linux/netlink/NetNamespace.h"
#include "engines/linux/netlink/NftDump.h"
#include "engines/linux/tables/RulesetJson.h"
#include "engines/linux/Slots.h"

namespace vxi {

namespace {

constexpr const char* trace_source = "host/driver/engines/linux";

std::atomic<RuleProfiler*> current{nullptr};
std::atomic<RuleProfiler*> inherited{nullptr};

// What a thread of the parent did with its lock stays as it was for good.
void begin_again_in_child()
{
    if (RuleProfiler* const parents = current.exchange(nullptr)) {
        inherited = parents;
    }
    switch_profiling(false);
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
    append_field(out, "family", nft_family_name(key.family));
    append_field(out, "table", key.table);
    append_field(out, "chain", count.chain);
    out += "\"handle\": " + std::to_string(key.handle) +
           ", \"packets\": " + std::to_string(count.packets) +
           ", \"bytes\": " + std::to_string(count.bytes) + '}';
}

Outcome count_rules(RuleCounts& counts)
{
    Netlink netlink;
    Outcome outcome = open_nf_tables(netlink);
    if (outcome.failed()) {
        return outcome;
    }
    const int status = read_rule_counts(netlink, counts);
    // Rules that change all the time: each counted as it was when its turn came.
    if (status < 0 && status != -EINTR) {
        outcome =
            failure(status, "reading the rules' counters: %s", describe_status(status).c_str());
    }
    return outcome;
}

// Rules can be listed at all. Asked before the listing is tried, whose own complaint is
// less clear.
Outcome listable()
{
    Netlink netlink;
    return open_nf_tables(netlink);
}

int size_profile(vxi_handle_ops_s* handle, uint32_t& size)
{
    const Outcome access = listable();
    if (access.failed()) {
        VXI_TRACE(handle, 1, trace_source, "no rule profile: %s", access.text.c_str());
        size = 0;
        return 0;
    }
    auto json = std::make_unique<std::string>();
    const Outcome outcome = process_rule_profiler().report(*json);
    if (outcome.failed()) {
        return fail(handle, outcome.status, "%s", outcome.text.c_str());
    }
    // A caller adds the size field to it in 32 bits.
    if (json->size() > std::numeric_limits<uint32_t>::max() - sizeof size) {
        return fail(handle, -EFBIG, "the rules take %zu bytes", json->size());
    }
    size = static_cast<uint32_t>(json->size());
    state_of(handle).profile = std::move(json);
    return 0;
}

}  // namespace

void take_rule(const nlmsghdr& message, RuleCounts& counts)
{
    if (!is_nft(message, NFT_MSG_NEWRULE)) {
        return;
    }
    const Attributes rule(message, sizeof(nfgenmsg));
    const auto handle = be64_of(rule.find(NFTA_RULE_HANDLE));
    const auto counted = rule_counts(rule);
    if (handle && counted) {
        counts[{nft_family(message), std::string(text_of(rule.find(NFTA_RULE_TABLE))), *handle}] = {
            std::string(text_of(rule.find(NFTA_RULE_CHAIN))), counted->packets, counted->bytes};
    }
}

int read_rule_counts(Netlink& netlink, RuleCounts& counts)
{
    return retry_interrupted([&] {
        alignas(nlmsghdr) char buffer[nft_dump_size];
        nlmsghdr* request = nft_dump(buffer, NFT_MSG_GETRULE, NFPROTO_UNSPEC);
        counts.clear();
        return netlink.request(*request, [&](const nlmsghdr& message) {
            take_rule(message, counts);
            return 0;
        });
    });
}

RuleCounts counted_since(const RuleCounts& before, const RuleCounts& now)
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

std::string profile_json(const RuleCounts& counted, uint64_t milliseconds)
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
    constexpr std::string_view end = "]}";
    if (listing.size() <= end.size() ||
        listing.compare(listing.size() - end.size(), end.size(), end) != 0) {
        return false;
    }
    listing.resize(listing.size() - end.size());
    listing += (listing.back() == '[' ? "" : ", ") + object;
    listing += end;
    return true;
}

Outcome RuleProfiler::set(uint32_t value)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    RuleCounts counts;
    if (value == 1) {
        const Outcome outcome = count_rules(counts);
        if (outcome.failed()) {
            return outcome;
        }
    }
    before_ = std::move(counts);
    namespace_ = network_namespace();
    since_ = std::chrono::steady_clock::now();
    value_ = value;
    switch_profiling(value == 1);
    return {};
}

uint32_t RuleProfiler::value() const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return value_;
}

// Empty while there is nothing to compare with.
Outcome RuleProfiler::profile(std::string& object) const
{
    const std::lock_guard<std::mutex> lock(mutex_);
    if (value_ != 1 || namespace_ != network_namespace()) {
        return {};
    }
    RuleCounts now;
    const Outcome outcome = count_rules(now);
    const auto passed = std::chrono::steady_clock::now() - since_;
    if (!outcome.failed()) {
        object = profile_json(
            counted_since(before_, now),
            static_cast<uint64_t>(
                std::chrono::duration_cast<std::chrono::milliseconds>(passed).count()));
    }
    return outcome;
}

Outcome RuleProfiler::report(std::string& json) const
{
    std::string object;
    Outcome outcome = profile(object);
    if (!outcome.failed()) {
        outcome = ruleset_json(json);
    }
    if (!outcome.failed() && !object.empty() && !append_object(json, object)) {
        outcome = failure(-EPROTO, "libnftables' listing does not end as JSON does");
    }
    return outcome;
}

RuleProfiler& process_rule_profiler()
{
    static const int registered = pthread_atfork(nullptr, nullptr, begin_again_in_child);
    (void)registered;
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

int linux_slots::get_profile_stats(vxi_handle_ops_s* handle, void* record)
{
    uint32_t size = 0;
    memcpy(&size, record, sizeof size);
    if (size == 0) {
        const int status = size_profile(handle, size);
        memcpy(record, &size, sizeof size);
        return status;
    }
    const auto json = std::move(state_of(handle).profile);
    if (!json) {
        return fail(handle, -ENODATA, "no snapshot: ask for the size first");
    }
    size = static_cast<uint32_t>(std::min<size_t>(size, json->size()));
    memcpy(record, &size, sizeof size);
    memcpy(static_cast<char*>(record) + sizeof size, json->data(), size);
    return 0;
}

}  // namespace vxi
