#include "engines/linux/scan/ScanTable.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnftnl/chain.h>
#include <libnftnl/expr.h>
#include <libnftnl/object.h>
#include <libnftnl/rule.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <new>

#include "vxi/records.h"

namespace vxi {

const std::array<const char*, kScanNamedCount> kScanCounterNames = {
    // "reset" and the like are keywords of nft, hence the prefix.
    "c_new", "c_estab", "c_refused", "c_reset", "c_synrtx", "c_fin", "c_uncounted",
};

namespace {

enum TcpFlag : std::uint8_t { kFin = 0x01, kSyn = 0x02, kRst = 0x04, kAck = 0x10 };

struct FlagTest {
    std::uint8_t mask = 0;  // 0: no test
    std::uint8_t value = 0;
    bool equal = true;
};

// Which end of the packet is the one that opened the connection.
enum class Opener { kUnused, kIsSource, kIsDestination };

enum class SetUse {
    kNone,
    kKnown,         // goes on only for a connection that is half-open
    kKnownRemove,   // and ends that after counting
    kEnterLasting,  // goes on only within kHalfOpenLastingMax, when there was room
    kEnterBrief,    // goes on only when there was room
};

// Evaluated in this order: flags, set, counter, removal, verdict. A row with a set makes two
// rules, one for each family.
struct RuleRow {
    const char* chain;
    FlagTest flags;
    SetUse set;
    Opener opener;
    const char* counter;  // by its name, kOwnCounter, or null
    const char* verdict;  // chain to go to, "return", or null to go on
};

constexpr const char* kOwnCounter = "";

constexpr FlagTest kAnyFlags = {};
constexpr FlagTest kPlainAck = {kAck | kSyn | kRst | kFin, kAck, true};
constexpr FlagTest kAckWithFin = {kAck | kSyn | kRst | kFin, kAck | kFin, true};
constexpr FlagTest kSynOnly = {kAck | kSyn | kRst | kFin, kSyn, true};
constexpr FlagTest kWithRst = {kRst, 0, false};

// Reading the counters between any two of these steps must never make a connection look
// closed that is not: an established one is counted before it leaves the set, a new one
// after it has entered.
constexpr RuleRow kRuleRows[] = {
    {"f", kAnyFlags, SetUse::kNone, Opener::kUnused, kOwnCounter, nullptr},
    {"f", kPlainAck, SetUse::kNone, Opener::kUnused, nullptr, "acked"},  // nearly every packet
    {"f", kSynOnly, SetUse::kNone, Opener::kUnused, nullptr, "opening"},
    {"f", kWithRst, SetUse::kNone, Opener::kUnused, nullptr, "frst"},
    {"f", kAckWithFin, SetUse::kNone, Opener::kUnused, "c_fin", "acked"},

    {"opening", kAnyFlags, SetUse::kKnown, Opener::kIsSource, "c_synrtx", "return"},
    {"opening", kAnyFlags, SetUse::kEnterLasting, Opener::kIsSource, "c_new", "return"},
    {"opening", kAnyFlags, SetUse::kEnterBrief, Opener::kIsSource, "c_new", "return"},
    {"opening", kAnyFlags, SetUse::kNone, Opener::kUnused, "c_uncounted", nullptr},

    {"acked", kAnyFlags, SetUse::kKnownRemove, Opener::kIsSource, "c_estab", "return"},

    {"frst", kAnyFlags, SetUse::kKnownRemove, Opener::kIsSource, "c_refused", "return"},
    {"frst", kAnyFlags, SetUse::kNone, Opener::kUnused, "c_reset", nullptr},

    {"b", kAnyFlags, SetUse::kNone, Opener::kUnused, kOwnCounter, nullptr},
    {"b", kWithRst, SetUse::kNone, Opener::kUnused, nullptr, "brst"},

    {"brst", kAnyFlags, SetUse::kKnownRemove, Opener::kIsDestination, "c_refused", "return"},
    {"brst", kAnyFlags, SetUse::kNone, Opener::kUnused, "c_reset", nullptr},
};

constexpr const char* kPlainChains[] = {"f", "opening", "acked", "frst", "b", "brst"};

// Before any filtering at the usual priority 0, after connection tracking.
constexpr int kHookPriority = -140;

constexpr std::uint32_t kSourcePortOffset = 0;
constexpr std::uint32_t kDestinationPortOffset = 2;
constexpr std::uint32_t kTcpFlagsOffset = 13;

// What differs between the families: places in the IP header, and how nft names the key.
struct Family {
    std::uint8_t protocol;
    const char* set;
    std::uint32_t set_id;
    std::uint32_t source_offset;
    std::uint32_t destination_offset;
    std::uint32_t address_size;
    std::uint32_t key_type;
};

// nft's numbers: 7 IPv4 address, 8 IPv6 address, 13 port; 6 bits each in a joined key.
constexpr Family kFamilies[] = {
    {NFPROTO_IPV4, kHalfOpenSetV4, 1, 12, 16, 4, 7 << 12 | 7 << 6 | 13},
    {NFPROTO_IPV6, kHalfOpenSetV6, 2, 8, 24, 16, 8 << 12 | 8 << 6 | 13},
};

constexpr std::uint32_t kRegisterSize = 4;
constexpr std::uint64_t kMsPerS = 1000;

template <auto Free>
struct Freed {
    template <class Thing>
    void operator()(Thing* thing) const
    {
        Free(thing);
    }
};

template <auto Free, class Thing>
std::unique_ptr<Thing, Freed<Free>> Owned(Thing* thing)
{
    if (!thing) {
        throw std::bad_alloc();
    }
    return std::unique_ptr<Thing, Freed<Free>>(thing);
}

// libnftnl's setters fail only for want of memory.
void Stored(int status)
{
    if (status < 0) {
        throw std::bad_alloc();
    }
}

// ---- one rule ---------------------------------------------------------------

class Rule {
public:
    Rule(const std::string& table, const char* chain)
    {
        Stored(nftnl_rule_set_str(m_rule.get(), NFTNL_RULE_TABLE, table.c_str()));
        Stored(nftnl_rule_set_str(m_rule.get(), NFTNL_RULE_CHAIN, chain));
        nftnl_rule_set_u32(m_rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    }

    void MatchMeta(std::uint32_t key, std::uint8_t value)
    {
        nftnl_expr* meta = append("meta");
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_KEY, key);
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_DREG, NFT_REG_1);
        Compare(NFT_CMP_EQ, &value, sizeof value);
    }

