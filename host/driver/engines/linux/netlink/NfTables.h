// nf_tables over netlink: requests, access, dumps over all families, and decoding messages.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "engines/linux/netlink/Netlink.h"

namespace vxi {

// Messages of Errors: -EPERM without CAP_NET_ADMIN in the network namespace; -EOPNOTSUPP or
// -EINVAL where nfnetlink has no such subsystem.
extern const char* const kNftNeedsPrivilege;
extern const char* const kNoNfTables;
// The kernel refuses a socket for NETLINK_NETFILTER.
extern const char* const kNoNetfilterNetlink;

// Opens the socket and makes sure that this process may ask nf_tables. Throws Error.
void OpenNfTables(Netlink& netlink);

// Writes the header of a netfilter request into `buffer`; `resource` is its res_id.
nlmsghdr* PutNetfilterHeader(void* buffer, std::uint16_t type, std::uint16_t flags,
                             std::uint8_t family, std::uint16_t resource);

// Writes the header of an nf_tables request of the inet family into `buffer`, which has room for
// it and for the attributes that the caller puts after it.
nlmsghdr* PutNftRequest(void* buffer, std::uint16_t type, std::uint16_t flags);

// Writes the header of a dump of one family (NFPROTO_*; NFPROTO_UNSPEC: all) into `buffer` of at
// least kNftDumpSize bytes, which leaves room for two names after it.
constexpr std::size_t kNftDumpSize = 1024;
nlmsghdr* PutNftDump(void* buffer, std::uint16_t type, std::uint8_t family);

// Whether this is an nf_tables message of one kind (NFT_MSG_NEW..); and its family.
bool IsNft(const nlmsghdr& message, std::uint16_t type);
std::uint8_t NftFamily(const nlmsghdr& message);

// Decodes a counter's attributes (NFTA_COUNTER_*); nullopt if one is missing.
std::optional<Counts> DecodeCounter(const nlattr* counter);

// The first counter among a rule's expressions; nullopt if the rule has none.
std::optional<Counts> DecodeRuleCounter(const Attributes& rule);

// Name of a family in nft's syntax; "family N" for one that nft does not know.
std::string NftFamilyName(std::uint8_t family);

// Number of objects that a dump of this kind (NFT_MSG_GET..) lists over all families; about that
// many where rules change all the time. Throws Error.
std::uint64_t CountNftObjects(Netlink& netlink, std::uint16_t get_type);

}  // namespace vxi
