// Expressions in the form that the kernel expects (net/netfilter/nft_*.c).
#include "engines/linux/scan/NftRule.h"

#include <arpa/inet.h>
#include <libnftnl/expr.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

namespace vxi {

NftRule::NftRule(const std::string& table, const char* chain)
    : m_rule(OwnNftnl<nftnl_rule_free>(nftnl_rule_alloc()))
{
    CheckNftnlSet(nftnl_rule_set_str(m_rule.get(), NFTNL_RULE_TABLE, table.c_str()));
    CheckNftnlSet(nftnl_rule_set_str(m_rule.get(), NFTNL_RULE_CHAIN, chain));
    nftnl_rule_set_u32(m_rule.get(), NFTNL_RULE_FAMILY, NFPROTO_INET);
}

void NftRule::MatchMeta(std::uint32_t key, std::uint8_t value)
{
    nftnl_expr* meta = Append("meta");
    nftnl_expr_set_u32(meta, NFTNL_EXPR_META_KEY, key);
    nftnl_expr_set_u32(meta, NFTNL_EXPR_META_DREG, NFT_REG_1);
    Compare(NFT_CMP_EQ, &value, sizeof value);
}

void NftRule::MatchPort(std::uint32_t offset, std::uint16_t port)
{
    const std::uint16_t network_order = htons(port);
    LoadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof network_order, NFT_REG_1);
    Compare(NFT_CMP_EQ, &network_order, sizeof network_order);
}

void NftRule::MatchTransportBits(std::uint32_t offset, std::uint8_t mask, std::uint8_t value,
                                 bool equal)
{
    const std::uint8_t zero = 0;
    LoadPayload(NFT_PAYLOAD_TRANSPORT_HEADER, offset, sizeof mask, NFT_REG_1);
    nftnl_expr* bitwise = Append("bitwise");
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_SREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_DREG, NFT_REG_1);
    nftnl_expr_set_u32(bitwise, NFTNL_EXPR_BITWISE_LEN, sizeof mask);
    CheckNftnlSet(nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_MASK, &mask, sizeof mask));
    CheckNftnlSet(nftnl_expr_set(bitwise, NFTNL_EXPR_BITWISE_XOR, &zero, sizeof zero));
    Compare(equal ? NFT_CMP_EQ : NFT_CMP_NEQ, &value, sizeof value);
}

void NftRule::LoadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t size,
                          std::uint32_t to)
{
    nftnl_expr* payload = Append("payload");
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_LEN, size);
    nftnl_expr_set_u32(payload, NFTNL_EXPR_PAYLOAD_DREG, to);
}

void NftRule::LookUpKey(const NftSetReference& set)
{
    nftnl_expr* lookup = Append("lookup");
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, NFT_REG32_00);
    CheckNftnlSet(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, set.name));
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SET_ID, set.id);
}

void NftRule::AddKey(const NftSetReference& set, std::uint64_t timeout_ms)
{
    nftnl_expr_set_u64(UpdateSet(set, NFT_DYNSET_OP_ADD), NFTNL_EXPR_DYNSET_TIMEOUT, timeout_ms);
}

void NftRule::DeleteKey(const NftSetReference& set)
{
    UpdateSet(set, NFT_DYNSET_OP_DELETE);
}

void NftRule::LimitRate(std::uint64_t packets_per_s, std::uint32_t burst)
{
    nftnl_expr* limit = Append("limit");
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, packets_per_s);
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, 1);
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, burst);
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
}

void NftRule::Count()
{
    Append("counter");
}

void NftRule::CountIn(const char* counter)
{
    nftnl_expr* reference = Append("objref");
    nftnl_expr_set_u32(reference, NFTNL_EXPR_OBJREF_IMM_TYPE, NFT_OBJECT_COUNTER);
    CheckNftnlSet(nftnl_expr_set_str(reference, NFTNL_EXPR_OBJREF_IMM_NAME, counter));
}

void NftRule::Return()
{
    SetVerdict(NFT_RETURN);
}

void NftRule::GoTo(const char* chain)
{
    CheckNftnlSet(nftnl_expr_set_str(SetVerdict(NFT_GOTO), NFTNL_EXPR_IMM_CHAIN, chain));
}

void NftRule::AddTo(NftBatch& batch) const
{
    batch.Add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND,
              std::string("rule of chain ") + nftnl_rule_get_str(m_rule.get(), NFTNL_RULE_CHAIN),
              [this](nlmsghdr* header) { nftnl_rule_nlmsg_build_payload(header, m_rule.get()); });
}

nftnl_expr* NftRule::Append(const char* kind)
{
    nftnl_expr* expression = nftnl_expr_alloc(kind);
    if (!expression) {
        throw std::bad_alloc();
    }
    nftnl_rule_add_expr(m_rule.get(), expression);
    return expression;
}

void NftRule::Compare(std::uint32_t operation, const void* value, std::uint32_t size)
{
    nftnl_expr* comparison = Append("cmp");
    nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_SREG, NFT_REG_1);
    nftnl_expr_set_u32(comparison, NFTNL_EXPR_CMP_OP, operation);
    CheckNftnlSet(nftnl_expr_set(comparison, NFTNL_EXPR_CMP_DATA, value, size));
}

nftnl_expr* NftRule::UpdateSet(const NftSetReference& set, std::uint32_t operation)
{
    nftnl_expr* update = Append("dynset");
    nftnl_expr_set_u32(update, NFTNL_EXPR_DYNSET_SREG_KEY, NFT_REG32_00);
    nftnl_expr_set_u32(update, NFTNL_EXPR_DYNSET_OP, operation);
    CheckNftnlSet(nftnl_expr_set_str(update, NFTNL_EXPR_DYNSET_SET_NAME, set.name));
    nftnl_expr_set_u32(update, NFTNL_EXPR_DYNSET_SET_ID, set.id);
    return update;
}

nftnl_expr* NftRule::SetVerdict(std::uint32_t verdict)
{
    nftnl_expr* immediate = Append("immediate");
    nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(immediate, NFTNL_EXPR_IMM_VERDICT, verdict);
    return immediate;
}

}  // namespace vxi
