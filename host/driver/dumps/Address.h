// Formats addresses. Written by hand because a table of 65535 flows has 131070 of them, and
// inet_ntop formats an IPv6 address with sprintf.
#pragma once

#include <cstdint>

namespace vxi {

inline constexpr unsigned kAddressTextSize = 46;  // INET6_ADDRSTRLEN

// Writes an IPv4 address (family 4) as a dotted quad, an IPv6 address (6) as RFC 5952 recommends
// (lower case, the longest run of zeros shortened, v4-mapped addresses dotted), anything else as
// "?". Returns the end of the text, without a NUL.
char* WriteAddress(char* out, const std::uint8_t (&address)[16], std::uint8_t family);

}  // namespace vxi
