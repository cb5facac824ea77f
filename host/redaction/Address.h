// IP and MAC addresses as they are spelled in text.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "redaction/PrefixPermutation.h"

namespace vxa::redaction {

enum class Family { kIpv4, kIpv6, kMac, kEui64 };

struct Address {
    Family family;
    Bits bits;

    // In bits.
    unsigned Width() const
    {
        constexpr unsigned kWidths[] = {32, 128, 48, 64};
        return kWidths[static_cast<unsigned>(family)];
    }
    bool operator<(const Address& other) const
    {
        return family != other.family ? family < other.family : bits < other.bits;
    }
    bool operator==(const Address& other) const
    {
        return family == other.family && bits == other.bits;
    }
};

// How an address is spelled, so that another one can be spelled alike.
struct Spelling {
    std::size_t length = 0;  // characters of the text; 0 if it does not begin with an address
    bool dotted = false;     // IPv6 that ends in dotted decimal
    bool expanded = false;   // IPv6 in eight groups
    bool padded = false;     // IPv6 groups of four digits
    bool upper = false;
    char separator = ':';  // of a MAC address: ":", "-", or "." for three groups
};

struct SpelledAddress {
    Address address;
    Spelling spelling;
    explicit operator bool() const { return spelling.length > 0; }
};

// Each reads the address that the text begins with, which may continue with something else.
// IPv4 has four decimal numbers; IPv6 has any form of RFC 4291, section 2.2.
SpelledAddress ReadIpv4(std::string_view text);
SpelledAddress ReadIpv6(std::string_view text);
// 52:54:00:12:34:56, 52-54-00-12-34-56, 5254.0012.3456; an EUI-64 has eight pairs.
SpelledAddress ReadMac(std::string_view text);
// Any of them.
SpelledAddress ReadAddress(std::string_view text);

// IPv6 that is written otherwise than spelled has the form of RFC 5952.
void AppendAddress(std::string& out, const Address& address, const Spelling& spelling);

// Clears the bits after the first `length`, or sets them.
Address FirstOfBlock(const Address& address, unsigned length);
Address LastOfBlock(const Address& address, unsigned length);

}  // namespace vxa::redaction
