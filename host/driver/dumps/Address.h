// Addresses as text. Written by hand: a table of 65535 flows holds 131070 of them, and
// inet_ntop formats an IPv6 address through sprintf.
#pragma once

#include <cstdint>

namespace vxi {

inline constexpr unsigned kAddressTextSize = 46;  // of the longest, with its NUL

// IPv4 (family 4) as a dotted quad, IPv6 (6) as RFC 5952 recommends: lower case, the
// longest run of zeros shortened, v4-mapped addresses dotted. Anything else as "?".
// Writes no NUL and returns the end of the text.
char* PutAddress(char* out, const std::uint8_t (&address)[16], std::uint8_t family);

}  // namespace vxi
