#include "dumps/Address.h"

#include <algorithm>
#include <cstring>

namespace vxi {

namespace {

constexpr unsigned groups = 8;

char* put_byte(char* out, unsigned byte)
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

char* put_quad(char* out, const std::uint8_t* bytes)
{
    for (unsigned i = 0; i < 4; ++i) {
        if (i > 0) {
            *out++ = '.';
        }
        out = put_byte(out, bytes[i]);
    }
    return out;
}

char* put_group(char* out, unsigned group)
{
    static const char digits[] = "0123456789abcdef";
    bool leading = true;
    for (unsigned shift = 12; shift > 0; shift -= 4) {
        const unsigned digit = group >> shift & 15;
        leading = leading && digit == 0;
        if (!leading) {
            *out++ = digits[digit];
        }
    }
    *out++ = digits[group & 15];
    return out;
}

struct Run {
    unsigned begin;
    unsigned length;
};

// The first of the longest; a single zero group is not shortened.
Run longest_zeros(const unsigned (&group)[groups])
{
    Run best{groups, 1};
    for (unsigned i = 0; i < groups;) {
        unsigned end = i;
        while (end < groups && group[end] == 0) {
            ++end;
        }
        if (end - i > best.length) {
            best = {i, end - i};
        }
        i = std::max(end, i + 1);
    }
    return best.begin == groups ? Run{groups, 0} : best;
}

char* put_ipv6(char* out, const std::uint8_t (&address)[16])
{
    static constexpr std::uint8_t mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (std::memcmp(address, mapped, sizeof mapped) == 0) {
        out = std::copy_n("::ffff:", 7, out);
        return put_quad(out, address + 12);
    }
    unsigned group[groups];
    for (unsigned i = 0; i < groups; ++i) {
        group[i] = static_cast<unsigned>(address[2 * i] << 8 | address[2 * i + 1]);
    }
    const Run zeros = longest_zeros(group);
    for (unsigned i = 0; i < groups; ++i) {
        if (i == zeros.begin) {
            out = std::copy_n("::", 2, out);
            i += zeros.length - 1;
            continue;
        }
        if (i > 0 && i != zeros.begin + zeros.length) {
            *out++ = ':';
        }
        out = put_group(out, group[i]);
    }
    return out;
}

}  // namespace

char* put_address(char* out, const std::uint8_t (&address)[16], std::uint8_t family)
{
    switch (family) {
        case 4:
            return put_quad(out, address);
        case 6:
            return put_ipv6(out, address);
        default:
            *out++ = '?';
            return out;
    }
}

}  // namespace vxi
