// The rules as rows, and their expressions.
#include "engines/linux/scan/ScanRules.h"

#include <arpa/inet.h>  // before linux/netfilter.h, which defines the same
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <algorithm>
#include <string_view>

namespace vxi {

namespace {

constexpr const char* kOpeningChain = "count_opening";
constexpr const char* kEstablishedChain = "count_established";
constexpr const char* kResetToPortChain = "count_reset_to_port";
constexpr const char* kResetFromPortChain = "count_reset_from_port";
constexpr const char* kReturn = "return";  // instead of a chain

constexpr std::uint32_t kTcpFlagsOffset = 13;  // RFC 9293, section 3.1
enum TcpFlag : std::uint8_t { kFin = 0x01, kSyn = 0x02, kRst = 0x04, kAck = 0x10 };

struct FlagTest {
    std::uint8_t mask = 0;  // 0: no test
    std::uint8_t value = 0;
    bool equal = true;
};

// Which end of the packet opened the connection.
enum class Opener { kUnused, kIsSource, kIsDestination };

enum class SetUse {
    kNone,
    kFind,        // continues only for a connection that is half-open
    kFindDelete,  // the same, and deletes it after counting
    kAddLasting,  // continues only within kHalfOpenLastingMax, and when there was room
    kAddBrief,    // continues only when there was room
};

constexpr ScanCounter kNotCounted = ScanCounter::kCount;

// Evaluated in the order of the fields. A row that uses the sets adds one rule per IP version.
struct RuleRow {
    const char* chain;
    FlagTest flags;
    SetUse use;
    Opener opener;
    ScanCounter counter;
    const char* next;  // a chain, kReturn, or null for the next rule
};

constexpr FlagTest kAnyFlags = {};
constexpr FlagTest kAckAlone = {kAck | kSyn | kRst | kFin, kAck, true};
constexpr FlagTest kAckWithFin = {kAck | kSyn | kRst | kFin, kAck | kFin, true};
constexpr FlagTest kSynAlone = {kAck | kSyn | kRst | kFin, kSyn, true};
constexpr FlagTest kWithRst = {kRst, 0, false};

// The counters are read while packets pass. Between any two of these steps they must not show a
// connection as closed that is not: it enters its set before it is counted as new, and is counted
// as established before it leaves.
constexpr RuleRow kRuleRows[] = {
    {kCountToPortChain, kAnyFlags, SetUse::kNone, Opener::kUnused, ScanCounter::kForward, nullptr},
    // First, because nearly every packet is one of these.
    {kCountToPortChain, kAckAlone, SetUse::kNone, Opener::kUnused, kNotCounted, kEstablishedChain},
    {kCountToPortChain, kSynAlone, SetUse::kNone, Opener::kUnused, kNotCounted, kOpeningChain},
    {kCountToPortChain, kWithRst, SetUse::kNone, Opener::kUnused, kNotCounted, kResetToPortChain},
    {kCountToPortChain, kAckWithFin, SetUse::kNone, Opener::kUnused, ScanCounter::kFinished,
     kEstablishedChain},

    {kOpeningChain, kAnyFlags, SetUse::kFind, Opener::kIsSource, ScanCounter::kRetransmitted,
     kReturn},
    {kOpeningChain, kAnyFlags, SetUse::kAddLasting, Opener::kIsSource, ScanCounter::kNew, kReturn},
    {kOpeningChain, kAnyFlags, SetUse::kAddBrief, Opener::kIsSource, ScanCounter::kNew, kReturn},
    {kOpeningChain, kAnyFlags, SetUse::kNone, Opener::kUnused, ScanCounter::kUncounted, nullptr},

    {kEstablishedChain, kAnyFlags, SetUse::kFindDelete, Opener::kIsSource,
     ScanCounter::kEstablished, kReturn},

    {kResetToPortChain, kAnyFlags, SetUse::kFindDelete, Opener::kIsSource, ScanCounter::kRefused,
     kReturn},
    {kResetToPortChain, kAnyFlags, SetUse::kNone, Opener::kUnused, ScanCounter::kReset, nullptr},

    {kCountFromPortChain, kAnyFlags, SetUse::kNone, Opener::kUnused, ScanCounter::kBackward,
     nullptr},
    {kCountFromPortChain, kWithRst, SetUse::kNone, Opener::kUnused, kNotCounted,
     kResetFromPortChain},

    {kResetFromPortChain, kAnyFlags, SetUse::kFindDelete, Opener::kIsDestination,
     ScanCounter::kRefused, kReturn},
    {kResetFromPortChain, kAnyFlags, SetUse::kNone, Opener::kUnused, ScanCounter::kReset, nullptr},
};

constexpr std::uint32_t kRegisterSize = 4;
constexpr std::uint64_t kMsPerS = 1000;

// Packets per second of which no more than kHalfOpenLastingMax stay at a time.
std::uint64_t LastingPerS(const ScanTableSpec& spec)
{
    return std::max(1U, (kHalfOpenLastingMax - kHalfOpenBurst) / spec.half_open_timeout_s);
}

// Loads the key: opener's address, owner's address, opener's port.
void LoadKey(NftRule& rule, const HalfOpenSet& set, Opener opener)
{
    const std::uint32_t words = set.address_size / kRegisterSize;
    const bool source = opener == Opener::kIsSource;
    if (source) {
        // Source and destination are next to each other: one load instead of two.
        rule.LoadPayload(NFT_PAYLOAD_NETWORK_HEADER, set.source_offset, 2 * set.address_size,
                         NFT_REG32_00);
    } else {
        rule.LoadPayload(NFT_PAYLOAD_NETWORK_HEADER, set.destination_offset, set.address_size,
                         NFT_REG32_00);
        rule.LoadPayload(NFT_PAYLOAD_NETWORK_HEADER, set.source_offset, set.address_size,
                         NFT_REG32_00 + words);
    }
    rule.LoadPayload(NFT_PAYLOAD_TRANSPORT_HEADER,
                     source ? kSourcePortOffset : kDestinationPortOffset, sizeof(std::uint16_t),
                     NFT_REG32_00 + 2 * words);
}

void UseSet(NftRule& rule, const ScanTableSpec& spec, const RuleRow& row, const HalfOpenSet& set)
{
    rule.MatchMeta(NFT_META_NFPROTO, set.family);
    LoadKey(rule, set, row.opener);
    switch (row.use) {
        case SetUse::kAddLasting:
            rule.LimitRate(LastingPerS(spec), kHalfOpenBurst);
            rule.AddKey(set.set, spec.half_open_timeout_s * kMsPerS);
            break;
        case SetUse::kAddBrief:
            rule.AddKey(set.set, std::min(kHalfOpenBriefS, spec.half_open_timeout_s) * kMsPerS);
            break;
        default:
            rule.LookUpKey(set.set);
    }
}

void Count(NftRule& rule, ScanCounter counter)
{
    if (counter == ScanCounter::kForward || counter == ScanCounter::kBackward) {
        rule.Count();
    } else if (counter != kNotCounted) {
        rule.CountIn(kScanCounterNames[static_cast<std::size_t>(counter)]);
    }
}

void GoOn(NftRule& rule, const char* next)
{
    if (std::string_view(next) == kReturn) {
        rule.Return();
    } else {
        rule.GoTo(next);
    }
}

void AddRule(NftBatch& batch, const ScanTableSpec& spec, const RuleRow& row, const HalfOpenSet* set)
{
    NftRule rule(spec.name, row.chain);
    if (row.flags.mask) {
        rule.MatchTransportBits(kTcpFlagsOffset, row.flags.mask, row.flags.value, row.flags.equal);
    }
    if (set) {
        UseSet(rule, spec, row, *set);
    }
    Count(rule, row.counter);
    if (row.use == SetUse::kFindDelete) {
        rule.DeleteKey(set->set);
    }
    if (row.next) {
        GoOn(rule, row.next);
    }
    rule.AddTo(batch);
}

// A key type in nft's numbers (enum datatypes in nftables' include/datatype.h): each part has 6
// bits.
constexpr std::uint32_t KeyType(std::uint32_t address)
{
    constexpr std::uint32_t kInetService = 13;
    return address << 12 | address << 6 | kInetService;
}

}  // namespace

const std::array<HalfOpenSet, 2> kHalfOpenSets = {{
    {{kHalfOpenIpv4, 1}, NFPROTO_IPV4, 12, 16, 4, KeyType(7)},
    {{kHalfOpenIpv6, 2}, NFPROTO_IPV6, 8, 24, 16, KeyType(8)},
}};

std::uint32_t KeySize(const HalfOpenSet& set)
{
    return 2 * set.address_size + kRegisterSize;
}

const std::array<const char*, 6> kCountChains = {kCountToPortChain,   kOpeningChain,
                                                 kEstablishedChain,   kResetToPortChain,
                                                 kCountFromPortChain, kResetFromPortChain};

void AddCountRules(NftBatch& batch, const ScanTableSpec& spec)
{
    for (const RuleRow& row : kRuleRows) {
        if (row.use == SetUse::kNone) {
            AddRule(batch, spec, row, nullptr);
            continue;
        }
        for (const HalfOpenSet& set : kHalfOpenSets) {
            AddRule(batch, spec, row, &set);
        }
    }
}

void AddPortRule(NftBatch& batch, const ScanTableSpec& spec, const char* chain,
                 std::uint32_t port_offset, const char* target)
{
    NftRule rule(spec.name, chain);
    // The port first: for other traffic the rule ends there, at the least cost.
    rule.MatchPort(port_offset, spec.target.port);
    rule.MatchMeta(NFT_META_L4PROTO, IPPROTO_TCP);
    rule.GoTo(target);
    rule.AddTo(batch);
}

}  // namespace vxi
