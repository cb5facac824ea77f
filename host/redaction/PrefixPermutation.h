// Pseudonyms for bit strings that keep prefixes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "redaction/SipHash.h"

namespace vxa::redaction {

// The leading bits of a byte array; only as many bytes are used as a string has.
using Bits = std::array<std::uint8_t, 16>;

struct Prefix {
    Bits bits;
    unsigned length;
};

// The number of leading bits that both have in common, at most `length`.
unsigned CommonPrefix(const Bits& a, const Bits& b, unsigned length);

// A keyed permutation of the bit strings of one length: two strings with exactly k leading bits
// in common are mapped to two with exactly k leading bits in common. Each bit is flipped or not
// depending on the bits before it (Xu, Fan, Ammar and Moon, "Prefix-Preserving IP Address
// Anonymization", 2002), except that:
// - strings that begin with the prefix of a class stay in it, and the others stay out of it. So
//   what leads to such a prefix, and the first bit that leads away from it, are kept;
// - no string is mapped to itself, unless it is a class of its own.
class PrefixPermutation {
public:
    // `width` is a multiple of 4. The domain makes permutations of the same key differ.
    PrefixPermutation(const Key& key, char domain, unsigned width, std::vector<Prefix> classes)
        : m_key(key), m_domain(domain), m_width(width), m_classes(std::move(classes))
    {
    }

    // Permutes the string; keeps at least the first `kept` bits. They must not depend on others.
    void Apply(Bits& string, unsigned kept = 0) const;

private:
    unsigned KeptBits(const Bits& string) const;
    std::uint64_t Flips(const Bits& string, unsigned nibble) const;

    Key m_key;
    char m_domain;
    unsigned m_width;
    std::vector<Prefix> m_classes;
};

}  // namespace vxa::redaction
