// Formats addresses.
#include "dumps/Address.h"

#include <algorithm>
#include <cstring>

namespace vxi {

namespace {

constexpr unsigned kGroups = 8;

char* WriteByte(char* out, unsigned byte)
{
    if (byte >= 100) {
        *out++ = static_cast<char>('0' + byte / 100);
    }
    if (byte >= 10) {
        *out++ = static_cast<char>('0' + byte / 10 % 10);
    }
    *out++ = static_cast<char>('0' + byte % 10);
    return out;
}

char* WriteQuad(char* out, const std::uint8_t* bytes)
{
    for (unsigned i = 0; i < 4; ++i) {
        if (i > 0) {
            *out++ = '.';
        }
        out = WriteByte(out, bytes[i]);
    }
    return out;
}

char* WriteGroup(char* out, unsigned group)
{
    static const char kDigits[] = "0123456789abcdef";
    bool leading = true;
    for (unsigned shift = 12; shift > 0; shift -= 4) {
        const unsigned digit = group >> shift & 15;
        leading = leading && digit == 0;
        if (!leading) {
            *out++ = kDigits[digit];
        }
    }
    *out++ = kDigits[group & 15];
    return out;
}

struct Run {
    unsigned begin;
    unsigned length;
};

// Returns the first of the longest runs of zero groups; a single one is not shortened.
Run LongestZeros(const unsigned (&group)[kGroups])
{
    Run best{kGroups, 1};
    for (unsigned i = 0; i < kGroups;) {
        unsigned end = i;
        while (end < kGroups && group[end] == 0) {
            ++end;
        }
        if (end - i > best.length) {
            best = {i, end - i};
        }
        i = std::max(end, i + 1);
    }
    return best.begin == kGroups ? Run{kGroups, 0} : best;
}

char* WriteIpv6(char* out, const std::uint8_t (&address)[16])
{
    static constexpr std::uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::memcmp(address, kMapped, sizeof kMapped) == 0) {
        out = std::copy_n("::ffff:", 7, out);
        return WriteQuad(out, address + 12);
    }
    unsigned group[kGroups];
    for (std::size_t i = 0; i < kGroups; ++i) {
        group[i] = static_cast<unsigned>(address[2 * i] << 8 | address[2 * i + 1]);
    }
    const Run zeros = LongestZeros(group);
    for (unsigned i = 0; i < kGroups; ++i) {
        if (i == zeros.begin) {
            out = std::copy_n("::", 2, out);
            i += zeros.length - 1;
            continue;
        }
        if (i > 0 && i != zeros.begin + zeros.length) {
            *out++ = ':';
        }
        out = WriteGroup(out, group[i]);
    }
    return out;
}

}  // namespace

char* WriteAddress(char* out, const std::uint8_t (&address)[16], std::uint8_t family)
{
    switch (family) {
        case 4:
            return WriteQuad(out, address);
        case 6:
            return WriteIpv6(out, address);
        default:
            *out++ = '?';
            return out;
    }
}

}  // namespace vxi
