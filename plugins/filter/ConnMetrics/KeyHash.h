// Hash of a key's bytes under a random secret: a peer whose address becomes part of a key must not
// be able to choose keys that collide.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace fc {

class KeyHash {
public:
    // Draws the secret.
    KeyHash();

    std::uint64_t operator()(std::string_view key) const
    {
        const char* at = key.data();
        const char* const end = at + key.size();
        std::uint64_t hash = m_secret[1] ^ key.size();
        if (key.size() < 8) return Fold(LoadShort(key) ^ m_secret[0], hash);
        for (; end - at > 16; at += 16) hash = Fold(Load(at) ^ m_secret[0], Load(at + 8) ^ hash);
        // The last 16 bytes, or all of a shorter key; they may overlap what was hashed already.
        at = key.size() < 16 ? at : end - 16;
        return Fold(Load(at) ^ m_secret[0], Load(end - 8) ^ hash);
    }

private:
    __extension__ using Product = unsigned __int128;

    // Multiplies to 128 bits and folds both halves into one, which mixes every bit of the factors.
    static std::uint64_t Fold(std::uint64_t a, std::uint64_t b)
    {
        const Product product = static_cast<Product>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }
    static std::uint64_t Load(const char* bytes)
    {
        std::uint64_t word;
        std::memcpy(&word, bytes, sizeof word);
        return word;
    }
    static std::uint64_t LoadShort(std::string_view bytes)
    {
        std::uint64_t word = 0;
        for (char byte : bytes) word = word << 8 | static_cast<unsigned char>(byte);
        return word;
    }

    std::uint64_t m_secret[2];
};

}  // namespace fc
