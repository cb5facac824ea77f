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

const std::array<const char*, scan_named_count> scan_counter_names = {
    // "reset" and the like are keywords of nft, hence the prefix.
    "c_new", "c_estab", "c_refused", "c_reset", "c_synrtx", "c_fin", "c_uncounted",
};

namespace {

enum TcpFlag : uint8_t { Fin = 0x01, Syn = 0x02, Rst = 0x04, Ack = 0x10 };

struct FlagTest {
    uint8_t mask = 0;  // 0: no test
    uint8_t value = 0;
    bool equal = true;
};

// Which end of the packet is the one that opened the connection.
enum class Opener { Unused, IsSource, IsDestination };

enum class SetUse {
    None,
    Known,         // goes on only for a connection that is half-open
    KnownRemove,   // and ends that after counting
    EnterLasting,  // goes on only within half_open_lasting_max, when there was room
    EnterBrief,    // goes on only when there was room
};

// Evaluated in this order: flags, set, counter, removal, verdict. A row with a set makes two
// rules, one for each family.
struct RuleRow {
    const char* chain;
    FlagTest flags;
    SetUse set;
    Opener opener;
    const char* counter;  // by its name, own_counter, or null
    const char* verdict;  // chain to go to, "return", or null to go on
};

constexpr const char* own_counter = "";

constexpr FlagTest any_flags = {};
constexpr FlagTest plain_ack = {Ack | Syn | Rst | Fin, Ack, true};
constexpr FlagTest ack_with_fin = {Ack | Syn | Rst | Fin, Ack | Fin, true};
constexpr FlagTest syn_only = {Ack | Syn | Rst | Fin, Syn, true};
constexpr FlagTest with_rst = {Rst, 0, false};

// Reading the counters between any two of these steps must never make a connection look
// closed that is not: an established one is counted before it leaves the set, a new one
// after it has entered.
constexpr RuleRow rule_rows[] = {
    {"f", any_flags, SetUse::None, Opener::Unused, own_counter, nullptr},
    {"f", plain_ack, SetUse::None, Opener::Unused, nullptr, "acked"},  // nearly every packet
    {"f", syn_only, SetUse::None, Opener::Unused, nullptr, "opening"},
    {"f", with_rst, SetUse::None, Opener::Unused, nullptr, "frst"},
    {"f", ack_with_fin, SetUse::None, Opener::Unused, "c_fin", "acked"},

    {"opening", any_flags, SetUse::Known, Opener::IsSource, "c_synrtx", "return"},
    {"opening", any_flags, SetUse::EnterLasting, Opener::IsSource, "c_new", "return"},
    {"opening", any_flags, SetUse::EnterBrief, Opener::IsSource, "c_new", "return"},
    {"opening", any_flags, SetUse::None, Opener::Unused, "c_uncounted", nullptr},

    {"acked", any_flags, SetUse::KnownRemove, Opener::IsSource, "c_estab", "return"},

    {"frst", any_flags, SetUse::KnownRemove, Opener::IsSource, "c_refused", "return"},
    {"frst", any_flags, SetUse::None, Opener::Unused, "c_reset", nullptr},

    {"b", any_flags, SetUse::None, Opener::Unused, own_counter, nullptr},
    {"b", with_rst, SetUse::None, Opener::Unused, nullptr, "brst"},

    {"brst", any_flags, SetUse::KnownRemove, Opener::IsDestination, "c_refused", "return"},
    {"brst", any_flags, SetUse::None, Opener::Unused, "c_reset", nullptr},
};

constexpr const char* plain_chains[] = {"f", "opening", "acked", "frst", "b", "brst"};

// Before any filtering at the usual priority 0, after connection tracking.
constexpr int hook_priority = -140;

constexpr uint32_t source_port_offset = 0;
constexpr uint32_t destination_port_offset = 2;
constexpr uint32_t tcp_flags_offset = 13;

// What differs between the families: places in the IP header, and how nft names the key.
struct Family {
    uint8_t protocol;
    const char* set;
    uint32_t set_id;
    uint32_t source_offset;
    uint32_t destination_offset;
    uint32_t address_size;
    uint32_t key_type;
};

// nft's numbers: 7 IPv4 address, 8 IPv6 address, 13 port; 6 bits each in a joined key.
constexpr Family families[] = {
    {NFPROTO_IPV4, half_open_set_v4, 1, 12, 16, 4, 7 << 12 | 7 << 6 | 13},
    {NFPROTO_IPV6, half_open_set_v6, 2, 8, 24, 16, 8 << 12 | 8 << 6 | 13},
};

constexpr uint32_t register_size = 4;
constexpr uint64_t ms_per_s = 1000;

template <auto Free>
struct Freed {
    template <class Thing>
    void operator()(Thing* thing) const
    {
        Free(thing);
    }
};

template <auto Free, class Thing>
std::unique_ptr<Thing, Freed<Free>> owned(Thing* thing)
{
    if (!thing) {
        throw std::bad_alloc();
    }
    return std::unique_ptr<Thing, Freed<Free>>(thing);
}

// libnftnl's setters fail only for want of memory.
void stored(int status)
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
        stored(nftnl_rule_set_str(rule_.get(), NFTNL_RULE_TABLE, table.c_str()));
        stored(nftnl_rule_set_str(rule_.get(), NFTNL_RULE_CHAIN, chain));
        nftnl_rule_set_u32(rule_.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
    }

