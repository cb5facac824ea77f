// SipHash-2-4, a pseudorandom function for short input. Aumasson and Bernstein, "SipHash: a fast
// short-input PRF", 2012.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vxa::redaction {

using Key = std::array<std::uint64_t, 2>;

// Returns a random key from the kernel. Throws std::system_error.
Key RandomKey();

std::uint64_t SipHash(const Key& key, std::string_view message);

}  // namespace vxa::redaction