    void MatchPort(std::uint32_t offset, std::uint16_t port)
    {
        const std::uint16_t wanted = htons(port);
        Load(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof wanted, NFT_REG_1);
        Compare(NFT_CMP_EQ, &wanted, sizeof wanted);
    }

    void MatchFlags(const FlagTest& test)
    {
        const std::uint8_t zero = 0;
        Load(NFT_PAYLOAD_TRANSPORT_HEADER, kTcpFlagsOffset, sizeof test.mask, NFT_REG_1);
        nftnl_expr* bits = append("bitwise");
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_LEN, sizeof test.mask);
        Stored(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_MASK, &test.mask, sizeof test.mask));
        Stored(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_XOR, &zero, sizeof zero));
        Compare(test.equal ? NFT_CMP_EQ : NFT_CMP_NEQ, &test.value, sizeof test.value);
    }

    // The key of a half-open connection: opener's address, owner's address, opener's port.
    void LoadKey(const Family& family, Opener opener)
    {
        const std::uint32_t words = family.address_size / kRegisterSize;
        const bool source = opener == Opener::kIsSource;
        if (source) {
            // Source and destination stand side by side: one load instead of two.
            Load(NFT_PAYLOAD_NETWORK_HEADER, family.source_offset, 2 * family.address_size,
                 NFT_REG32_00);
        } else {
            Load(NFT_PAYLOAD_NETWORK_HEADER, family.destination_offset, family.address_size,
                 NFT_REG32_00);
            Load(NFT_PAYLOAD_NETWORK_HEADER, family.source_offset, family.address_size,
                 NFT_REG32_00 + words);
        }
        Load(NFT_PAYLOAD_TRANSPORT_HEADER, source ? kSourcePortOffset : kDestinationPortOffset,
             sizeof(std::uint16_t), NFT_REG32_00 + 2 * words);
    }

    void FindKey(const Family& family)
    {
        nftnl_expr* lookup = append("lookup");
        nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, NFT_REG32_00);
        Stored(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, family.set));
        nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SET_ID, family.set_id);
    }

    void LimitRate(std::uint64_t per_s, std::uint32_t burst)
    {
        nftnl_expr* limit = append("limit");
        nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, per_s);
        nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, 1);
        nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, burst);
        nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
    }

    void EnterSet(const Family& family, std::uint32_t timeout_s)
    {
        nftnl_expr_set_u64(ChangeSet(family, NFT_DYNSET_OP_ADD), NFTNL_EXPR_DYNSET_TIMEOUT,
                           timeout_s * kMsPerS);
    }

    nftnl_expr* ChangeSet(const Family& family, std::uint32_t operation)
    {
        nftnl_expr* change = append("dynset");
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SREG_KEY, NFT_REG32_00);
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_OP, operation);
        Stored(nftnl_expr_set_str(change, NFTNL_EXPR_DYNSET_SET_NAME, family.set));
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SET_ID, family.set_id);
        return change;
    }

    void Count(const char* counter)
    {
        if (*counter == '\0') {
            append("counter");
            return;
        }
        nftnl_expr* reference = append("objref");
        nftnl_expr_set_u32(reference, NFTNL_EXPR_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
        Stored(nftnl_expr_set_str(reference, NFTNL_EXPR_OBJREF_IMM_NAME, counter));
    }

    void Finish(const char* verdict)
    {
        nftnl_expr* immediate = append("immediate");
        nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
        if (std::string_view(verdict) == "return") {
            nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, NFT_RETURN);
            return;
        }
        nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, NFT_GOTO);
        Stored(nftnl_expr_set_str(immediate, NFTNL_EXPR_IMM_CHAIN, verdict));
    }

    void AddTo(NftBatch& batch, const char* chain) const
    {
        batch.Add(
            NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, std::string("rule of chain ") + chain,
            [this](nlmsghdr* header) { nftnl_rule_nlmsg_build_payload(header, m_rule.get()); });
    }