    void match_meta(uint32_t key, uint8_t value)
    {
        nftnl_expr* meta = append("meta");
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_KEY, key);
        nftnl_expr_set_u32(meta, NFTNL_EXPR_META_DREG, NFT_REG_1);
        compare(NFT_CMP_EQ, &value, sizeof value);
    }

    void match_port(uint32_t offset, uint16_t port)
    {
        const uint16_t wanted = htons(port);
        load(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof wanted, NFT_REG_1);
        compare(NFT_CMP_EQ, &wanted, sizeof wanted);
    }

    void match_flags(const FlagTest& test)
    {
        const uint8_t zero = 0;
        load(NFT_PAYLOAD_TRANSPORT_HEADER, tcp_flags_offset, sizeof test.mask, NFT_REG_1);
        nftnl_expr* bits = append("bitwise");
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
        nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_LEN, sizeof test.mask);
        stored(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_MASK, &test.mask, sizeof test.mask));
        stored(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_XOR, &zero, sizeof zero));
        compare(test.equal ? NFT_CMP_EQ : NFT_CMP_NEQ, &test.value, sizeof test.value);
    }

    // The key of a half-open connection: opener's address, owner's address, opener's port.
    void load_key(const Family& family, Opener opener)
    {
        const uint32_t words = family.address_size / register_size;
        const bool source = opener == Opener::IsSource;
        if (source) {
            // Source and destination stand side by side: one load instead of two.
            load(NFT_PAYLOAD_NETWORK_HEADER, family.source_offset, 2 * family.address_size,
                 NFT_REG32_00);
        } else {
            load(NFT_PAYLOAD_NETWORK_HEADER, family.destination_offset, family.address_size,
                 NFT_REG32_00);
            load(NFT_PAYLOAD_NETWORK_HEADER, family.source_offset, family.address_size,
                 NFT_REG32_00 + words);
        }
        load(NFT_PAYLOAD_TRANSPORT_HEADER, source ? source_port_offset : destination_port_offset,
             sizeof(uint16_t), NFT_REG32_00 + 2 * words);
    }

    void find_key(const Family& family)
    {
        nftnl_expr* lookup = append("lookup");
        nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, NFT_REG32_00);
        stored(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, family.set));
        nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SET_ID, family.set_id);
    }

    void limit_rate(uint64_t per_s, uint32_t burst)
    {
        nftnl_expr* limit = append("limit");
        nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, per_s);
        nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, 1);
        nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, burst);
        nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
    }

    void enter_set(const Family& family, uint32_t timeout_s)
    {
        nftnl_expr_set_u64(change_set(family, NFT_DYNSET_OP_ADD), NFTNL_EXPR_DYNSET_TIMEOUT,
                           timeout_s * ms_per_s);
    }

    nftnl_expr* change_set(const Family& family, uint32_t operation)
    {
        nftnl_expr* change = append("dynset");
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SREG_KEY, NFT_REG32_00);
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_OP, operation);
        stored(nftnl_expr_set_str(change, NFTNL_EXPR_DYNSET_SET_NAME, family.set));
        nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SET_ID, family.set_id);
        return change;
    }

    void count(const char* counter)
    {
        if (*counter == '\0') {
            append("counter");
            return;
        }
        nftnl_expr* reference = append("objref");
        nftnl_expr_set_u32(reference, NFTNL_EXPR_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
        stored(nftnl_expr_set_str(reference, NFTNL_EXPR_OBJREF_IMM_NAME, counter));
    }

    void finish(const char* verdict)
    {
        nftnl_expr* immediate = append("immediate");
        nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
        if (std::string_view(verdict) == "return") {
            nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, NFT_RETURN);
            return;
        }
        nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, NFT_GOTO);
        stored(nftnl_expr_set_str(immediate, NFTNL_EXPR_IMM_CHAIN, verdict));
    }

    void add_to(NftBatch& batch, const char* chain) const
    {
        batch.add(
            NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, std::string("rule of chain ") + chain,
            [this](nlmsghdr* header) { nftnl_rule_nlmsg_build_payload(header, rule_.get()); });
    }

