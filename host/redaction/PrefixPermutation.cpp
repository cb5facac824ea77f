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

// ---- pinned prefixes ------------------------------------------------------------------

std::size_t PrefixPermutation::Hash::operator()(const Prefix& prefix) const
{
    char message[1 + sizeof(Bits)] = {static_cast<char>(prefix.length)};
    std::copy(prefix.bits.begin(), prefix.bits.end(), message + 1);
    return SipHash(key, {message, sizeof message});
}

bool PrefixPermutation::Pin(const Prefix& prefix)
{
    constexpr unsigned kMaskedBits = 8;
    if (prefix.length < KeptBits(prefix.bits) + kMaskedBits || prefix.length >= m_width)
        return false;
    m_pinnedLengths.set(prefix.length);
    return m_pins.insert(prefix).second;
}

bool PrefixPermutation::IsPinned(const Prefix& prefix) const
{
    return m_pins.count(prefix) != 0;
}

bool PrefixPermutation::HasPin(const Bits& string, unsigned length) const
{
    if (!m_pinnedLengths.test(length)) return false;
    Prefix prefix = {{}, length};
    std::copy_n(string.begin(), (length + 7) / 8, prefix.bits.begin());
    if (length % 8 != 0)
        prefix.bits[length / 8] =
            static_cast<std::uint8_t>(prefix.bits[length / 8] & ~(0xff >> length % 8));
    return IsPinned(prefix);
}

// Whether the bit at `index` can be the last one of a pinned prefix.
bool PrefixPermutation::LeadsToPin(Bits string, unsigned index) const
{
    if (!m_pinnedLengths.test(index + 1)) return false;
    if (HasPin(string, index + 1)) return true;
    FlipAt(string, index);
    return HasPin(string, index + 1);
}

// ---- permuting --------------------------------------------------------------------------

void PrefixPermutation::Apply(Bits& string, unsigned kept) const
{
    const Bits original = string;
    kept = std::max(kept, KeptBits(original));
    // Whether the bits so far are a pinned prefix and then only zeros, or only ones.
    bool is_first = false, is_last = false;
    for (unsigned nibble = kept / 4; nibble < m_width / 4; ++nibble) {
        const std::uint64_t flips = Flips(original, nibble);
        unsigned node = 1;
        for (unsigned index = 4 * nibble; index < 4 * nibble + 4; ++index) {
            if (HasPin(original, index)) is_first = is_last = true;
            const unsigned bit = BitAt(original, index);
            const bool must_flip = string == original && LeadsToPin(original, index);
            if (index >= kept && !is_first && !is_last && (must_flip || flips >> node & 1))
                FlipAt(string, index);
            is_first = is_first && bit == 0;
            is_last = is_last && bit == 1;
            node = 2 * node + bit;
        }
    }
    if (string == original && kept < m_width) FlipAt(string, m_width - 1);
}

}  // namespace vxa::redaction
