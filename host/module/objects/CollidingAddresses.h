// Limits the addresses that collide in Lua's string hash.
//
// Lua 5.2 (lstring.c, luaS_hash) hashes every second character of a string of 32 to 63, from its
// end, and each new string is compared with those of the same hash. An IPv6 address has up to 39
// characters and its sender chooses half of them: 60,000 colliding addresses take 15 seconds.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace vxa {

class CollidingAddresses {
public:
    static constexpr std::size_t kMostColliding = 1000;

    // Returns whether the address is short, known, or among the first kMostColliding with the same
    // hashed characters.
    bool Admit(std::string_view address)
    {
        constexpr std::size_t kAllHashedBelow = 32;
        if (address.size() < kAllHashedBelow) return true;
        std::string hashed;
        for (std::size_t i = address.size(); i >= 2; i -= 2) hashed += address[i - 1];
        std::set<std::string, std::less<>>& colliding = m_byHashed[hashed];
        if (colliding.find(address) != colliding.end()) return true;
        if (colliding.size() >= kMostColliding) return false;
        colliding.emplace(address);
        return true;
    }

private:
    // Ordered: a hash table could be attacked the same way.
    std::map<std::string, std::set<std::string, std::less<>>> m_byHashed;
};

}  // namespace vxa