private:
    nftnl_expr* append(const char* kind)
    {
        nftnl_expr* expression = nftnl_expr_alloc(kind);
        if (!expression) {
            throw std::bad_alloc();
        }
        nftnl_rule_add_expr(rule_.get(), expression);
        return expression;
    }

    void load(uint32_t base, uint32_t offset, uint32_t size, uint32_t to)
    {
        nftnl_expr* payload = append("payload");
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, base);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, size);
        nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, to);
    }

    void compare(uint32_t operation, const void* value, uint32_t size)
    {
        nftnl_expr* comparison = append("cmp");
        nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
        nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_OP, operation);
        stored(nftnl_expr_set(comparison, NFTNL_EXPR_CMP_DATA, value, size));
    }

    std::unique_ptr<nftnl_rule, Freed<nftnl_rule_free>> rule_ =
        owned<nftnl_rule_free>(nftnl_rule_alloc());
};

// So many a second that no more than half_open_lasting_max last at a time.
uint64_t lasting_per_s(const ScanTableSpec& spec)
{
    return std::max(1U, (half_open_lasting_max - half_open_burst) / spec.half_open_timeout_s);
}

void use_set(Rule& rule, const ScanTableSpec& spec, const RuleRow& row, const Family& family)
{
    rule.match_meta(NFT_META_NFPROTO, family.protocol);
    rule.load_key(family, row.opener);
    switch (row.set) {
        case SetUse::EnterLasting:
            rule.limit_rate(lasting_per_s(spec), half_open_burst);
            rule.enter_set(family, spec.half_open_timeout_s);
            break;
        case SetUse::EnterBrief:
            rule.enter_set(family, std::min(half_open_brief_s, spec.half_open_timeout_s));
            break;
        default:
            rule.find_key(family);
    }
}

void add_rule(NftBatch& batch, const ScanTableSpec& spec, const RuleRow& row, const Family* family)
{
    Rule rule(spec.name, row.chain);
    if (row.flags.mask) {
        rule.match_flags(row.flags);
    }
    if (family) {
        use_set(rule, spec, row, *family);
    }
    if (row.counter) {
        rule.count(row.counter);
    }
    if (row.set == SetUse::KnownRemove) {
        rule.change_set(*family, NFT_DYNSET_OP_DELETE);
    }
    if (row.verdict) {
        rule.finish(row.verdict);
    }
    rule.add_to(batch, row.chain);
}

void add_rules(NftBatch& batch, const ScanTableSpec& spec, const RuleRow& row)
{
    if (row.set == SetUse::None) {
        add_rule(batch, spec, row, nullptr);
        return;
    }
    for (const Family& family : families) {
        add_rule(batch, spec, row, &family);
    }
}

// ---- everything else --------------------------------------------------------

uint32_t add_table(NftBatch& batch, const ScanTableSpec& spec)
{
    auto table = owned<nftnl_table_free>(nftnl_table_alloc());
    stored(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, spec.name.c_str()));
    if (spec.owned) {
        nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, NFT_TABLE_F_OWNER);
    }
    return batch.add(
        NFT_MSG_NEWTABLE, NLM_F_CREATE | NLM_F_EXCL, "table " + spec.name,
        [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

void add_counter(NftBatch& batch, const std::string& table, const char* name)
{
    auto counter = owned<nftnl_obj_free>(nftnl_obj_alloc());
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
    batch.add(NFT_MSG_NEWOBJ, NLM_F_CREATE | NLM_F_EXCL, std::string("counter ") + name,
              [&](nlmsghdr* header) { nftnl_obj_nlmsg_build_payload(header, counter.get()); });
}

void add_set(NftBatch& batch, const ScanTableSpec& spec, const Family& family)
{
    auto set = owned<nftnl_set_free>(nftnl_set_alloc());
    stored(nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, spec.name.c_str()));
    stored(nftnl_set_set_str(set.get(), NFTNL_SET_NAME, family.set));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_INET);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, family.set_id);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_EVAL | NFT_SET_TIMEOUT);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, family.key_type);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, 2 * family.address_size + register_size);
    nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, half_open_max);
    nftnl_set_set_u64(set.get(), NFTNL_SET_TIMEOUT, spec.half_open_timeout_s * ms_per_s);
    batch.add(NFT_MSG_NEWSET, NLM_F_CREATE | NLM_F_EXCL, std::string("set ") + family.set,
              [&](nlmsghdr* header) { nftnl_set_nlmsg_build_payload(header, set.get()); });
}

