// Pseudonyms for bit strings that keep prefixes.
#pragma once

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <utility>
#include <vector>

#include "redaction/SipHash.h"

namespace vxa::redaction {

// The leading bits of a byte array; only as many bytes are used as a string has.
using Bits = std::array<std::uint8_t, 16>;

struct Prefix {
    Bits bits;
    unsigned length;

    bool operator==(const Prefix& other) const
    {
        return bits == other.bits && length == other.length;
    }
};

// The number of leading bits that both have in common, at most `length`.
unsigned CommonPrefix(const Bits& a, const Bits& b, unsigned length);

// A keyed permutation of the bit strings of one length: two strings with exactly k leading bits
// in common are mapped to two with exactly k leading bits in common. Each bit is flipped or not
// depending on the bits before it (Xu, Fan, Ammar and Moon, "Prefix-Preserving IP Address
// Anonymization", 2002), except that:
// - strings that begin with the prefix of a class stay in it, and the others stay out of it. So
//   what leads to such a prefix, and the first bit that leads away from it, are kept;
// - no string is mapped to itself, unless it is a class of its own;
// - the first and the last string with a pinned prefix become the first and the last one with the
//   masked prefix, which is never the same. So what is masked as a network looks like one.
class PrefixPermutation {
public:
    // `width` is a multiple of 4. The domain makes permutations of the same key differ.
    PrefixPermutation(const Key& key, char domain, unsigned width, std::vector<Prefix> classes)
        : m_key(key),
          m_domain(domain),
          m_width(width),
          m_classes(std::move(classes)),
          m_pins(0, Hash{key})
    {
    }

    // Pins a prefix, before any string is permuted. Returns false, and does nothing, if it is
    // pinned, or hardly more than a class is left of it: many strings that begin like its first or
    // last one would keep most of their bits.
    bool Pin(const Prefix& prefix);
    bool IsPinned(const Prefix& prefix) const;

    // Permutes the string; keeps at least the first `kept` bits. They must not depend on others.
    void Apply(Bits& string, unsigned kept = 0) const;

private:
    struct Hash {
        Key key;
        std::size_t operator()(const Prefix& prefix) const;
    };

    unsigned KeptBits(const Bits& string) const;
    bool HasPin(const Bits& string, unsigned length) const;
    bool LeadsToPin(Bits string, unsigned index) const;
    std::uint64_t Flips(const Bits& string, unsigned nibble) const;

    Key m_key;
    char m_domain;
    unsigned m_width;
    std::vector<Prefix> m_classes;
    std::unordered_set<Prefix, Hash> m_pins;
    std::bitset<129> m_pinnedLengths;
};

}  // namespace vxa::redaction
