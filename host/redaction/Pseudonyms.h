// What replaces addresses and names, and the file in which their owner keeps it.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "redaction/AddressMap.h"

namespace vxa::redaction {

class Pseudonyms {
public:
    // With a random key. If `keeps_addresses`, those that are masked are in the map.
    explicit Pseudonyms(bool keeps_addresses);
    // As a map has them. Throws std::runtime_error with the number of the line that is wrong.
    explicit Pseudonyms(std::string_view map);

    // While it collects, networks get pinned (PrefixPermutation.h), which changes the pseudonyms of
    // others: so everything is read once to collect, when nothing is masked, then again. With an
    // existing map, nothing is pinned any more.
    void CollectNetworks(bool on) { m_collects = on && m_canPin; }
    bool IsCollecting() const { return m_collects; }
    bool CanPin() const { return m_canPin; }

    Address Mask(const Address& address);
    // Masks the leading `length` bits; the others are zero before and after.
    Address MaskNetwork(const Address& network, unsigned length);

    // Appends the pseudonym of a name: its label ("host") and a number. A name keeps its first
    // label. Names that begin with "blacklist" get pseudonyms that do.
    void AppendName(std::string& out, std::string_view name, const char* label);

    // From now on the parts of this host name, separated by dots, are masked wherever they are,
    // even where they are common words; except "localhost" and top-level domains.
    void ReserveHost(std::string_view name);
    bool IsReserved(std::string_view name) const;

    // Passes the text of the map to the function in pieces: all pairs that were masked, one per
    // line: KIND ORIGINAL MASKED, sorted by kind and original.
    void Write(const std::function<void(std::string_view piece)>& write);

private:
    struct Network {
        Address address;
        unsigned length;
        bool operator<(const Network& other) const;
        bool operator==(const Network& other) const;
    };
    // The names are chosen by others, who must not be able to make them collide.
    struct Hash {
        Key key;
        std::size_t operator()(const std::string& name) const { return SipHash(key, name); }
    };
    struct Name {
        std::string masked;
        bool is_reserved = false;
    };

    Pseudonyms(const Key& key, bool keeps_addresses);
    void Keep(const Network& network);
    void Compact();
    void ReadLine(std::string_view line);
    std::string Head() const;
    std::string MaskName(std::string_view name, const char* label);
    std::string NewName(std::string_view name, const char* label);

    Key m_key;
    AddressMap m_addresses;
    bool m_keepsAddresses;
    bool m_canPin = true;
    bool m_collects = false;
    std::size_t m_pinned = 0;
    std::vector<Network> m_kept;  // the first m_compacted are sorted and unique
    std::size_t m_compacted = 0;
    std::unordered_map<std::string, Name, Hash> m_names;
    std::size_t m_nameBytes = 0;
    std::size_t m_unlisted = 0;    // names without an entry in m_names
    std::size_t m_lastNumber = 0;  // of a pseudonym
};

}  // namespace vxa::redaction