private:
    nftnl_expr* append(const char* kind)
    {
        nftnl_expr* expression = nftnl_expr_alloc(kind);
        if (!expression) {
            throw std::bad_alloc();
        }
        nftnl_rule_add_expr(m_rule.get(), expression);
        return expression;
    }

    void Load(std::uint32_t base, std::uint32_t offset, std::uint32_t size, std::uint32_t to)
    {
        nftnl_expr* payload = append("payload");
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, base);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, size);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, to);
    }

    void Compare(std::uint32_t operation, const void* value, std::uint32_t size)
    {
        nftnl_expr* comparison = append("cmp");
        nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
        nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_OP, operation);
        Stored(nftnl_expr_set(comparison, NFTNL_EXPR_CMP_DATA, value, size));
    }

    std::unique_ptr<nftnl_rule, Freed<nftnl_rule_free>> m_rule =
        Owned<nftnl_rule_free>(nftnl_rule_alloc());
};

// So many a second that no more than kHalfOpenLastingMax last at a time.
std::uint64_t LastingPerS(const ScanTableSpec& spec)
{
    return std::max(1U, (kHalfOpenLastingMax - kHalfOpenBurst) / spec.half_open_timeout_s);
}

void UseSet(Rule& rule, const ScanTableSpec& spec, const RuleRow& row, const Family& family)
{
    rule.MatchMeta(NFT_META_NFPROTO, family.protocol);
    rule.LoadKey(family, row.opener);
    switch (row.set) {
        case SetUse::kEnterLasting:
            rule.LimitRate(LastingPerS(spec), kHalfOpenBurst);
            rule.EnterSet(family, spec.half_open_timeout_s);
            break;
        case SetUse::kEnterBrief:
            rule.EnterSet(family, std::min(kHalfOpenBriefS, spec.half_open_timeout_s));
            break;
        default:
            rule.FindKey(family);
    }
}

