// Reading what nf_tables holds, whoever made it: access, counts and dumps over all families.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engines/linux/netlink/Netlink.h"
#include "engines/linux/Outcome.h"

namespace vxi {

// Opens the socket and makes sure that the kernel lets this process ask: -EPERM without
// CAP_NET_ADMIN in the network namespace.
Outcome open_nf_tables(Netlink& netlink);

// Puts the header of a dump of one family (NFPROTO_*, NFPROTO_UNSPEC for all) into a buffer
// of at least nft_dump_size bytes, which has room for two names behind it.
constexpr size_t nft_dump_size = 1024;
nlmsghdr* nft_dump(void* buffer, uint16_t type, uint8_t family);

// nf_tables messages of one kind (NFT_MSG_NEW..), and the family one speaks of.
bool is_nft(const nlmsghdr& message, uint16_t type);
uint8_t nft_family(const nlmsghdr& message);

struct NftCounts {
    uint64_t packets;
    uint64_t bytes;
};

// What a counter's attributes hold; empty when one is missing.
std::optional<NftCounts> counts_of(const nlattr* counter);

// What the counter of a rule itself has counted, of several the first.
std::optional<NftCounts> rule_counts(const Attributes& rule);

// As nft calls it; "family N" for one that it does not know.
std::string nft_family_name(uint8_t family);

// How many objects a dump of this kind (NFT_MSG_GET..) yields over all families; 0 or a
// negated errno.
int count_nft(Netlink& netlink, uint16_t get_type, uint64_t& count);

}  // namespace vxi
