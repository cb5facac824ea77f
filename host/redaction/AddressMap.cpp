// The classes of addresses.
#include "redaction/AddressMap.h"

#include <algorithm>

namespace vxa::redaction {

namespace {

// https://www.iana.org/assignments/iana-ipv4-special-registry
std::vector<Prefix> Ipv4Classes()
{
    return {{{0}, 8},         {{10}, 8},       {{100, 64}, 10},  {{127}, 8}, {{127, 0, 0, 1}, 32},
            {{169, 254}, 16}, {{172, 16}, 12}, {{192, 168}, 16}, {{224}, 4}, {{240}, 4},
            {{255}, 8}};
}

constexpr Prefix kCompatible = {{}, 96};
constexpr Prefix kMapped = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, 96};
constexpr Prefix kNat64 = {{0, 0x64, 0xff, 0x9b}, 96};

// https://www.iana.org/assignments/iana-ipv6-special-registry
std::vector<Prefix> Ipv6Classes()
{
    return {kCompatible,
            kMapped,
            kNat64,
            {{0x20}, 3},
            {{0xfc}, 8},
            {{0xfd}, 8},
            {{0xfe, 0x80}, 10},
            {{0xfe, 0x80}, 64},
            {{0xff}, 8},
            {{0xff, 0xff}, 16}};
}

bool Has(const Prefix& prefix, const Bits& bits)
{
    return CommonPrefix(prefix.bits, bits, prefix.length) == prefix.length;
}

void PermuteIpv4(const PrefixPermutation& permutation, Bits& bits)
{
    const bool is_mask = bits[0] == 0 || bits[0] == 0xff;
    permutation.Apply(bits, is_mask ? 32 : 0);
}

bool HasIpv4(const Bits& bits)
{
    return Has(kCompatible, bits) || Has(kMapped, bits) || Has(kNat64, bits);
}

unsigned KeptIpv6Bits(const Bits& bits)
{
    constexpr unsigned kFlagsAndScope = 16;
    if (bits[0] != 0xff) return 0;
    return bits[1] == 0xff ? 128 : kFlagsAndScope;
}

// The lowest two bits of the first byte, RFC 7042.
void KeepGroupAndLocalBit(Bits& bits, std::uint8_t original)
{
    bits[0] = static_cast<std::uint8_t>((bits[0] & ~3) | (original & 3));
}

}  // namespace

AddressMap::AddressMap(const Key& key)
    : m_ipv4(key, '4', 32, Ipv4Classes()),
      m_ipv6(key, '6', 128, Ipv6Classes()),
      m_mac(key, 'm', 48, {{{}, 48}, {{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 48}}),
      m_eui64(key, 'm', 64, {{{}, 64}})
{
}

bool AddressMap::Pin(const Address& network, unsigned length)
{
    if (network.family == Family::kIpv4) return m_ipv4.Pin({network.bits, length});
    return network.family == Family::kIpv6 && !HasIpv4(network.bits) &&
           m_ipv6.Pin({network.bits, length});
}

bool AddressMap::IsPinned(const Address& network, unsigned length) const
{
    return (network.family == Family::kIpv4 ? m_ipv4 : m_ipv6).IsPinned({network.bits, length});
}

Address AddressMap::Mask(const Address& address) const
{
    Address masked = address;
    Bits& bits = masked.bits;
    switch (address.family) {
        case Family::kIpv4:
            PermuteIpv4(m_ipv4, bits);
            break;
        case Family::kIpv6:
            if (HasIpv4(bits)) {
                Bits ipv4 = {};
                std::copy_n(bits.begin() + 12, 4, ipv4.begin());
                PermuteIpv4(m_ipv4, ipv4);
                std::copy_n(ipv4.begin(), 4, bits.begin() + 12);
            } else {
                m_ipv6.Apply(bits, KeptIpv6Bits(bits));
            }
            break;
        case Family::kMac:
            m_mac.Apply(bits);
            KeepGroupAndLocalBit(bits, address.bits[0]);
            break;
        case Family::kEui64:
            m_eui64.Apply(bits);
            KeepGroupAndLocalBit(bits, address.bits[0]);
            break;
    }
    return masked;
}

}  // namespace vxa::redaction
