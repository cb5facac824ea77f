// A rule of an inet table, made of expressions (libnftnl/expr.h, linux/netfilter/nf_tables.h).
#pragma once

#include <libnftnl/rule.h>

#include <cstdint>
#include <string>

#include "engines/linux/netlink/NftBatch.h"
#include "engines/linux/scan/Nftnl.h"

namespace vxi {

// A set of keys in the same transaction: rules refer to it by name and number.
struct NftSetReference {
    const char* name;
    std::uint32_t id;
};

// Expressions are evaluated in the order in which they are added. Functions throw std::bad_alloc.
class NftRule {
public:
    NftRule(const std::string& table, const char* chain);

    // Continues only if the meta value (NFT_META_*) is this one.
    void MatchMeta(std::uint32_t key, std::uint8_t value);

    // Continues only if the two bytes at this offset of the transport header are this port.
    void MatchPort(std::uint32_t offset, std::uint16_t port);

    // Continues only if the byte at this offset of the transport header, masked, is `value` (or, if
    // `equal` is false, is not).
    void MatchTransportBits(std::uint32_t offset, std::uint8_t mask, std::uint8_t value,
                            bool equal);

    // Loads a part of the packet (base: NFT_PAYLOAD_*) into registers from `to` on.
    void LoadPayload(std::uint32_t base, std::uint32_t offset, std::uint32_t size,
                     std::uint32_t to);

    // Continues only if the key in the registers from NFT_REG32_00 on is in the set.
    void LookUpKey(const NftSetReference& set);

    // Adds the key to the set; continues only if it has room.
    void AddKey(const NftSetReference& set, std::uint64_t timeout_ms);
    void DeleteKey(const NftSetReference& set);

    // Continues only within this rate of packets.
    void LimitRate(std::uint64_t packets_per_s, std::uint32_t burst);

    // Counts the packet in the rule itself, or in a named counter.
    void Count();
    void CountIn(const char* counter);

    // Ends the rule.
    void Return();
    void GoTo(const char* chain);

    // Appends a message that adds the rule at the end of its chain.
    void AddTo(NftBatch& batch) const;

private:
    nftnl_expr* Append(const char* kind);
    void Compare(std::uint32_t operation, const void* value, std::uint32_t size);
    nftnl_expr* UpdateSet(const NftSetReference& set, std::uint32_t operation);
    nftnl_expr* SetVerdict(std::uint32_t verdict);

    std::unique_ptr<nftnl_rule, NftnlFree<nftnl_rule_free>> m_rule;
};

}  // namespace vxi
