// Hash of a key's bytes under a random secret.

#include "KeyHash.h"

#include <sys/random.h>

#include <chrono>

namespace fc {

// Early in boot the kernel may not have random numbers yet; the time and an address are used then.
KeyHash::KeyHash()
{
    if (getrandom(m_secret, sizeof m_secret, GRND_NONBLOCK) == sizeof m_secret) return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    m_secret[0] = static_cast<std::uint64_t>(now) * UINT64_C(0x9e3779b97f4a7c15);
    m_secret[1] = reinterpret_cast<std::uintptr_t>(this) * UINT64_C(0xd6e8feb86659fd93);
}

}  // namespace fc