// A chain on a hook when `hook` is given, else one that others go to.
void add_chain(NftBatch& batch, const std::string& table, const char* name, const uint32_t* hook)
{
    auto chain = owned<nftnl_chain_free>(nftnl_chain_alloc());
    stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, table.c_str()));
    stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
    if (hook) {
        stored(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, "filter"));
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, *hook);
        nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, hook_priority);
        nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_POLICY, NF_ACCEPT);
    }
    batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE | NLM_F_EXCL, std::string("chain ") + name,
              [&](nlmsghdr* header) { nftnl_chain_nlmsg_build_payload(header, chain.get()); });
}

struct HookRow {
    const char* chain;
    uint32_t hook;
    uint32_t port_offset;
    const char* target;
};

void add_hook(NftBatch& batch, const ScanTableSpec& spec, const HookRow& row)
{
    add_chain(batch, spec.name, row.chain, &row.hook);
    Rule rule(spec.name, row.chain);
    // The port first: what is not meant fails there, at the least cost.
    rule.match_port(row.port_offset, spec.target.port);
    rule.match_meta(NFT_META_L4PROTO, IPPROTO_TCP);
    rule.finish(row.target);
    rule.add_to(batch, row.chain);
}

unsigned read_number(const char* path, unsigned otherwise)
{
    const std::unique_ptr<FILE, Freed<fclose>> file(fopen(path, "re"));
    unsigned number;
    return file && fscanf(file.get(), "%u", &number) == 1 ? number : otherwise;
}

}  // namespace

std::string scan_table_name(pid_t process, unsigned attempt)
{
    std::string name = "vxi_scan_" + std::to_string(process);
    return attempt == 0 ? name : name + "_" + std::to_string(attempt);
}

pid_t scan_table_process(std::string_view name)
{
    constexpr std::string_view prefix = "vxi_scan_";
    if (name.substr(0, prefix.size()) != prefix) {
        return 0;
    }
    const char* const end = name.data() + name.size();
    pid_t process = 0;
    unsigned attempt = 0;
    auto read = std::from_chars(name.data() + prefix.size(), end, process);
    if (read.ec == std::errc() && read.ptr != end && *read.ptr == '_') {
        read = std::from_chars(read.ptr + 1, end, attempt);
    }
    return read.ec == std::errc() && read.ptr == end && process > 0 ? process : 0;
}

uint32_t add_scan_table(NftBatch& batch, const ScanTableSpec& spec)
{
    const bool inbound = spec.target.direction == VXI_SCAN_INBOUND;
    const uint32_t table = add_table(batch, spec);
    for (const char* counter : scan_counter_names) {
        add_counter(batch, spec.name, counter);
    }
    for (const Family& family : families) {
        add_set(batch, spec, family);
    }
    for (const char* chain : plain_chains) {
        add_chain(batch, spec.name, chain, nullptr);
    }
    for (const RuleRow& row : rule_rows) {
        add_rules(batch, spec, row);
    }
    add_hook(batch, spec,
             {"cf", inbound ? NF_INET_LOCAL_IN : NF_INET_LOCAL_OUT, destination_port_offset, "f"});
    add_hook(batch, spec,
             {"cb", inbound ? NF_INET_LOCAL_OUT : NF_INET_LOCAL_IN, source_port_offset, "b"});
    return table;
}

void add_table_removal(NftBatch& batch, const std::string& name)
{
    auto table = owned<nftnl_table_free>(nftnl_table_alloc());
    stored(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, name.c_str()));
    batch.add(NFT_MSG_DELTABLE, 0, "removal of table " + name,
              [&](nlmsghdr* header) { nftnl_table_nlmsg_build_payload(header, table.get()); });
}

uint32_t half_open_timeout_s(unsigned retries)
{
    constexpr unsigned retries_max = 127;     // what the kernel admits
    constexpr uint32_t longest_wait_s = 120;  // TCP_RTO_MAX
    constexpr uint32_t margin_s = 3;
    uint32_t sum_s = 0;
    for (unsigned i = 0; i <= std::min(retries, retries_max); ++i) {
        sum_s += i < 7 ? 1u << i : longest_wait_s;
    }
    return sum_s + margin_s;
}

uint32_t half_open_timeout_of(uint32_t direction)
{
    if (direction == VXI_SCAN_INBOUND) {
        return half_open_timeout_s(read_number("/proc/sys/net/ipv4/tcp_synack_retries", 5));
    }
    return half_open_timeout_s(read_number("/proc/sys/net/ipv4/tcp_syn_retries", 6));
}

}  // namespace vxi
