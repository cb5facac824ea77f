// Flips bits depending on those before them.
#include "redaction/PrefixPermutation.h"

#include <algorithm>
#include <string_view>

namespace vxa::redaction {

namespace {

unsigned BitAt(const Bits& bits, unsigned index)
{
    return bits[index / 8] >> (7 - index % 8) & 1;
}

void FlipAt(Bits& bits, unsigned index)
{
    bits[index / 8] ^= static_cast<std::uint8_t>(0x80 >> index % 8);
}

}  // namespace

unsigned CommonPrefix(const Bits& a, const Bits& b, unsigned length)
{
    unsigned common = 0;
    while (common + 8 <= length && a[common / 8] == b[common / 8]) common += 8;
    while (common < length && BitAt(a, common) == BitAt(b, common)) ++common;
    return common;
}

unsigned PrefixPermutation::KeptBits(const Bits& string) const
{
    unsigned kept = 0;
    for (const Prefix& each : m_classes) {
        const unsigned common = CommonPrefix(string, each.bits, each.length);
        kept = std::max(kept, std::min(common + 1, each.length));
    }
    return kept;
}

// One hash decides about four bits: bit 1 about the first, bit 2 or 3 about the second depending
// on the first, and so on, as in a binary heap.
std::uint64_t PrefixPermutation::Flips(const Bits& string, unsigned nibble) const
{
    char message[2 + sizeof(Bits)] = {m_domain, static_cast<char>(nibble)};
    const unsigned bytes = (nibble + 1) / 2;
    std::copy_n(string.begin(), bytes, message + 2);
    if (nibble % 2 != 0) message[1 + bytes] = static_cast<char>(message[1 + bytes] & 0xf0);
    return SipHash(m_key, {message, 2 + std::size_t{bytes}});
}

void PrefixPermutation::Apply(Bits& string, unsigned kept) const
{
    const Bits original = string;
    kept = std::max(kept, KeptBits(original));
    for (unsigned nibble = kept / 4; nibble < m_width / 4; ++nibble) {
        const std::uint64_t flips = Flips(original, nibble);
        unsigned node = 1;
        for (unsigned index = 4 * nibble; index < 4 * nibble + 4; ++index) {
            if (index >= kept && flips >> node & 1) FlipAt(string, index);
            node = 2 * node + BitAt(original, index);
        }
    }
    if (string == original && kept < m_width) FlipAt(string, m_width - 1);
}

}  // namespace vxa::redaction
