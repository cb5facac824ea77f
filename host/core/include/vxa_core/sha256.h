// SHA-256 (FIPS 180-4).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "VxaCore/Export.h"

namespace VxaCore::Host {

// The digest of bytes that come in pieces.
class VXA_CORE_API Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(Sha256&&) noexcept;
    Sha256& operator=(Sha256&&) noexcept;

    void Add(std::string_view bytes);
    // Returns the digest of all bytes added so far, as 64 lower-case hexadecimal digits; more can
    // be added afterwards.
    std::string Hex() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace VxaCore::Host