void AddRule(NftBatch& batch, const ScanTableSpec& spec, const RuleRow& row, const Family* family)
{
    Rule rule(spec.name, row.chain);
    if (row.flags.mask) {
        rule.MatchFlags(row.flags);
    }
    if (family) {
        UseSet(rule, spec, row, *family);
    }
    if (row.counter) {
        rule.Count(row.counter);
    }
    if (row.set == SetUse::kKnownRemove) {
        rule.ChangeSet(*family, NFT_DYNSET_OP_DELETE);
    }
    if (row.verdict) {
        rule.Finish(row.verdict);
    }
    rule.AddTo(batch, row.chain);
}

void AddRules(NftBatch& batch, const ScanTableSpec& spec, const RuleRow& row)
{
    if (row.set == SetUse::kNone) {
        AddRule(batch, spec, row, nullptr);
        return;
    }
    for (const Family& family : kFamilies) {
        AddRule(batch, spec, row, &family);
    }
}

// ---- everything else --------------------------------------------------------

std::uint32_t AddTable(NftBatch& batch, const ScanTableSpec& spec)
{
    auto table = Owned<nftnl_table_free>(nftnl_table_alloc());
    Stored(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, spec.name.c_str()));
    if (spec.owned) {
        nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    }
    return batch.Add(
        NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, "table " + spec.name,
        [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

void AddCounter(NftBatch& batch, const std::string& table, const char* name)
{
    auto counter = Owned<nftnl_obj_free>(nftnl_obj_alloc());
    nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_FAMILY, NFPROTO_INET);
    nftnl_obj_set_u32(counter.get(), NFTNL_OBJ_TYPE, NFT_OBJECT_COUNTER);
    nftnl_obj_set_str(counter.get(), NFTNL_OBJ_TABLE, table.c_str());
    nftnl_obj_set_str(counter.get(), NFTNL_OBJ_NAME, name);
    // These setters do not report that memory ran out.
    if (!nftnl_obj_get_str(counter.get(), NFTNL_OBJ_TABLE) ||
        !nftnl_obj_get_str(counter.get(), NFTNL_OBJ_NAME))
        throw std::bad_alloc();
    nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_PKTS, 0);
    nftnl_obj_set_u64(counter.get(), NFTNL_OBJ_CTR_BYTES, 0);
    batch.Add(NFT_MSG_NEWOBJ, NLM_F_CREATE | NLM_F_EXCL, std::string("counter ") + name,
              [&](nlmsghdr* header) { nftnl_obj_nlmsg_build_payload(header, counter.get()); });
}

void AddSet(NftBatch& batch, const ScanTableSpec& spec, const Family& family)
{
    auto set = Owned<nftnl_set_free>(nftnl_set_alloc());
    Stored(nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, spec.name.c_str()));
    Stored(nftnl_set_set_str(set.get(), NFTNL_SET_NAME, family.set));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, family.set_id);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_EVAL | NFT_SET_TIMEOUT);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, family.key_type);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, 2 * family.address_size + kRegisterSize);
    nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, kHalfOpenMax);
    nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, spec.half_open_timeout_s * kMsPerS);
    batch.Add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL, std::string("set ") + family.set,
              [&](nlmsghdr* header) { nftnl_set_nlmsg_build_payload(header, set.get()); });
}

// A chain on a hook when `hook` is given, else one that others go to.
void AddChain(NftBatch& batch, const std::string& table, const char* name,
              const std::uint32_t* hook)
{
    auto chain = Owned<nftnl_chain_free>(nftnl_chain_alloc());
    Stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table.c_str()));
    Stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
    if (hook) {
        Stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter"));
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, *hook);
        nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, kHookPriority);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    }
    batch.Add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, std::string("chain ") + name,
              [&](nlmsghdr* header) { nftnl_chain_nlmsg_build_payload(header, chain.get()); });
}

