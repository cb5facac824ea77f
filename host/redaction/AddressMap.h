// Pseudonyms for addresses.
#pragma once

#include "redaction/Address.h"

namespace vxa::redaction {

// Permutes the addresses of each family, keeping prefixes (PrefixPermutation.h) and classes:
// loopback, private (RFC 1918, RFC 4193, RFC 6598), link-local and multicast addresses stay what
// they are, and so do all others. The last 32 bits of an IPv4-mapped, IPv4-compatible or NAT64
// (64:ff9b::/96) address are mapped as the IPv4 address that they are. 127.0.0.1, ::1 and
// whatever begins with eight zero or one bits (unspecified, broadcast, masks) are kept, as are
// the scope of an IPv6 multicast address, and the group and local bit of a MAC address.
class AddressMap {
public:
    explicit AddressMap(const Key& key);

    // From now on the first and the last address of the network are masked as the first and last
    // one of another. Returns false for one that is, or is hardly more special than a class.
    bool Pin(const Address& network, unsigned length);
    bool IsPinned(const Address& network, unsigned length) const;

    Address Mask(const Address& address) const;

private:
    PrefixPermutation m_ipv4;
    PrefixPermutation m_ipv6;
    PrefixPermutation m_mac;
    PrefixPermutation m_eui64;
};

}  // namespace vxa::redaction
