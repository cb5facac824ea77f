// Reading what nf_tables holds, whoever made it: access, counts and dumps over all families.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engines/linux/Outcome.h"
#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// Opens the socket and makes sure that the kernel lets this process ask: -EPERM without
// CAP_NET_ADMIN in the network namespace.
Outcome OpenNfTables(Netlink& netlink);

// Puts the header of a dump of one family (NFPROTO_*, NFPROTO_UNSPEC for all) into a buffer
// of at least kNftDumpSize bytes, which has room for two names behind it.
constexpr std::size_t kNftDumpSize = 1024;
nlmsghdr* NftDump(void* buffer, std::uint16_t type, std::uint8_t family);

// nf_tables messages of one kind (NFT_MSG_NEW..), and the family one speaks of.
bool IsNft(const nlmsghdr& message, std::uint16_t type);
std::uint8_t NftFamily(const nlmsghdr& message);

struct NftCounts {
    std::uint64_t packets;
    std::uint64_t bytes;
};

// What a counter's attributes hold; empty when one is missing.
std::optional<NftCounts> CountsOf(const nlattr* counter);

// What the counter of a rule itself has counted, of several the first.
std::optional<NftCounts> DecodeCounters(const Attributes& rule);

// As nft calls it; "family N" for one that it does not know.
std::string NftFamilyName(std::uint8_t family);

// How many objects a dump of this kind (NFT_MSG_GET..) yields over all families; 0 or a
// negated errno.
int CountNft(Netlink& netlink, std::uint16_t get_type, std::uint64_t& count);

}  // namespace vxi