struct HookRow {
    const char* chain;
    std::uint32_t hook;
    std::uint32_t port_offset;
    const char* target;
};

void AddHook(NftBatch& batch, const ScanTableSpec& spec, const HookRow& row)
{
    AddChain(batch, spec.name, row.chain, &row.hook);
    Rule rule(spec.name, row.chain);
    // The port first: what is not meant fails there, at the least cost.
    rule.MatchPort(row.port_offset, spec.target.port);
    rule.MatchMeta(NFT_META_L4PROTO, IPPROTO_TCP);
    rule.Finish(row.target);
    rule.AddTo(batch, row.chain);
}

unsigned read_number(const char* path, unsigned otherwise)
{
    const std::unique_ptr<FILE, Freed<fclose>> file(fopen(path, "re"));
    unsigned number;
    return file && fscanf(file.get(), "%u", &number) == 1 ? number : otherwise;
}

}  // namespace

std::string ScanTableName(pid_t process, unsigned attempt)
{
    std::string name = "vxi_scan_" + std::to_string(process);
    return attempt == 0 ? name : name + "_" + std::to_string(attempt);
}

pid_t ScanTableProcess(std::string_view name)
{
    constexpr std::string_view kPrefix = "vxi_scan_";
    if (name.substr(0, kPrefix.size()) != kPrefix) {
        return 0;
    }
    const char* const end = name.data() + name.size();
    pid_t process = 0;
    unsigned attempt = 0;
    auto read = std::from_chars(name.data() + kPrefix.size(), end, process);
    if (read.ec == std::errc() && read.ptr != end && *read.ptr == '_') {
        read = std::from_chars(read.ptr + 1, end, attempt);
    }
    return read.ec == std::errc() && read.ptr == end && process > 0 ? process : 0;
}

std::uint32_t AddScanTable(NftBatch& batch, const ScanTableSpec& spec)
{
    const bool inbound = spec.target.direction == VXI_SCAN_INBOUND;
    const std::uint32_t table = AddTable(batch, spec);
    for (const char* counter : kScanCounterNames) {
        AddCounter(batch, spec.name, counter);
    }
    for (const Family& family : kFamilies) {
        AddSet(batch, spec, family);
    }
    for (const char* chain : kPlainChains) {
        AddChain(batch, spec.name, chain, nullptr);
    }
    for (const RuleRow& row : kRuleRows) {
        AddRules(batch, spec, row);
    }
    AddHook(batch, spec,
            {"cf", inbound ? NF_INET_LOCAL_IN : NF_INET_LOCAL_OUT, kDestinationPortOffset, "f"});
    AddHook(batch, spec,
            {"cb", inbound ? NF_INET_LOCAL_OUT : NF_INET_LOCAL_IN, kSourcePortOffset, "b"});
    return table;
}

void AddTableRemoval(NftBatch& batch, const std::string& name)
{
    auto table = Owned<nftnl_table_free>(nftnl_table_alloc());
    Stored(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name.c_str()));
    batch.Add(NFT_MSG_DELTABLE, 0, "removal of table " + name,
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

std::uint32_t HalfOpenTimeoutS(unsigned retries)
{
    constexpr unsigned kRetriesMax = 127;         // what the kernel admits
    constexpr std::uint32_t kLongestWaitS = 120;  // TCP_RTO_MAX
    constexpr std::uint32_t kMarginS = 3;
    std::uint32_t sum_s = 0;
    for (unsigned i = 0; i <= std::min(retries, kRetriesMax); ++i) {
        sum_s += i < 7 ? 1u << i : kLongestWaitS;
    }
    return sum_s + kMarginS;
}

std::uint32_t HalfOpenTimeoutOf(std::uint32_t direction)
{
    if (direction == VXI_SCAN_INBOUND) {
        return HalfOpenTimeoutS(read_number("/proc/sys/net/ipv4/tcp_synack_retries", 5));
    }
    return HalfOpenTimeoutS(read_number("/proc/sys/net/ipv4/tcp_syn_retries", 6));
}

}  // namespace vxi
