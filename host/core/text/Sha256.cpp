// SHA-256, by Nettle.
#include "vxa_core/sha256.h"

#include <nettle/sha2.h>

#include <cstdint>

#include "text/HexEscape.h"

namespace VxaCore::Host {

struct Sha256::State {
    sha256_ctx context;
};

Sha256::Sha256() : m_state(std::make_unique<State>())
{
    sha256_init(&m_state->context);
}

Sha256::~Sha256() = default;
Sha256::Sha256(Sha256&&) noexcept = default;
Sha256& Sha256::operator=(Sha256&&) noexcept = default;

void Sha256::Add(std::string_view bytes)
{
    sha256_update(&m_state->context, bytes.size(),
                  reinterpret_cast<const std::uint8_t*>(bytes.data()));
}

std::string Sha256::Hex() const
{
    sha256_ctx copy = m_state->context;  // sha256_digest starts over
    std::uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_digest(&copy, sizeof digest, digest);
    std::string hex;
    for (const std::uint8_t byte : digest) AppendHexEscape(hex, "", static_cast<char>(byte));
    return hex;
}

}  // namespace VxaCore::Host
