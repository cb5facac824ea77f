// A limit on addresses that collide in Lua.
//
// Lua 5.2 hashes a string of 32 to 63 characters by every second of them, from its end. Making
// such a string searches all that agree in those characters. An IPv6 address can have 39
// characters, half of them chosen by a peer: 60,000 addresses that agree take 15 seconds or more.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace vxa {

class AlikeAddresses {
public:
    static constexpr std::size_t kMost = 1000;

    // Whether the address is short, known, or among the first kMost that agree with it in the
    // characters that Lua hashes.
    bool Admit(std::string_view address)
    {
        constexpr std::size_t kAllHashedBelow = 32;
        if (address.size() < kAllHashedBelow) return true;
        std::string hashed;
        for (std::size_t i = address.size(); i >= 2; i -= 2) hashed += address[i - 1];
        std::set<std::string, std::less<>>& alike = m_byHashed[hashed];
        if (alike.find(address) != alike.end()) return true;
        if (alike.size() >= kMost) return false;
        alike.emplace(address);
        return true;
    }

private:
    // Ordered: hash tables would have the same trouble.
    std::map<std::string, std::set<std::string, std::less<>>> m_byHashed;
};

}  // namespace vxa
